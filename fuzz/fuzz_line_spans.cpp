// Fuzzes the patch span parser on arbitrary bytes and on the same bytes
// decoded as git's output is.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "utils/git_utils.hpp"

namespace {

void check(std::string_view patch) {
    git_utils::PatchScan scan = git_utils::scan_patch(patch);
    for (const git_utils::HunkView& h : scan.hunks)
        if (h.path_index != git_utils::NO_PATH && h.path_index >= scan.plus_lines.size()) __builtin_trap();
    try {
        git_utils::LineSpansByPath spans = git_utils::parse_line_spans(patch);
        std::size_t total = 0;
        for (const auto& [path, list] : spans) {
            if (list.empty()) __builtin_trap();
            // Header numbers are never negative, and a span never ends
            // before it starts.
            for (const git_utils::LineSpan& s : list)
                if (s.start < 0 || s.end < s.start) __builtin_trap();
            total += list.size();
        }
        if (total > scan.hunks.size()) __builtin_trap();
    } catch (const git_utils::OctalEscapeError&) {
    }
}

}  // namespace

#include "fuzz_entry.hpp"
