// Text routines shared by the runner, the parsers and the extension module:
// UTF-8 decoding with replacement, line ends, white space, decimal digits of
// every script, decimal integers, and quoting as Python's repr() does.
//
// Text is UTF-8. Text that came from Python may also hold lone surrogates,
// each written as its three-byte form (Python's "surrogatepass"); the readers
// here take those as one character.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
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

// An integer that may not fit 64 bits: its value, or, when it does not fit,
// its decimal digits. The one carrier of such numbers, whether git wrote
// them (counts, times, hunk lines) or a host handed them over; a caller
// makes the exact value from the digits.
struct Integer {
    std::int64_t value = 0;
    // ASCII, "-" first when negative; only when `value` cannot hold the
    // number. Held apart, so that an Integer is small and cheap to move: a
    // parser keeps millions of them, nearly all fitting.
    std::shared_ptr<const std::string> digits;

    Integer() = default;
    Integer(std::int64_t v) : value(v) {}  // NOLINT: converts like an integer
    bool fits() const { return !digits; }
    std::string text() const { return digits ? *digits : std::to_string(value); }
    friend bool operator==(const Integer& a, const Integer& b) {
        return a.fits() ? b.fits() && a.value == b.value : !b.fits() && *a.digits == *b.digits;
    }
};

// The one reader of decimal digits: Unicode decimal digits from `pos` on, as
// far as they go (`pos` ends after the last). `magnitude` holds their value
// while it stays within `limit`; past it `fits` is false and the digits are
// still read to their end.
struct DigitRun {
    std::uint64_t magnitude = 0;
    bool fits = true;
    std::size_t count = 0;  // digits read
    void add(unsigned digit, std::uint64_t limit) {
        ++count;
        std::uint64_t next;
        // Overflow checks without a division (the limit is not always a constant).
        if (!fits || __builtin_mul_overflow(magnitude, 10u, &next) || __builtin_add_overflow(next, digit, &next) ||
            next > limit)
            fits = false;
        else
            magnitude = next;
    }
};
namespace detail {
// read_digits from the first byte that is not ASCII on.
DigitRun read_unicode_digits(std::string_view text, std::size_t& pos, std::uint64_t limit, DigitRun run);
Integer unfit_integer(std::string_view text, std::size_t begin, std::size_t end, bool negative);
}  // namespace detail
// git writes ASCII digits: those are read here, inline.
inline DigitRun read_digits(std::string_view text, std::size_t& pos,
                            std::uint64_t limit = static_cast<std::uint64_t>(INT64_MAX)) {
    DigitRun run;
    while (pos < text.size()) {
        const auto b = static_cast<unsigned char>(text[pos]);
        if (b - unsigned{'0'} > 9) return b < 0x80 ? run : detail::read_unicode_digits(text, pos, limit, run);
        ++pos;
        run.add(b - unsigned{'0'}, limit);
    }
    return run;
}

// The digits of `text[begin, end)` (one run of decimal digits after an
// optional sign) as an Integer: `run` is what read_digits gave for them.
inline Integer integer_of(std::string_view text, std::size_t begin, std::size_t end, const DigitRun& run,
                          bool negative) {
    if (!run.fits) return detail::unfit_integer(text, begin, end, negative);
    return Integer(negative ? static_cast<std::int64_t>(0 - run.magnitude) : static_cast<std::int64_t>(run.magnitude));
}

// Finds one byte everywhere in a text, front to back, a 64-byte block at a
// time: each find then costs a few instructions where a call to memchr per
// short line or token would cost dozens.
class ByteFinder {
public:
    ByteFinder(std::string_view text, char byte) : text_(text), byte_(byte) {}
    // The position of the next occurrence, or the text's size when no more.
    std::size_t next() {
        while (mask_ == 0) {
            if (next_block_ >= text_.size()) return text_.size();
            block_ = next_block_;
            next_block_ += 64;
            mask_ = block_mask();
        }
        const std::size_t at = block_ + static_cast<std::size_t>(__builtin_ctzll(mask_));
        mask_ &= mask_ - 1;
        return at;
    }

private:
    std::uint64_t block_mask() const;  // bit i: byte block_ + i is `byte_`

    std::string_view text_;
    char byte_;
    std::size_t block_ = 0;       // the block `mask_` describes
    std::size_t next_block_ = 0;  // the block read after it
    std::uint64_t mask_ = 0;      // its occurrences not yet handed out
};

// Bit i set where p[i] == byte, for the 64 bytes at `p`: the word-at-a-time
// form every build has (ByteFinder uses vector instructions where it can).
std::uint64_t byte_mask_words(const char* p, char byte);

// A decimal integer: an optional sign, then one or more Unicode decimal
// digits, nothing else (no white space, no underscores); none otherwise.
std::optional<Integer> read_decimal_integer(std::string_view text);

namespace detail {
// What git writes: 1 to 18 ASCII digits, which always fit, read inline.
// False (and `value` unspecified) for anything else.
inline bool read_short_ascii(std::string_view text, std::int64_t& value) {
    if (text.empty() || text.size() > 18) return false;
    std::int64_t v = 0;
    for (const char ch : text) {
        const unsigned c = static_cast<unsigned char>(ch) - unsigned{'0'};
        if (c > 9) return false;
        v = v * 10 + c;
    }
    value = v;
    return true;
}
Integer line_count_slow(std::string_view field);
}  // namespace detail

// A numstat count field: its value when it is non-empty and all decimal
// digits; 0 otherwise, as for the "-" of a binary file.
inline Integer line_count(std::string_view field) {
    std::int64_t value;
    return detail::read_short_ascii(field, value) ? Integer(value) : detail::line_count_slow(field);
}

}  // namespace git_utils
