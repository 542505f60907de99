#include "android/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

namespace {

/// What standard error receives while `step` runs, one entry a write.
template <typename Step>
std::string captured(const char* filter, const Step& step) {
    int pipeEnds[2];
    EXPECT_EQ(pipe2(pipeEnds, O_CLOEXEC | O_DIRECT), 0);  // packet mode: a read returns one write
    const int saved = dup(STDERR_FILENO);
    dup2(pipeEnds[1], STDERR_FILENO);
    if (filter != nullptr) setenv("ANDROID_LOG_TAGS", filter, 1);
    step();
    unsetenv("ANDROID_LOG_TAGS");
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(pipeEnds[1]);
    std::string text;
    char packet[8192];
    for (ssize_t got = 0; (got = read(pipeEnds[0], packet, sizeof(packet))) > 0;) {
        text.append(packet, static_cast<size_t>(got));
        if (text.back() == '\n') text += '|';
    }
    close(pipeEnds[0]);
    return text;
}

TEST(LogTest, WritesOneLineInThreadTimeForm) {
    const std::string text = captured(nullptr, [] {
        EXPECT_GT(__android_log_print(ANDROID_LOG_ERROR, "rux", "number %d", 7), 0);
        __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s", "two\nlines\x7f");
        __android_log_print(ANDROID_LOG_DEBUG, "long", "%s", std::string(3000, 'x').c_str());
    });
    const std::string ids = " +" + std::to_string(getpid()) + " +" + std::to_string(gettid()) + " ";
    const std::string form = R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})" + ids;
    const std::string name = program_invocation_short_name;
    EXPECT_TRUE(std::regex_match(text, std::regex(form + "E rux     : number 7\n\\|" + form + "D " +
                                                  name + " *: two\\\\x0alines\\\\x7f\n\\|" + form +
                                                  "D long    : x{3000}\n\\|")))
            << text;
}

TEST(LogTest, FiltersByTagAndPriority) {
    const auto linesWith = [](const char* filter) {
        return captured(filter, [] {
            __android_log_print(ANDROID_LOG_DEBUG, "rux", "a");
            __android_log_print(ANDROID_LOG_ERROR, "rux", "b");
            __android_log_print(ANDROID_LOG_DEBUG, "other", "c");
            __android_log_print(ANDROID_LOG_ERROR, "other", "d");
        });
    };
    const std::pair<const char*, const char*> expected[] = {
            {"", "abcd"},       {"*:E", "bd"},   {"rux:D *:S", "ab"}, {"*:S rux:E", "b"},
            {"rux *:E", "abd"}, {"*:V", "abcd"}, {"*:S", ""},
    };
    for (const auto& [filter, letters] : expected) {
        std::string seen;
        const std::string text = linesWith(filter);
        for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
            seen += text[at - 1];
        }
        EXPECT_EQ(seen, letters) << filter;
    }
}

}  // namespace
