// Text routines shared by the runner, the parsers and the extension module:
// UTF-8 decoding with replacement, line ends, white space, decimal digits of
// every script, decimal integers, and quoting as Python's repr() does.
//
// Text is UTF-8. Text that came from Python may also hold lone surrogates,
// each written as its three-byte form (Python's "surrogatepass"); the readers
// here take those as one character.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace git_utils {

// Appends `bytes` to `out` as well-formed UTF-8: each maximal subpart of an
// ill-formed sequence becomes one U+FFFD.
void append_utf8_replacing(std::string& out, std::string_view bytes);

// Decodes git's output in place: UTF-8 with replacement, then CR LF -> LF and
// lone CR -> LF.
void decode_git_text(std::string& text);

// True when every byte is below 0x80.
bool is_ascii(std::string_view text);

// True for the white space the library trims: U+0009..U+000D, U+001C..U+001F,
// U+0020, U+0085, U+00A0, U+1680, U+2000..U+200A, U+2028, U+2029, U+202F,
// U+205F, U+3000.
bool is_space(char32_t c);

// `text` without white space at both ends (never inside).
std::string_view strip(std::string_view text);

// Value 0..9 of a Unicode decimal digit (general category Nd), or -1.
int decimal_digit_value(char32_t c);

// The value of the Unicode decimal digit at `pos` of `text` (pos < size),
// advancing past it; -1 without advancing when there is none.
int read_decimal_digit(std::string_view text, std::size_t& pos);

// Whether Python's str.isprintable() holds for the character.
bool is_printable(char32_t c);

// Decodes one character at `pos` (pos < size) and advances `pos`.
char32_t next_char(std::string_view text, std::size_t& pos);

// The number of characters (code points) of `text`.
std::size_t code_point_count(std::string_view text);

// The text quoted as Python's repr() of a str writes it.
std::string python_repr(std::string_view text);

// A decimal field as written: its digits (any Unicode Nd digits) and, when
// they fit 64 bits, their value. Readers of git's numbers keep the text so a
// caller can still make the exact value of one that does not fit.
struct Decimal {
    std::string_view text;  // the sign and digits, as they stand in the input
    std::int64_t value = 0;
    bool fits = true;       // false: `value` is unset; read `text` instead
};

// A decimal integer: an optional sign, then one or more Unicode decimal
// digits, nothing else (no white space, no underscores). `valid` is false for
// anything else.
struct DecimalInteger : Decimal {
    bool valid = false;
};
DecimalInteger read_decimal_integer(std::string_view text);

// A numstat count field: its value when it is non-empty and all decimal
// digits; 0 (an empty text) otherwise, as for the "-" of a binary file.
Decimal line_count(std::string_view field);

// The digits of `d` as ASCII ("-" and 0-9), for a value that does not fit.
std::string ascii_digits(std::string_view text);

}  // namespace git_utils
