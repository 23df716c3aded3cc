// The short form of a user-supplied branch name.
#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

#include <array>

namespace git_utils {

std::optional<std::string> normalize_branch_name(std::optional<std::string_view> name) {
    if (!name || name->empty()) return std::nullopt;
    // White space is trimmed once, before any prefix goes: what a removed
    // prefix uncovers stays.
    std::string_view short_name = strip(*name);
    static constexpr std::array<std::string_view, 4> prefixes = {"refs/heads/", "refs/remotes/", "remotes/",
                                                                 "origin/"};
    // Passes repeat until one removes nothing; within a pass every prefix is
    // tried in turn on what the previous ones left.
    bool changed = true;
    while (changed) {
        changed = false;
        for (std::string_view prefix : prefixes) {
            if (short_name.starts_with(prefix)) {
                short_name.remove_prefix(prefix.size());
                changed = true;
            }
        }
    }
    if (short_name.empty()) return std::nullopt;
    return std::string(short_name);
}

}  // namespace git_utils
