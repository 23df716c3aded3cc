// Fuzzes the raw + numstat stream parser on arbitrary bytes and on the same
// bytes decoded as the runner decodes git's output.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/core/changes.hpp"
#include "utils/git_utils.hpp"

namespace {

// Steps that differ from the native ones, as a host's could.
struct OtherSteps {
    using Count = std::size_t;
    bool two_path(std::string_view letter) const { return letter == "X" || letter == "R"; }
    Count line_count(std::string_view field) const { return field.size(); }
};

void check(std::string_view output) {
    const std::vector<std::string_view> tokens = git_utils::split_nul(output);
    const auto entries = git_utils::file_entries(tokens);
    const std::vector<git_utils::FileChange> records = git_utils::parse_file_changes(output);
    if (records.size() != entries.size()) __builtin_trap();
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto& e = entries[i];
        // Every view lies inside the input.
        if (e.path.empty() || e.path.data() < output.data() || e.path.data() + e.path.size() > output.data() + output.size())
            __builtin_trap();
        if (records[i].path != e.path) __builtin_trap();
        if (records[i].old_path.has_value() != e.old_path.has_value()) __builtin_trap();
    }
    OtherSteps steps;
    git_utils::FileChangeParser<OtherSteps> parser(steps);
    std::vector<git_utils::FileEntry<std::size_t>> other;
    parser.parse(tokens, other);
}

}  // namespace

#include "fuzz_entry.hpp"
