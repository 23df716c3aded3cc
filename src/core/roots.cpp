// Repository root discovery: walks up the written form of an absolute path
// looking for a ".git" entry. No symbolic link is resolved and no ".." is
// collapsed, so the answer keeps the spelling the caller used. What differs
// per system (the separators, the anchor of an absolute path, whether an
// entry exists) is behind platform.hpp.
#include "src/core/roots.hpp"

#include <string>
#include <string_view>
#include <vector>

#include "src/core/platform.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

namespace {

// The components of `path` that count: empty ones (repeated or trailing
// separators) and "." are dropped, ".." stays.
std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t end = pos;
        while (end < path.size() && !platform::is_separator(path[end])) ++end;
        std::string_view part = path.substr(pos, end - pos);
        if (!part.empty() && part != ".") parts.push_back(part);
        pos = end + 1;
    }
    return parts;
}

// `anchor` (the root, with its separator) followed by the first `count`
// components.
std::string join_prefix(const std::string& anchor, const std::vector<std::string_view>& parts, std::size_t count) {
    std::string path = anchor;
    for (std::size_t k = 0; k < count; ++k) {
        if (k > 0) path += platform::separator();
        path.append(parts[k]);
    }
    return path;
}

}  // namespace

std::optional<std::string> find_git_root(std::optional<std::string> start) {
    const auto [anchor, rest] = platform::absolute_anchored(start ? std::move(*start) : current_directory());
    const std::vector<std::string_view> parts = components(rest);
    for (std::size_t count = parts.size() + 1; count-- > 0;) {
        std::string candidate = join_prefix(anchor, parts, count);
        std::string marker = count == 0 ? candidate + ".git" : candidate + platform::separator() + ".git";
        if (platform::exists(marker)) return candidate;
    }
    return std::nullopt;
}

std::string find_repo_root() {
    return *find_repo_root_with([] { return find_git_root(); },
                                [] { return std::optional<std::string>(current_directory()); });
}

}  // namespace git_utils
