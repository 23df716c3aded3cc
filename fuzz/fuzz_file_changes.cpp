// Fuzzes the raw + numstat stream parser on arbitrary bytes and on the same
// bytes decoded as the runner decodes git's output.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "utils/git_utils.hpp"

namespace {

void check(std::string_view output) {
    std::vector<std::string_view> tokens = git_utils::split_nul(output);
    std::vector<git_utils::FileChangeView> views = git_utils::file_change_views(tokens);
    std::vector<git_utils::FileChange> records = git_utils::parse_file_changes(output);
    if (records.size() != views.size()) __builtin_trap();
    for (std::size_t i = 0; i < views.size(); ++i) {
        const git_utils::FileChangeView& v = views[i];
        // Every view lies inside the input.
        if (v.path.empty() || v.path.data() < output.data() || v.path.data() + v.path.size() > output.data() + output.size())
            __builtin_trap();
        if (records[i].path != v.path) __builtin_trap();
        if (records[i].old_path.has_value() != v.old_path.has_value()) __builtin_trap();
    }
    // A predicate other than the default takes the generic path.
    git_utils::file_change_views(tokens, [](std::string_view letter) { return letter == "X" || letter == "R"; });
}

}  // namespace

#include "fuzz_entry.hpp"
