// Fuzzes the commit log parser (`--format=%x1e%ct --raw --numstat -z`) on
// arbitrary bytes and on the same bytes decoded as git's output is.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "utils/git_utils.hpp"

namespace {

void check(std::string_view output) {
    std::vector<git_utils::CommitView> views = git_utils::commit_change_views(output);
    // Only the last commit may carry an invalid stamp: the parse stops there.
    for (std::size_t i = 0; i + 1 < views.size(); ++i)
        if (!views[i].valid) __builtin_trap();
    bool failed = !views.empty() && !views.back().valid;
    try {
        std::vector<git_utils::CommitChanges> commits = git_utils::parse_commit_changes(output);
        if (failed || commits.size() != views.size()) __builtin_trap();
    } catch (const std::out_of_range&) {
        // A timestamp beyond 64 bits.
    } catch (const std::invalid_argument&) {
        if (!failed) __builtin_trap();
    }
}

}  // namespace

#include "fuzz_entry.hpp"
