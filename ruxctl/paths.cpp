#include "ruxctl/paths.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

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

}  // namespace ruxctl
