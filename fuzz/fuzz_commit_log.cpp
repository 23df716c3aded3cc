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
    const git_utils::CommitLogScan scan = git_utils::commit_change_views(output);
    const std::vector<git_utils::CommitView>& views = scan.commits;
    // Each commit's files follow the previous commit's, and every path id is
    // below the count of distinct paths.
    std::size_t next = 0;
    for (const git_utils::CommitView& c : views) {
        if (c.first_file != next) __builtin_trap();
        next += c.file_count;
    }
    if (next != scan.files.size()) __builtin_trap();
    for (const git_utils::FileChangeView& f : scan.files)
        if (f.path_id >= scan.distinct_paths) __builtin_trap();
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
