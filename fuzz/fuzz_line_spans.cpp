// Fuzzes the patch span parser on arbitrary bytes and on the same bytes
// decoded as git's output is.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "src/core/spans.hpp"
#include "utils/git_utils.hpp"

namespace {

void check(std::string_view patch) {
    try {
        const git_utils::NativeSpans spans = git_utils::native_line_spans(patch);
        std::vector<std::size_t> seen(spans.names.size());
        for (std::size_t i = 0; i < spans.spans.size(); ++i) {
            const auto& [path, s] = spans.spans[i];
            if (path >= seen.size()) __builtin_trap();
            ++seen[path];
            // Header numbers are never negative, and a span never ends
            // before it starts (unless a number did not fit: the spans are
            // then saturated and the module reads the patch with Python's
            // integers instead).
            if (spans.exact && (s.start < 0 || s.end < s.start)) __builtin_trap();
        }
        if (seen != spans.counts) __builtin_trap();
    } catch (const git_utils::OctalEscapeError&) {
    }
}

}  // namespace

#include "fuzz_entry.hpp"
