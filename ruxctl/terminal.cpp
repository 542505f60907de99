#include "ruxctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "ruxctl/units.h"

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

/// Characters, as far as the table cares: continuation bytes of UTF-8 are none.
size_t widthOf(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

/// Whether the byte is a control character, or part of one: U+0080 to U+009F, which some terminals
/// obey as well, are two bytes.
bool isControl(const std::string& text, size_t at) {
    const auto isC1 = [&text](size_t i) {
        return text[i] == '\xc2' && i + 1 < text.size() && (text[i + 1] & 0xe0) == 0x80;
    };
    const auto c = static_cast<unsigned char>(text[at]);
    return c < 0x20 || c == 0x7f || isC1(at) || (at > 0 && isC1(at - 1));
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

std::string shown(const std::string& path) {
    std::string quoted = "$'";
    bool isPlain = true;
    for (size_t i = 0; i < path.size(); ++i) {
        if (isControl(path, i)) {
            char octal[8];
            snprintf(octal, sizeof(octal), "\\%03o", static_cast<unsigned char>(path[i]));
            quoted += octal;
            isPlain = false;
            continue;
        }
        if (path[i] == '\'' || path[i] == '\\') quoted += '\\';
        quoted += path[i];
    }
    return isPlain ? path : quoted + "'";
}

void printTable(const std::vector<std::vector<std::string>>& rows, bool isText) {
    std::vector<size_t> widths(rows.front().size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string space(widths[i] - widthOf(row[i]), ' ');
            if (i > 0) line += "  ";
            const bool isLeft = i == 0 || (isText && i + 1 == row.size());
            line += isLeft ? row[i] + space : space + row[i];
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::cout << (&row == rows.data() ? inked(Ink::Bold, line) : line) << "\n";
    }
}

std::string progress(int64_t done, int64_t all, double seconds,
                     const std::function<std::string(int64_t)>& amount) {
    const double part =
            all > 0 ? std::min(static_cast<double>(done) / static_cast<double>(all), 1.0) : 0;
    const size_t width = std::clamp<size_t>(terminalWidth(), 55, 80) - 50;
    const auto filled = static_cast<size_t>(part * static_cast<double>(width));
    std::string line = "[" + std::string(filled, '#') + std::string(width - filled, '-') + "] " +
                       amount(done) + " of " + amount(all);
    if (part > 0 && seconds > 0) {
        line += ", " + amount(static_cast<int64_t>(static_cast<double>(done) / seconds)) +
                "/s, about " + duration(seconds / part - seconds) + " left";
    }
    return line;
}

std::optional<bool> confirmed(const std::string& question) {
    std::fstream terminal("/dev/tty");
    if (!terminal) return std::nullopt;
    terminal << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(terminal, answer);
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
