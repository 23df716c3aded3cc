// Fuzzes the commit log parser (`--format=%x1e%ct --raw --numstat -z`) on
// arbitrary bytes and on the same bytes decoded as git's output is.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "src/core/changes.hpp"
#include "utils/git_utils.hpp"

namespace {

void check(std::string_view output) {
    git_utils::CommitLog log;
    bool failed = false;
    try {
        log = git_utils::commit_log(output);
    } catch (const std::invalid_argument&) {
        failed = true;  // a commit time that is no integer
    }
    // Each commit's files follow the previous commit's, and every path id is
    // below the count of distinct paths.
    std::size_t next = 0;
    for (const git_utils::CommitEntry& c : log.commits) {
        if (c.first_file != next) __builtin_trap();
        // A time beyond 64 bits keeps its digits, each made ASCII.
        if (!c.time.fits() && c.time.digits->find_first_not_of("-0123456789") != std::string::npos) __builtin_trap();
        next += c.file_count;
    }
    if (next != log.files.size()) __builtin_trap();
    for (const auto& f : log.files)
        if (f.path_id >= log.distinct_paths) __builtin_trap();
    try {
        std::vector<git_utils::CommitChanges> commits = git_utils::parse_commit_changes(output);
        if (failed || commits.size() != log.commits.size()) __builtin_trap();
    } catch (const std::out_of_range&) {
        // A time beyond 64 bits.
    } catch (const std::invalid_argument&) {
        if (!failed) __builtin_trap();
    }
}

}  // namespace

#include "fuzz_entry.hpp"
