// C-style path unquoting: the inside of a name git wrote in double quotes.
//
// A backslash followed by three octal digits is one raw byte; a backslash
// followed by one of a b f n r t v is that control character; a backslash
// followed by anything else stands for that character. Bytes from escapes and
// from plain text go into one buffer, which is then read as UTF-8 with
// replacement, so a multi-byte character may be spread over several escapes.
#include <cstring>
#include <string>

#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

inline bool is_octal(char c) { return c >= '0' && c <= '7'; }

// The character an escape letter stands for, or 0 when the letter is not one.
inline char escape_letter(char c) {
    switch (c) {
        case 'a': return '\a';
        case 'b': return '\b';
        case 'f': return '\f';
        case 'n': return '\n';
        case 'r': return '\r';
        case 't': return '\t';
        case 'v': return '\v';
        default: return 0;
    }
}

}  // namespace

std::string unquote(std::string_view text) {
    const char* p = text.data();
    const std::size_t n = text.size();
    const void* first = n ? std::memchr(p, '\\', n) : nullptr;
    std::string out;
    if (!first) {
        out.reserve(n);
        append_utf8_replacing(out, text);
        return out;
    }

    // Escapes only shrink the text, so `data` never outgrows the input.
    std::string data;
    data.reserve(n);
    std::size_t position = 0;  // consumed up to here
    std::size_t i = static_cast<const char*>(first) - p;
    while (i < n) {
        // `i` is a backslash.
        if (i + 1 >= n) break;  // a trailing lone backslash is copied as it stands
        data.append(p + position, i - position);
        if (i + 3 < n && is_octal(p[i + 1]) && is_octal(p[i + 2]) && is_octal(p[i + 3])) {
            unsigned value = (p[i + 1] - '0') * 64u + (p[i + 2] - '0') * 8u + (p[i + 3] - '0');
            if (value > 0xFF)
                throw OctalEscapeError("octal escape \\" + std::string(text.substr(i + 1, 3)) +
                                       " does not fit in a byte");
            data.push_back(static_cast<char>(value));
            position = i + 4;
        } else if (char mapped = escape_letter(p[i + 1])) {
            data.push_back(mapped);
            position = i + 2;
        } else {
            // Drop the backslash; the escaped character is copied with the
            // plain text that follows. Whatever it is (even a backslash), the
            // search for the next escape resumes after it. A multi-byte
            // character continues with bytes that are never a backslash.
            position = i + 1;
            i += 2;
            const void* next = i < n ? std::memchr(p + i, '\\', n - i) : nullptr;
            i = next ? static_cast<const char*>(next) - p : n;
            continue;
        }
        const void* next = position < n ? std::memchr(p + position, '\\', n - position) : nullptr;
        i = next ? static_cast<const char*>(next) - p : n;
    }
    data.append(p + position, n - position);
    out.reserve(data.size() + 8);
    append_utf8_replacing(out, data);
    return out;
}

}  // namespace git_utils
