// Text routines shared by the runner and the parsers: UTF-8 decoding with
// replacement, line-end normalisation, white space, and Python-style quoting.
#include <cstring>

#include "src/core/text.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <limits>

namespace git_utils {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// Bytes of a well-formed sequence starting at `p` (at most `n` bytes
// available), or 0 when ill-formed; then `*bad` is the length of the maximal
// subpart to replace (at least 1).
std::size_t utf8_sequence(const unsigned char* p, std::size_t n, std::size_t* bad) {
    unsigned char b = p[0];
    std::size_t need;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (b < 0x80) return 1;
    if (b >= 0xC2 && b <= 0xDF) {
        need = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
        need = 3;
        if (b == 0xE0) lo = 0xA0;
        if (b == 0xED) hi = 0x9F;
    } else if (b >= 0xF0 && b <= 0xF4) {
        need = 4;
        if (b == 0xF0) lo = 0x90;
        if (b == 0xF4) hi = 0x8F;
    } else {
        *bad = 1;
        return 0;
    }
    std::size_t i = 1;
    for (; i < need; ++i) {
        if (i >= n) break;
        unsigned char c = p[i];
        unsigned char l = i == 1 ? lo : 0x80, h = i == 1 ? hi : 0xBF;
        if (c < l || c > h) break;
    }
    if (i == need) return need;
    *bad = i;
    return 0;
}

// True when the eight bytes hold only ASCII and no CR.
inline bool plain_word(const unsigned char* p) {
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    if (w & 0x8080808080808080ULL) return false;
    std::uint64_t x = w ^ 0x0D0D0D0D0D0D0D0DULL;  // CR bytes become zero
    return ((x - 0x0101010101010101ULL) & ~x & 0x8080808080808080ULL) == 0;
}

}  // namespace

bool is_ascii(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t n = text.size(), i = 0;
    std::uint64_t any = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        any |= w;
    }
    for (; i < n; ++i) any |= p[i];
    return (any & 0x8080808080808080ULL) == 0;
}

void append_utf8_replacing(std::string& out, std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t n = bytes.size(), i = 0, run = 0;
    while (i < n) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        std::size_t bad = 0;
        std::size_t len = utf8_sequence(p + i, n - i, &bad);
        if (len) {
            i += len;
            continue;
        }
        out.append(bytes.data() + run, i - run);
        out.append(kReplacement, 3);
        i += bad;
        run = i;
    }
    out.append(bytes.data() + run, n - run);
}

void decode_git_text(std::string& text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    // Fast scan: most output is ASCII without CR, or well-formed UTF-8.
    for (;;) {
        while (i + 8 <= n && plain_word(p + i)) i += 8;
        if (i >= n) return;
        unsigned char b = p[i];
        if (b == '\r') break;
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t bad = 0;
        std::size_t len = utf8_sequence(p + i, n - i, &bad);
        if (!len) break;
        i += len;
    }
    // From the first CR or ill-formed byte on, the text is rewritten in runs:
    // in place while the written text stays behind the read position (CR LF
    // pairs leave room for replacements longer than what they replace), into
    // a fresh buffer once a replacement would overtake it.
    char* d = text.data();
    std::size_t w = i;
    std::string out;
    bool copying = false;
    auto emit = [&](const char* src, std::size_t len) {
        if (copying) {
            out.append(src, len);
        } else {
            if (d + w != src) std::memmove(d + w, src, len);
            w += len;
        }
    };
    while (i < n) {
        std::size_t run = i;
        for (;;) {
            while (i + 8 <= n && plain_word(p + i)) i += 8;
            while (i < n && p[i] < 0x80 && p[i] != '\r') ++i;
            if (i >= n || p[i] == '\r') break;
            std::size_t bad = 0;
            std::size_t len = utf8_sequence(p + i, n - i, &bad);
            if (!len) break;
            i += len;  // well-formed: part of the run
        }
        emit(text.data() + run, i - run);
        if (i >= n) break;
        if (p[i] == '\r') {
            emit("\n", 1);
            i += (i + 1 < n && p[i + 1] == '\n') ? 2 : 1;
            continue;
        }
        std::size_t bad = 0;
        utf8_sequence(p + i, n - i, &bad);
        if (!copying && w + 3 <= i + bad) {  // room left by earlier CR LF pairs
            std::memcpy(d + w, kReplacement, 3);
            w += 3;
            i += bad;
            continue;
        }
        if (!copying) {
            copying = true;
            out.reserve(n + n / 8 + 16);
            out.assign(text.data(), w);
        }
        out.append(kReplacement, 3);
        i += bad;
    }
    if (copying) {
        text.swap(out);
    } else {
        text.resize(w);
    }
}

bool is_space(char32_t c) {
    if (c <= 0x20) return c == 0x20 || (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x1F);
    if (c < 0x85) return false;
    return c == 0x85 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 ||
           c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

char32_t next_char(std::string_view text, std::size_t& pos) {
    // Lenient: also reads surrogate code points encoded as three bytes (the
    // binding passes lone surrogates that way); any other ill-formed byte
    // reads as U+FFFD and advances one byte.
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t n = text.size();
    unsigned char b = p[pos];
    if (b < 0x80) {
        ++pos;
        return b;
    }
    std::size_t need = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 0;
    if (need == 0 || pos + need > n) {
        ++pos;
        return 0xFFFD;
    }
    char32_t c = b & (0x7F >> need);
    for (std::size_t k = 1; k < need; ++k) {
        if ((p[pos + k] & 0xC0) != 0x80) {
            ++pos;
            return 0xFFFD;
        }
        c = (c << 6) | (p[pos + k] & 0x3F);
    }
    pos += need;
    return c;
}

int read_decimal_digit(std::string_view text, std::size_t& pos) {
    unsigned char b = static_cast<unsigned char>(text[pos]);
    if (b >= '0' && b <= '9') {
        ++pos;
        return b - '0';
    }
    if (b < 0xC2 || b > 0xF4) return -1;
    std::size_t next = pos;
    char32_t c = next_char(text, next);
    // Only the shortest UTF-8 form counts, so stray bytes never pass for a digit.
    std::size_t shortest = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    if (next - pos != shortest) return -1;
    int value = decimal_digit_value(c);
    if (value >= 0) pos = next;
    return value;
}

namespace {
// Length in bytes of the white space at the start of `text`.
std::size_t leading_space(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t next = pos;
        if (!is_space(next_char(text, next))) break;
        pos = next;
    }
    return pos;
}
}  // namespace

std::string_view strip(std::string_view text) {
    text.remove_prefix(leading_space(text));
    // Scan backwards over whole characters: find each character's start.
    while (!text.empty()) {
        std::size_t start = text.size() - 1;
        while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80 && text.size() - start < 4)
            --start;
        std::size_t pos = start;
        char32_t c = next_char(text, pos);
        if (pos != text.size() || !is_space(c)) break;
        text.remove_suffix(text.size() - start);
    }
    return text;
}

std::size_t code_point_count(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t pos = 0; pos < text.size(); ++count) next_char(text, pos);
    return count;
}

namespace detail {

DigitRun read_unicode_digits(std::string_view text, std::size_t& pos, std::uint64_t limit, DigitRun run) {
    while (pos < text.size()) {
        const int digit = read_decimal_digit(text, pos);
        if (digit < 0) break;
        run.add(static_cast<unsigned>(digit), limit);
    }
    return run;
}

Integer unfit_integer(std::string_view text, std::size_t begin, std::size_t end, bool negative) {
    // Rare (git writes no such number): the digits, each as its ASCII digit.
    Integer i;
    std::string digits = negative ? "-" : "";
    for (std::size_t pos = begin; pos < end;) digits.push_back(static_cast<char>('0' + read_decimal_digit(text, pos)));
    i.digits = std::make_shared<const std::string>(std::move(digits));
    return i;
}

}  // namespace detail

std::uint64_t byte_mask_words(const char* p, char byte) {
    const std::uint64_t ones = 0x0101010101010101ULL, low7 = 0x7F7F7F7F7F7F7F7FULL;
    std::uint64_t mask = 0;
    for (int k = 0; k < 8; ++k) {
        std::uint64_t w;
        std::memcpy(&w, p + 8 * k, 8);
        const std::uint64_t x = w ^ (ones * static_cast<unsigned char>(byte));  // matching bytes become zero
        const std::uint64_t zero = ~(((x & low7) + low7) | x | low7);         // 0x80 in each zero byte, exactly
        // The eight flags (bits 7, 15, ..., 63) gathered into one byte.
        mask |= (((zero >> 7) * 0x0102040810204080ULL) >> 56) << (8 * k);
    }
    return mask;
}

namespace {
inline std::uint64_t mask64(const char* p, char byte) {
#if defined(__SSE2__)
    const __m128i b = _mm_set1_epi8(byte);
    std::uint64_t mask = 0;
    for (int k = 0; k < 4; ++k) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
        mask |= static_cast<std::uint64_t>(static_cast<std::uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, b))))
                << (16 * k);
    }
    return mask;
#else
    return byte_mask_words(p, byte);
#endif
}

// The last block, shorter than 64 bytes: padded with a byte that is not the
// one sought.
[[gnu::noinline]] std::uint64_t tail_mask(const char* p, std::size_t size, char byte) {
    char tail[64];
    std::memset(tail, ~byte, sizeof tail);
    std::memcpy(tail, p, size);
    return mask64(tail, byte);
}
}  // namespace

std::uint64_t ByteFinder::block_mask() const {
    const std::size_t left = text_.size() - block_;
    if (left < 64) return tail_mask(text_.data() + block_, left, byte_);
    return mask64(text_.data() + block_, byte_);
}

namespace {
constexpr std::uint64_t kInt64Max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// The digits of `text` from `begin` to its end, all of them; none when
// there are none or something else follows.
std::optional<Integer> whole_number(std::string_view text, std::size_t begin, bool negative) {
    std::size_t pos = begin;
    // A negative value reaches one further than a positive one.
    const DigitRun run = read_digits(text, pos, negative ? kInt64Max + 1 : kInt64Max);
    if (run.count == 0 || pos != text.size()) return std::nullopt;
    return integer_of(text, begin, pos, run, negative);
}
}  // namespace

std::optional<Integer> read_decimal_integer(std::string_view text) {
    std::int64_t value;
    if (detail::read_short_ascii(text, value)) return Integer(value);
    const bool sign = !text.empty() && (text[0] == '+' || text[0] == '-');
    return whole_number(text, sign ? 1 : 0, sign && text[0] == '-');
}

Integer detail::line_count_slow(std::string_view field) {
    std::optional<Integer> count = whole_number(field, 0, false);
    return count ? std::move(*count) : Integer();
}

std::string python_repr(std::string_view text) {
    bool has_single = text.find('\'') != std::string_view::npos;
    bool has_double = text.find('"') != std::string_view::npos;
    char quote = has_single && !has_double ? '"' : '\'';
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back(quote);
    static const char hex[] = "0123456789abcdef";
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t start = pos;
        char32_t c = next_char(text, pos);
        if (c == static_cast<char32_t>(quote) || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (!is_printable(c)) {
            int digits = c < 0x100 ? 2 : c < 0x10000 ? 4 : 8;
            out += digits == 2 ? "\\x" : digits == 4 ? "\\u" : "\\U";
            for (int k = digits - 1; k >= 0; --k) out.push_back(hex[(c >> (4 * k)) & 0xF]);
        } else {
            out.append(text.substr(start, pos - start));
        }
    }
    out.push_back(quote);
    return out;
}

}  // namespace git_utils
