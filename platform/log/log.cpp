#include "android/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kLetters = "??VDIWEFS";

/// The priority that `letter` names in a filter, or `fallback`.
int priorityOf(char letter, int fallback) {
    const size_t index = kLetters.find(letter);
    return letter == '?' || index == std::string_view::npos ? fallback : static_cast<int>(index);
}

/// The lowest priority that ANDROID_LOG_TAGS lets through for `tag`. An entry for the tag itself
/// holds wherever it stands, "*" for all the rest; an entry without a priority means VERBOSE.
int lowestPriority(std::string_view tag) {
    const char* filter = getenv("ANDROID_LOG_TAGS");
    int forAll = ANDROID_LOG_VERBOSE;
    std::string_view rest = filter != nullptr ? filter : "";
    while (!rest.empty()) {
        const std::string_view entry = rest.substr(0, rest.find_first_of(" \t,"));
        rest.remove_prefix(entry.size());
        if (!rest.empty()) rest.remove_prefix(1);
        const size_t colon = entry.rfind(':');
        const std::string_view name = entry.substr(0, colon);
        const bool hasPriority = colon != std::string_view::npos && colon + 1 < entry.size();
        const int priority = hasPriority ? priorityOf(entry[colon + 1], ANDROID_LOG_VERBOSE)
                                         : static_cast<int>(ANDROID_LOG_VERBOSE);
        if (name == tag) return priority;
        if (name == "*") forAll = priority;
    }
    return forAll;
}

/// Appends `text` with its control characters escaped: a file name must not forge a line.
void appendEscaped(std::string& line, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            line += c;
        } else {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\x%02x", byte);
            line += escape;
        }
    }
}

std::string formatted(const char* fmt, va_list args) {
    char buffer[1024];
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(buffer, sizeof(buffer), fmt, args);
    std::string text;
    if (length > 0 && static_cast<size_t>(length) < sizeof(buffer)) {
        text.assign(buffer, static_cast<size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<size_t>(length));
        vsnprintf(text.data(), text.size() + 1, fmt, again);
    }
    va_end(again);
    return text;
}

/// "11-24 10:42:07.123  4711  4713 E rux     : "
std::string header(int prio, const char* tag) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    strftime(date, sizeof(date), "%m-%d %H:%M:%S", &local);
    const char letter = prio >= 0 && prio < static_cast<int>(kLetters.size())
                                ? kLetters[static_cast<size_t>(prio)]
                                : '?';
    char text[256];
    const int length =
            snprintf(text, sizeof(text), "%s.%03d %5d %5d %c %-8.128s: ", date,
                     static_cast<int>(now.tv_usec / 1000), getpid(), gettid(), letter, tag);
    return {text, static_cast<size_t>(length)};
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    if (tag == nullptr) tag = program_invocation_short_name;
    if (prio < lowestPriority(tag)) return 0;
    va_list args;
    va_start(args, fmt);
    const std::string message = formatted(fmt, args);
    va_end(args);
    std::string line = header(prio, tag);
    appendEscaped(line, message);
    line += '\n';
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    return written < 0 ? -errno : 1;
}
