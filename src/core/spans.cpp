// The patch span parser and its helpers with the native steps.
#include "src/core/spans.hpp"

#include <unordered_map>

namespace git_utils {
namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();

// Reads one or more digits at `pos` into `n`; false when there is none.
bool read_number(std::string_view line, std::size_t& pos, Integer& n) {
    const std::size_t begin = pos;
    const DigitRun run = read_digits(line, pos);
    if (run.count == 0) return false;
    n = integer_of(line, begin, pos, run, false);
    return true;
}

// The same, saturated: a number beyond 64 bits reads as the largest.
inline bool read_saturated(std::string_view line, std::size_t& pos, std::int64_t& n) {
    // What git writes, up to 18 ASCII digits, needs no overflow checks.
    std::size_t end = pos;
    std::int64_t v = 0;
    for (unsigned d; end < line.size() && end - pos < 18 && (d = static_cast<unsigned char>(line[end]) - 48u) <= 9; ++end)
        v = v * 10 + d;
    const unsigned next = end < line.size() ? static_cast<unsigned char>(line[end]) : 0;
    if (end > pos && next - 48u > 9 && next < 0x80) {
        pos = end;
        n = v;
        return true;
    }
    // More digits, or a Unicode digit, follow.
    const DigitRun run = read_digits(line, pos);
    n = run.fits ? static_cast<std::int64_t>(run.magnitude) : kInt64Max;
    return run.count != 0;
}

// Names as the native `_patch_path` makes them, owned.
struct NativePathSteps {
    using R = std::optional<std::string>;
    R none() { return std::nullopt; }
    R text(std::string_view name) { return std::string(name); }
    R unquote(std::string_view inner) { return git_utils::unquote(inner); }
};

// Spans by path, for a patch read once: a name is a view into the patch
// unless it had to be unquoted. Equal names (git writes each file once, but
// a hand-made patch may not) share one path, which keeps the place of the
// first.
class NativeSpanSteps {
public:
    // Saturated: what a span needs, and too large only where git never goes
    // (`exact` then sends the patch to Python's integers).
    using Number = std::int64_t;
    using Path = std::size_t;  // index of the "+++ " line among those naming a newer side

    explicit NativeSpanSteps(NativeSpans& out) : out_(out) {}

    Path patch_path(std::string_view text) {
        struct Views {
            NativeSpans& out;
            using R = std::optional<std::string_view>;
            R none() { return std::nullopt; }
            R text(std::string_view name) { return name; }
            R unquote(std::string_view inner) { return out.unquoted.emplace_back(git_utils::unquote(inner)); }
        } views{out_};
        const std::optional<std::string_view> name = patch_path_with(views, text);
        if (!name) return kNoValue;
        lines_.push_back({*name, kUnset});
        return lines_.size() - 1;
    }
    static bool present(Path p) { return p != kNoValue; }
    static bool hunk_header(std::string_view line, HunkHeader<std::int64_t>& h) {
        // Most lines outside hunks are file headers: skip them without a call.
        return !line.empty() && line[0] == '@' && match_hunk_header_with(
                                                      line, h, [](std::string_view l, std::size_t& p, std::int64_t& n) {
                                                          return read_saturated(l, p, n);
                                                      });
    }
    static std::int64_t one() { return 1; }
    static std::int64_t counter(std::int64_t n) { return n; }

    void hunk(Path p, std::int64_t start, std::int64_t new_count, std::int64_t old_count) {
        std::size_t& path = lines_[p].path;
        if (path == kUnset) {
            auto [it, inserted] = by_name_.try_emplace(lines_[p].name, out_.names.size());
            if (inserted) {
                out_.names.push_back(lines_[p].name);
                out_.counts.push_back(0);
            }
            path = it->second;
        }
        // Past half the range a span's end may overflow (and past the whole
        // range the number was saturated); an older side's count only
        // decides whether lines were removed, which saturation keeps.
        if (start > (kInt64Max >> 1) || new_count > (kInt64Max >> 1)) out_.exact = false;
        const SpanOf<Saturating> s = span_of<Saturating>(start, new_count, old_count);
        ++out_.counts[path];
        out_.spans.emplace_back(path, LineSpan{s.start.v, s.end.v, s.added});
    }

private:
    static constexpr std::size_t kNoValue = static_cast<std::size_t>(-1);
    static constexpr std::size_t kUnset = static_cast<std::size_t>(-1);
    struct Line {
        std::string_view name;
        std::size_t path;  // index into out_.names, once a hunk came
    };
    NativeSpans& out_;
    std::vector<Line> lines_;
    std::unordered_map<std::string_view, std::size_t> by_name_;
};

}  // namespace

bool match_hunk_header(std::string_view line, HunkHeader<Integer>& header) {
    return match_hunk_header_with(line, header, read_number);
}

char octal_escape_byte(std::string_view code) {
    unsigned value = 0;
    for (char c : code) {
        if (c < '0' || c > '7')
            throw std::invalid_argument("invalid literal for int() with base 8: " + python_repr(code));
        value = value * 8 + static_cast<unsigned>(c - '0');
    }
    if (value > 0xFF) throw OctalEscapeError("octal escape \\" + std::string(code) + " does not fit in a byte");
    return static_cast<char>(value);
}

std::optional<Escape> NativeEscapes::next_escape() {
    const std::size_t n = text_.size();
    const void* found = from_ < n ? std::memchr(text_.data() + from_, '\\', n - from_) : nullptr;
    if (!found) return std::nullopt;
    const std::size_t at = static_cast<const char*>(found) - text_.data();
    if (at + 1 >= n) return std::nullopt;  // a trailing backslash escapes nothing
    auto octal = [&](std::size_t i) { return text_[i] >= '0' && text_[i] <= '7'; };
    std::size_t end = at + 2;
    if (at + 3 < n && octal(at + 1) && octal(at + 2) && octal(at + 3)) {
        end = at + 4;
    } else {
        std::size_t pos = at + 1;
        next_char(text_, pos);  // one whole character, whatever its length
        end = pos;
    }
    from_ = end;
    return Escape{at, end, text_.substr(at + 1, end - at - 1)};
}

void NativeEscapes::letter(std::string_view code, std::string& bytes) {
    if (code.size() == 1)
        for (const EscapeLetter& e : ESCAPE_LETTERS)
            if (e.letter == code[0]) {
                bytes.push_back(e.character);
                return;
            }
    bytes.append(code);  // any other character stands for itself
}

std::string unquote(std::string_view text) {
    NativeEscapes steps(text);
    return unquote_with(steps, text);
}

std::optional<std::string> patch_path(std::string_view text) {
    NativePathSteps steps;
    return patch_path_with(steps, text);
}

LineSpan span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) {
    const SpanOf<Saturating> s = span_of<Saturating>(start, new_count, old_count);
    return LineSpan{s.start.v, s.end.v, s.added};
}

NativeSpans native_line_spans(std::string_view patch) {
    NativeSpans out;
    NativeSpanSteps steps(out);
    scan_patch(steps, patch);
    return out;
}

LineSpansByPath parse_line_spans(std::string_view patch) {
    const NativeSpans flat = native_line_spans(patch);
    LineSpansByPath result;
    result.reserve(flat.names.size());
    for (std::size_t i = 0; i < flat.names.size(); ++i) {
        result.emplace_back(std::string(flat.names[i]), std::vector<LineSpan>());
        result.back().second.reserve(flat.counts[i]);
    }
    for (const auto& [path, span] : flat.spans) result[path].second.push_back(span);
    return result;
}

}  // namespace git_utils
