// The patch span parser (`parse_line_spans`) and its helpers `_span`,
// `_patch_path` and `_unquote`, each written once as a template over the
// steps a host may replace. core/spans.cpp instantiates them natively; the
// extension module instantiates them with steps that call what the host
// bound in its namespace.
//
// A zero-context patch (`git diff -U0 --no-prefix`) is read once, line by
// line. A hunk's lines are never read for their content: the counts of its
// header are counted off against them, so an added line that reads "+++ x"
// or "@@ ..." is never taken for a header.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// One hunk header as matched: the newer side's start, and the two counts
// when the header writes them.
template <class Number>
struct HunkHeader {
    Number start{};
    std::optional<Number> old_count;
    std::optional<Number> new_count;
};

// The hunk header as a regular expression, for the host: \d is any Unicode
// decimal digit, and the match need not reach the end of the line.
inline constexpr const char* HUNK_HEADER_PATTERN = "@@ -\\d+(?:,(\\d+))? \\+(\\d+)(?:,(\\d+))? @@";

// Matches HUNK_HEADER_PATTERN at the start of `line` (anything may follow),
// each number read by `read(line, pos, Number&)`: false when none is at
// `pos`, else `pos` is moved past it.
template <class Number, class Read>
bool match_hunk_header_with(std::string_view line, HunkHeader<Number>& header, Read&& read) {
    if (line.size() < 4 || std::memcmp(line.data(), "@@ -", 4) != 0) return false;
    std::size_t pos = 4;
    Number number{};
    if (!read(line, pos, number)) return false;  // the older side's start, unused
    if (pos < line.size() && line[pos] == ',') {
        ++pos;
        if (!read(line, pos, number)) return false;
        header.old_count = std::move(number);
    }
    if (line.size() - pos < 2 || line[pos] != ' ' || line[pos + 1] != '+') return false;
    pos += 2;
    if (!read(line, pos, header.start)) return false;
    if (pos < line.size() && line[pos] == ',') {
        ++pos;
        if (!read(line, pos, number)) return false;
        header.new_count = std::move(number);
    }
    return line.size() - pos >= 3 && std::memcmp(line.data() + pos, " @@", 3) == 0;
}

// The same with each number exact.
bool match_hunk_header(std::string_view line, HunkHeader<Integer>& header);

// The patch, line by line. `Steps` provides:
//   using Number;                                     // a number of a hunk header
//   using Path;                                       // what a "+++ " line names
//   Path patch_path(std::string_view text);           // from the text after "+++ "
//   bool present(const Path&);                        // whether the name has a value
//   bool hunk_header(std::string_view line, HunkHeader<Number>&);  // whether the line is one
//   Number one();                                     // the count a header leaves out
//   std::int64_t counter(const Number&);              // a count as lines to count off
//   void hunk(const Path&, const Number& start, const Number& new_count, const Number& old_count);
template <class Steps>
void scan_patch(Steps& steps, std::string_view patch) {
    using Path = typename Steps::Path;
    using Number = typename Steps::Number;
    std::optional<Path> path;  // changes only at a "+++ " line
    // Lines still expected in the current hunk on each side. They fall below
    // zero by at most one per line of the patch, so they cannot overflow.
    std::int64_t old_left = 0, new_left = 0;
    ByteFinder line_ends(patch, '\n');
    std::size_t start = 0;
    for (;;) {
        std::size_t lf = line_ends.next();
        std::string_view line = patch.substr(start, lf - start);

        if (old_left > 0 || new_left > 0) {
            // A hunk's lines, counted off by their first character alone, in
            // a loop of their own: most of a patch is these lines.
            for (;;) {
                if (!line.empty()) {
                    const char c = line[0];
                    old_left -= (c == '-') | (c == ' ');
                    new_left -= (c == '+') | (c == ' ');
                }
                if (lf == patch.size() || (old_left <= 0 && new_left <= 0)) break;
                start = lf + 1;
                lf = line_ends.next();
                line = patch.substr(start, lf - start);
            }
        } else if (line.size() >= 4 && std::memcmp(line.data(), "+++ ", 4) == 0) {
            path = steps.patch_path(line.substr(4));
        } else {
            HunkHeader<Number> header;
            if (steps.hunk_header(line, header)) {
                // A count the header leaves out is 1.
                const Number old_count = header.old_count ? std::move(*header.old_count) : steps.one();
                const Number new_count = header.new_count ? std::move(*header.new_count) : steps.one();
                old_left = steps.counter(old_count);
                new_left = steps.counter(new_count);
                // A deleted file ("+++ /dev/null") and a hunk before any "+++ "
                // line record nothing; their lines are still counted off.
                if (path && steps.present(*path)) steps.hunk(*path, header.start, new_count, old_count);
            }
        }

        if (lf == patch.size()) break;
        start = lf + 1;
    }
}

// The span of one hunk, from the newer side's start and line count and the
// older side's count, for any number type with comparison and arithmetic.
template <class N>
struct SpanOf {
    N start;
    N end;
    bool added;
};
template <class N>
SpanOf<N> span_of(const N& start, const N& new_count, const N& old_count) {
    const N zero(0), one(1);
    if (new_count == zero) {
        // Lines only removed: the line above the place, or line 1 when they
        // were removed from the top (`start` is 0 then).
        const N line = one > start ? one : start;
        return {line, line, false};
    }
    return {start, start + new_count - one, old_count == zero};
}

// 64-bit arithmetic that saturates instead of overflowing, for the numbers
// git never writes.
struct Saturating {
    std::int64_t v;
    Saturating(std::int64_t value) : v(value) {}  // NOLINT: converts like an integer
    friend bool operator==(Saturating a, Saturating b) { return a.v == b.v; }
    friend bool operator>(Saturating a, Saturating b) { return a.v > b.v; }
    friend Saturating operator+(Saturating a, Saturating b) {
        std::int64_t r;
        if (__builtin_add_overflow(a.v, b.v, &r))
            return b.v > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
        return r;
    }
    friend Saturating operator-(Saturating a, Saturating b) {
        std::int64_t r;
        if (__builtin_sub_overflow(a.v, b.v, &r))
            return b.v < 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
        return r;
    }
};

// The name on a "+++ " line (without the "+++ "). `Steps` provides:
//   R none();                        // no value: the file has no newer side
//   R text(std::string_view name);   // the name as written
//   R unquote(std::string_view inner);  // a C-quoted name, without its quotes
template <class Steps>
auto patch_path_with(Steps& steps, std::string_view text) {
    // git ends a name that holds a space with a TAB.
    if (!text.empty() && text.back() == '\t') text.remove_suffix(1);
    // /dev/null is compared before unquoting, so a quoted name is never it.
    if (text == "/dev/null") return steps.none();
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        return steps.unquote(text.substr(1, text.size() - 2));
    return steps.text(text);
}

// One escape found in a quoted name: where it starts and ends (byte offsets)
// and what follows the backslash (three octal digits, or one character).
struct Escape {
    std::size_t start;
    std::size_t end;
    std::string_view code;
};

// Thrown for an octal escape above \377, which no byte can hold.
class OctalEscapeError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// The byte of a three-character escape code: octal digits up to \377.
char octal_escape_byte(std::string_view code);

// Undoes C-style quoting: escapes become bytes, and the bytes are read as
// UTF-8 with replacement, so a character may be spread over several escapes.
// `Steps` provides:
//   std::optional<Escape> next_escape();   // the next escape, in order, not overlapping
//   void letter(std::string_view code, std::string& bytes);  // appends what a one-character code stands for
template <class Steps>
std::string unquote_with(Steps& steps, std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());  // escapes only shrink the text
    std::size_t position = 0;
    while (std::optional<Escape> e = steps.next_escape()) {
        if (e->start > position) bytes.append(text.substr(position, e->start - position));
        if (code_point_count(e->code) == 3)
            bytes.push_back(octal_escape_byte(e->code));
        else
            steps.letter(e->code, bytes);
        position = e->end;
    }
    if (position < text.size()) bytes.append(text.substr(position));
    std::string out;
    out.reserve(bytes.size() + 8);
    append_utf8_replacing(out, bytes);
    return out;
}

// The escape letters of C-quoted names and the characters they stand for.
struct EscapeLetter {
    char letter;
    char character;
};
inline constexpr EscapeLetter ESCAPE_LETTERS[] = {{'a', '\a'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'},
                                                  {'r', '\r'}, {'t', '\t'}, {'v', '\v'}};

// An escape as a regular expression (with "." matching a line feed too),
// for the host.
inline constexpr const char* C_ESCAPE_PATTERN = "\\\\([0-7]{3}|.)";

// The native escape steps: a backslash followed by three octal digits or by
// any one character (a trailing backslash escapes nothing), and the letters
// a b f n r t v.
class NativeEscapes {
public:
    explicit NativeEscapes(std::string_view text) : text_(text) {}
    std::optional<Escape> next_escape();
    static void letter(std::string_view code, std::string& bytes);

private:
    std::string_view text_;
    std::size_t from_ = 0;
};

}  // namespace git_utils

namespace git_utils {

// Spans in patch order, each with the index of its path, kept in blocks that
// never move once made: while one thread adds spans, another may read those
// already handed over to it (SpanScan publishes the count). The directory of
// blocks is made whole at the start, from a bound on the count, so adding a
// block never moves what a reader is looking at; a small bound makes small
// blocks.
class SpanLog {
public:
    struct Entry {
        std::size_t path;
        LineSpan span;
    };
    // At most `most` spans will be added.
    explicit SpanLog(std::size_t most) {
        while (shift_ < kMaxShift && (std::size_t{1} << shift_) < most) ++shift_;
        blocks_.resize((most >> shift_) + 1);
    }
    void push(std::size_t path, const LineSpan& span) {
        const std::size_t block = size_ >> shift_;
        if (block == blocks_.size()) throw std::length_error("more spans than the patch has hunk headers");
        if (!blocks_[block]) blocks_[block] = std::make_unique_for_overwrite<Entry[]>(std::size_t{1} << shift_);
        blocks_[block][size_ & ((std::size_t{1} << shift_) - 1)] = Entry{path, span};
        ++size_;
    }
    const Entry& operator[](std::size_t i) const { return blocks_[i >> shift_][i & ((std::size_t{1} << shift_) - 1)]; }
    // Read by the thread adding spans, or by any thread once it has ended.
    std::size_t size() const { return size_; }

private:
    static constexpr unsigned kMaxShift = 12;  // blocks of at most 4,096 spans
    unsigned shift_ = 0;
    std::vector<std::unique_ptr<Entry[]>> blocks_;
    std::size_t size_ = 0;
};

// `parse_line_spans` with the native steps, laid out flat: each path once,
// in the order of its first hunk, and every span in patch order with the
// index of its path. Names are views into the patch, or into `unquoted` for
// names that were C-quoted; the patch must outlive the result. `exact` is
// false when a number of the patch did not fit 64 bits or a span's end
// overflowed them (git writes no such patch); the spans then hold saturated
// values.
struct NativeSpans {
    // Every span comes from a hunk header line of its own, at least 11 bytes
    // ("@@ -0 +0 @@") and a line feed.
    explicit NativeSpans(std::string_view patch) : spans(most_spans(patch)) {}
    static std::size_t most_spans(std::string_view patch) { return patch.size() / 12 + 1; }
    std::vector<std::string_view> names;
    std::vector<std::size_t> counts;  // spans of each path
    SpanLog spans;
    std::deque<std::string> unquoted;
    bool exact = true;
};
NativeSpans native_line_spans(std::string_view patch);

// The same patch read on a thread of its own, so that the caller can make
// its records of the spans found so far while the rest is read. Where no
// thread can be started the patch is read in the constructor instead.
class SpanScan {
public:
    // Reads `patch` on a new thread when `on_thread`, else here and now.
    SpanScan(std::string_view patch, bool on_thread);
    // Stops the reading where it is, when it still runs, and waits for it.
    ~SpanScan();
    SpanScan(const SpanScan&) = delete;
    SpanScan& operator=(const SpanScan&) = delete;

    // Waits until more than `seen` spans are found or the reading ended, and
    // returns how many are found: `seen` only at the end. Spans below it may
    // be read with `span`.
    std::size_t wait_beyond(std::size_t seen);
    const LineSpan& span(std::size_t i) const { return result_.spans[i].span; }
    // Waits for the end, and rethrows what stopped the reading (an octal
    // escape beyond a byte, memory): the whole result.
    NativeSpans& finish();

    // Called by the reading every so many spans, and at its end; throws
    // Stopped, mid-way, once the destructor asked the reading to stop.
    void publish(std::size_t count, bool end);
    struct Stopped {};

private:
    void read(std::string_view patch, bool publishing);
    std::size_t found() const { return found_.load(std::memory_order_acquire); }
    bool ended() const { return ended_.load(std::memory_order_acquire); }

    NativeSpans result_;
    std::atomic<std::size_t> found_{0};
    std::atomic<bool> ended_{false};
    std::atomic<bool> stop_{false};
    std::exception_ptr error_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
};

}  // namespace git_utils
