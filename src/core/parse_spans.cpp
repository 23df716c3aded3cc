// The patch span parser: which newer-side lines each hunk of a zero-context
// patch (`git diff -U0 --no-prefix`) touched.
//
// The patch is read once, line by line. A hunk's lines are never read for
// their content: the counts of its header are counted off against them, so
// an added line that reads "+++ x" or "@@ ..." is never taken for a header.
#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();

// Reads one or more digits at `pos` into `d`; false when there is none.
// Values beyond int64 leave `fits` false; `text` stays exact.
bool read_number(std::string_view line, std::size_t& pos, Decimal& d) {
    const std::size_t begin = pos;
    std::uint64_t value = 0;
    bool fits = true;
    while (pos < line.size()) {
        int digit = read_decimal_digit(line, pos);
        if (digit < 0) break;
        if (fits && value <= (static_cast<std::uint64_t>(kInt64Max) - digit) / 10)
            value = value * 10 + digit;
        else
            fits = false;
    }
    if (pos == begin) return false;
    d.text = line.substr(begin, pos - begin);
    d.fits = fits;
    d.value = fits ? static_cast<std::int64_t>(value) : 0;
    return true;
}

// Matches "@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@" at the start of `line`
// (anything may follow). Absent counts are 1. The pattern needs no
// backtracking: each digit run ends at a character that is not a digit.
bool match_hunk_header(std::string_view line, HunkView& hunk) {
    if (line.size() < 4 || std::memcmp(line.data(), "@@ -", 4) != 0) return false;
    std::size_t pos = 4;
    Decimal old_start;
    if (!read_number(line, pos, old_start)) return false;
    hunk.old_count = Decimal{{}, 1};
    if (pos < line.size() && line[pos] == ',') {
        ++pos;
        if (!read_number(line, pos, hunk.old_count)) return false;
    }
    if (line.size() - pos < 2 || line[pos] != ' ' || line[pos + 1] != '+') return false;
    pos += 2;
    if (!read_number(line, pos, hunk.start)) return false;
    hunk.new_count = Decimal{{}, 1};
    if (pos < line.size() && line[pos] == ',') {
        ++pos;
        if (!read_number(line, pos, hunk.new_count)) return false;
    }
    return line.size() - pos >= 3 && std::memcmp(line.data() + pos, " @@", 3) == 0;
}

// A header number for the counters and the records: numbers beyond int64
// (which git never writes) saturate at its maximum. A count that large is
// never counted down to zero, as the exact one would not be either.
inline std::int64_t saturated(const Decimal& d) { return d.fits ? d.value : kInt64Max; }

}  // namespace

PatchScan scan_patch(std::string_view patch) {
    PatchScan scan;
    // Lines still expected in the current hunk on each side. They only fall
    // below zero by one per line of the patch, so they cannot overflow.
    std::int64_t old_left = 0, new_left = 0;
    const char* p = patch.data();
    const char* const end = p + patch.size();
    for (;;) {
        const void* lf = p == end ? nullptr : std::memchr(p, '\n', static_cast<std::size_t>(end - p));
        const char* line_end = lf ? static_cast<const char*>(lf) : end;
        const std::string_view line(p, static_cast<std::size_t>(line_end - p));

        if (old_left > 0 || new_left > 0) {
            if (!line.empty()) {
                if (line[0] == '-') {
                    --old_left;
                } else if (line[0] == '+') {
                    --new_left;
                } else if (line[0] == ' ') {
                    --old_left;
                    --new_left;
                }
            }
        } else if (line.size() >= 4 && std::memcmp(line.data(), "+++ ", 4) == 0) {
            scan.plus_lines.push_back(line.substr(4));
        } else if (!line.empty() && line[0] == '@') {
            HunkView hunk;
            if (match_hunk_header(line, hunk)) {
                hunk.path_index = scan.plus_lines.empty() ? NO_PATH : scan.plus_lines.size() - 1;
                old_left = saturated(hunk.old_count);
                new_left = saturated(hunk.new_count);
                scan.hunks.push_back(hunk);
            }
        }

        if (!lf) break;
        p = line_end + 1;
    }
    return scan;
}

std::optional<std::string> patch_path(std::string_view text) {
    if (!text.empty() && text.back() == '\t') text.remove_suffix(1);
    if (text == "/dev/null") return std::nullopt;
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') return unquote(text.substr(1, text.size() - 2));
    return std::string(text);
}

LineSpan span(std::int64_t start, std::int64_t new_count, std::int64_t old_count) {
    if (new_count == 0) {
        // Lines only removed: the line above the place, or line 1 when they
        // were removed from the top.
        std::int64_t line = std::max<std::int64_t>(start, 1);
        return LineSpan{line, line, false};
    }
    // The end saturates instead of overflowing for counts git never writes.
    __int128 end = static_cast<__int128>(start) + new_count - 1;
    end = std::clamp<__int128>(end, kInt64Min, kInt64Max);
    return LineSpan{start, static_cast<std::int64_t>(end), old_count == 0};
}

LineSpansByPath parse_line_spans(std::string_view patch) {
    const PatchScan scan = scan_patch(patch);

    // Every name is read, in patch order, before anything is recorded: a bad
    // escape in any "+++ " line fails the whole parse.
    std::vector<std::optional<std::string>> names;
    names.reserve(scan.plus_lines.size());
    for (std::string_view text : scan.plus_lines) names.push_back(patch_path(text));

    constexpr std::size_t kUnset = static_cast<std::size_t>(-1);
    LineSpansByPath result;
    std::vector<std::size_t> group_of(names.size(), kUnset);  // "+++ " line -> entry of `result`
    std::unordered_map<std::string_view, std::size_t> group_by_name;  // keys view into `names`
    for (const HunkView& hunk : scan.hunks) {
        if (hunk.path_index == NO_PATH || !names[hunk.path_index]) continue;  // no newer side
        std::size_t& group = group_of[hunk.path_index];
        if (group == kUnset) {
            const std::string& name = *names[hunk.path_index];
            auto [it, inserted] = group_by_name.try_emplace(name, result.size());
            if (inserted) result.emplace_back(name, std::vector<LineSpan>());
            group = it->second;
        }
        result[group].second.push_back(
            span(saturated(hunk.start), saturated(hunk.new_count), saturated(hunk.old_count)));
    }
    return result;
}

}  // namespace git_utils
