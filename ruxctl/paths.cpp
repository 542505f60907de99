#include "ruxctl/paths.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "ruxctl/client.h"

namespace ruxctl {

namespace fs = std::filesystem;

std::string absolutePath(const std::string& path) {
    std::error_code error;
    fs::path whole = fs::absolute(path, error);
    if (error) return path;
    if (std::find(whole.begin(), whole.end(), "..") != whole.end()) {
        fs::path resolved = fs::canonical(whole, error);
        if (!error) whole = std::move(resolved);
    }
    std::string text = whole.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

bool isBelow(std::string_view path, const Places& places) {
    if (places.contains("/")) return true;
    while (!path.empty() && !places.contains(path))
        path = path.substr(0, std::min(path.size(), path.rfind('/')));
    return !path.empty();
}

std::vector<std::vector<std::string>> portionsOf(const std::vector<std::string>& places) {
    constexpr size_t kMost = size_t{1} << 20;  // bytes of paths; a request holds 8 MiB
    std::vector<std::vector<std::string>> portions(1);
    size_t bytes = 0;
    for (const std::string& place : places) {
        bytes += place.size();
        if (bytes > kMost && !portions.back().empty()) {
            portions.emplace_back();
            bytes = place.size();
        }
        portions.back().push_back(place);
    }
    return portions;
}

PathPatterns::PathPatterns(const std::vector<std::string>& patterns, bool tells) {
    std::vector<std::string> valid;
    for (const std::string& pattern : patterns) {
        try {
            const rux::Expression isValid(pattern);
            valid.push_back(pattern);
        } catch (const std::invalid_argument& error) {
            if (!tells) continue;
            const bool isGlob = pattern.starts_with('*') || pattern.starts_with('?');
            throw Failure("\"" + pattern + "\" is no regular expression (ECMAScript): " +
                                  (isGlob ? "that is a glob; as a pattern: .*" +
                                                    escaped(pattern.substr(1))
                                          : error.what()),
                          kUsage);
        }
    }
    mPatterns = rux::PatternList(valid);
}

bool PathPatterns::match(const std::string& path) const {
    std::vector<const std::string*> tooLong;
    return mPatterns.matches(path, tooLong);
}

std::string escaped(const std::string& text) {
    std::string pattern;
    for (const char c : text) {
        if (std::string_view("\\^$.|+()[]{}*?").find(c) != std::string_view::npos) pattern += '\\';
        pattern += c;
    }
    return pattern;
}

std::string patternOfGlob(std::string glob) {
    if (glob.starts_with("./") || glob.starts_with("../")) glob = absolutePath(glob);
    while (glob.size() > 1 && glob.back() == '/') glob.pop_back();
    std::string pattern = glob.front() == '/' ? "" : "[\\s\\S]*/";
    for (size_t i = 0; i < glob.size(); ++i) {
        if (glob.compare(i, 2, "**") == 0) {
            pattern += "[\\s\\S]*";
            ++i;
        } else if (glob[i] == '*') {
            pattern += "[^/]*";
        } else if (glob[i] == '?') {
            pattern += "[^/]";
        } else {
            pattern += escaped({glob[i]});
        }
    }
    return pattern + "(?:/[\\s\\S]*)?";
}

}  // namespace ruxctl
