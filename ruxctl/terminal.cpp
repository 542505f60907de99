#include "ruxctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace ruxctl {
namespace {

volatile sig_atomic_t interrupted = 0;
struct sigaction before[2];  // what SIGINT and SIGTERM did
constexpr int kSignals[] = {SIGINT, SIGTERM};

bool isSet(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr && *value != '\0';
}

bool hasColour() {
    static const bool has = [] {
        const char* terminal = getenv("TERM");
        return isatty(STDOUT_FILENO) != 0 && !isSet("NO_COLOR") && terminal != nullptr &&
               strcmp(terminal, "dumb") != 0;
    }();
    return has;
}

size_t terminalWidth() {
    winsize size = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : 80;
}

}  // namespace

std::string inked(Ink ink, const std::string& text) {
    constexpr const char* kCodes[] = {"1", "2", "32", "33", "31"};  // in the order of the inks
    if (!hasColour()) return text;
    return std::string("\033[") + kCodes[static_cast<size_t>(ink)] + "m" + text + "\033[0m";
}

StatusLine::StatusLine() : mIsTerminal(isatty(STDERR_FILENO) != 0) {}

void StatusLine::show(const std::string& text) {
    if (!mIsTerminal) return;
    std::cerr << "\r" << text.substr(0, terminalWidth() - 1) << "\033[K" << std::flush;
    mShown = true;
}

void StatusLine::clear() {
    if (mShown) std::cerr << "\r\033[K" << std::flush;
    mShown = false;
}

std::string bar(double part, int width) {
    const int filled = static_cast<int>(std::clamp(part, 0.0, 1.0) * width);
    return "[" + std::string(static_cast<size_t>(filled), '#') +
           std::string(static_cast<size_t>(width - filled), '-') + "]";
}

bool canAsk() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

bool confirmed(const std::string& question) {
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

Interrupts::Interrupts() {
    interrupted = 0;
    struct sigaction note = {};
    note.sa_handler = [](int) { interrupted = 1; };
    note.sa_flags = static_cast<int>(SA_RESETHAND);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &note, &before[i]);
}

Interrupts::~Interrupts() {
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &before[i], nullptr);
}

bool Interrupts::any() {
    return interrupted != 0;
}

}  // namespace ruxctl
