// Fuzzes C-style unquoting and the "+++ " name reader on arbitrary bytes and
// on the same bytes decoded as git's output is.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/core/spans.hpp"
#include "utils/git_utils.hpp"

namespace {

void check(std::string_view text) {
    try {
        std::string out = git_utils::unquote(text);
        // Escapes only shrink the text; replacement characters are no longer
        // than three bytes per byte they replace.
        if (out.size() > 3 * text.size()) __builtin_trap();
        // The result is well-formed UTF-8: decoding it again changes
        // nothing when it holds no CR (which decoding would turn into LF).
        if (out.find('\r') == std::string::npos) {
            std::string again = out;
            git_utils::decode_git_text(again);
            if (again != out) __builtin_trap();
        }
    } catch (const git_utils::OctalEscapeError&) {
    }
    try {
        git_utils::patch_path(text);
    } catch (const git_utils::OctalEscapeError&) {
    }
}

}  // namespace

#include "fuzz_entry.hpp"
