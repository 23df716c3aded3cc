// Parsers of git's NUL-separated change lists: the `--raw --numstat -z` stream
// of one diff, and the commit log written with `--format=%x1e%ct` in front of
// each commit's stream.
//
// Both work on views into the caller's text and allocate only their results
// (plus one reusable hash table), since a log of a large history runs to
// hundreds of megabytes.
#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);
constexpr char kCommitStart = '\x1e';
constexpr std::uint64_t kInt64Max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// Adds one digit to a magnitude; false once it passes `limit` (the magnitude
// then stays above the limit).
inline bool accumulate(std::uint64_t& magnitude, int digit, std::uint64_t limit) {
    if (magnitude > limit) return false;
    if (magnitude > (limit - digit) / 10) {
        magnitude = limit + 1;
        return false;
    }
    magnitude = magnitude * 10 + digit;
    return true;
}

// A commit timestamp as Python's int() reads a string: an optional sign, then
// decimal digits with single underscores allowed between digits. `valid` is
// false for anything else, the empty text included.
Decimal read_timestamp(std::string_view stamp, bool& valid) {
    Decimal d;
    d.text = stamp;
    valid = false;
    std::size_t pos = 0;
    if (pos < stamp.size() && (stamp[pos] == '+' || stamp[pos] == '-')) {
        d.negative = stamp[pos] == '-';
        ++pos;
    }
    // A negative value may reach one past INT64_MAX in magnitude.
    const std::uint64_t limit = d.negative ? kInt64Max + 1 : kInt64Max;
    std::uint64_t magnitude = 0;
    bool fits = true;
    bool any = false;
    while (pos < stamp.size()) {
        if (any && stamp[pos] == '_') {
            ++pos;
            if (pos >= stamp.size()) return d;  // trailing underscore
        }
        int digit = read_decimal_digit(stamp, pos);
        if (digit < 0) return d;  // not a digit (also a second underscore)
        any = true;
        fits = accumulate(magnitude, digit, limit) && fits;
    }
    if (!any) return d;
    valid = true;
    d.fits = fits;
    if (fits)
        d.value = d.negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
    return d;
}

// Open-addressing table from a newer-side path to the places its records went:
// the index of its view in the result, and of its counts while no raw record
// has been seen for it. Reused across the commits of a log.
class PathTable {
public:
    struct Slot {
        std::string_view key;
        std::size_t view = kNone;
        std::size_t pending = kNone;
        bool used = false;
    };

    // Empties the table, sized for about `expected` keys.
    void reset(std::size_t expected) {
        std::size_t capacity = 16;
        while (capacity < expected * 2) capacity *= 2;
        if (slots_.size() != capacity) {
            slots_.assign(capacity, Slot{});
        } else if (used_) {
            std::fill(slots_.begin(), slots_.end(), Slot{});
        }
        used_ = 0;
    }

    Slot& at(std::string_view key) {
        if ((used_ + 1) * 4 > slots_.size() * 3) grow();
        Slot& slot = probe(slots_, key);
        if (!slot.used) {
            slot.used = true;
            slot.key = key;
            ++used_;
        }
        return slot;
    }

private:
    static Slot& probe(std::vector<Slot>& slots, std::string_view key) {
        const std::size_t mask = slots.size() - 1;
        std::size_t i = std::hash<std::string_view>{}(key) & mask;
        while (slots[i].used && slots[i].key != key) i = (i + 1) & mask;
        return slots[i];
    }

    void grow() {
        std::vector<Slot> bigger(slots_.size() * 2);
        for (Slot& s : slots_)
            if (s.used) probe(bigger, s.key) = s;
        slots_.swap(bigger);
    }

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

using CountPair = std::pair<Decimal, Decimal>;

// The raw + numstat parser proper, with scratch space kept between calls.
class FileChangeParser {
public:
    explicit FileChangeParser(const TwoPathLetters& two_path) : two_path_(two_path) {
        // The default predicate is tested inline rather than through the
        // std::function on every raw record.
        auto* target = two_path.target<bool (*)(std::string_view)>();
        default_letters_ = target && *target == &default_two_path_letter;
    }

    std::vector<FileChangeView> parse(std::span<const std::string_view> tokens) {
        std::vector<FileChangeView> views;
        // One file takes at least three tokens (header, path, numstat).
        views.reserve(tokens.size() / 3 + 1);
        table_.reset(tokens.size() / 3 + 1);
        pending_.clear();

        const std::size_t n = tokens.size();
        std::size_t i = 0;
        auto take = [&]() -> std::string_view { return i < n ? tokens[i++] : std::string_view(); };
        while (i < n) {
            std::string_view token = tokens[i++];
            std::size_t lf = 0;
            while (lf < token.size() && token[lf] == '\n') ++lf;
            token.remove_prefix(lf);

            if (!token.empty() && token[0] == ':') {
                // Raw record: only the status letter of the header matters.
                std::size_t space = token.rfind(' ');
                std::string_view tail = space == std::string_view::npos ? token : token.substr(space + 1);
                std::string_view letter;
                if (!tail.empty()) {
                    std::size_t end = 0;
                    next_char(tail, end);
                    letter = tail.substr(0, end);
                }
                std::optional<std::string_view> old_path;
                if (two_path(letter)) old_path = take();
                std::string_view path = take();
                if (!path.empty()) raw_record(views, path, letter, old_path);
                continue;
            }

            // Numstat record: added TAB deleted TAB path; anything with fewer
            // than two TABs is skipped on its own.
            std::size_t tab1 = token.find('\t');
            if (tab1 == std::string_view::npos) continue;
            std::size_t tab2 = token.find('\t', tab1 + 1);
            if (tab2 == std::string_view::npos) continue;
            std::string_view path = token.substr(tab2 + 1);
            if (path.empty()) {
                take();  // the source path of a rename or copy
                path = take();
            }
            // A raw record never has an empty path, so counts under one are
            // never used.
            if (!path.empty())
                counts(views, path, line_count(token.substr(0, tab1)),
                       line_count(token.substr(tab1 + 1, tab2 - tab1 - 1)));
        }

        // Counts left in `pending_` had no raw record and yield nothing.
        return views;
    }

private:
    bool two_path(std::string_view letter) const {
        if (default_letters_) return default_two_path_letter(letter);
        return two_path_(letter);
    }

    void raw_record(std::vector<FileChangeView>& views, std::string_view path, std::string_view letter,
                    std::optional<std::string_view> old_path) {
        PathTable::Slot& slot = table_.at(path);
        if (slot.view != kNone) {
            // A later raw record for the path replaces the status and the old
            // path; the file keeps its place and its counts.
            FileChangeView& v = views[slot.view];
            v.letter = letter;
            v.old_path = old_path;
            return;
        }
        slot.view = views.size();
        FileChangeView& v = views.emplace_back();
        v.path = path;
        v.letter = letter;
        v.old_path = old_path;
        if (slot.pending != kNone) {
            v.additions = pending_[slot.pending].first;
            v.deletions = pending_[slot.pending].second;
        }
    }

    void counts(std::vector<FileChangeView>& views, std::string_view path, const Decimal& added,
                const Decimal& deleted) {
        PathTable::Slot& slot = table_.at(path);
        if (slot.view != kNone) {
            views[slot.view].additions = added;
            views[slot.view].deletions = deleted;
        } else if (slot.pending != kNone) {
            pending_[slot.pending] = {added, deleted};
        } else {
            slot.pending = pending_.size();
            pending_.emplace_back(added, deleted);
        }
    }

    const TwoPathLetters& two_path_;
    bool default_letters_ = false;
    PathTable table_;
    std::vector<CountPair> pending_;
};

std::string_view status_text(std::string_view letter) {
    if (letter.size() == 1) {
        switch (letter[0]) {
            case 'A': return "added";
            case 'C': return "copied";
            case 'D': return "deleted";
            case 'R': return "renamed";
            default: break;
        }
    }
    return "modified";  // M, T (a change of type), any other letter, none
}

// A count as an unsigned 64-bit number; counts beyond it saturate.
std::uint64_t count_value(const Decimal& d) {
    if (d.fits) return static_cast<std::uint64_t>(d.value);
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t value = 0;
    std::size_t pos = 0;
    while (pos < d.text.size()) {
        int digit = read_decimal_digit(d.text, pos);
        if (digit < 0) break;
        if (!accumulate(value, digit, kMax - 1)) return kMax;
    }
    return value;
}

FileChange to_record(const FileChangeView& v) {
    FileChange f;
    f.path.assign(v.path);
    f.status.assign(status_text(v.letter));
    f.additions = count_value(v.additions);
    f.deletions = count_value(v.deletions);
    if (v.old_path) f.old_path.emplace(*v.old_path);
    return f;
}

}  // namespace

bool default_two_path_letter(std::string_view letter) { return letter == "C" || letter == "R"; }

std::vector<std::string_view> split_nul(std::string_view output) {
    std::vector<std::string_view> tokens;
    tokens.reserve(static_cast<std::size_t>(std::count(output.begin(), output.end(), '\0')) + 1);
    const char* p = output.data();
    const char* end = p + output.size();
    for (;;) {
        const void* nul = p == end ? nullptr : std::memchr(p, '\0', static_cast<std::size_t>(end - p));
        if (!nul) {
            tokens.emplace_back(p, static_cast<std::size_t>(end - p));
            return tokens;
        }
        const char* q = static_cast<const char*>(nul);
        tokens.emplace_back(p, static_cast<std::size_t>(q - p));
        p = q + 1;
    }
}

Decimal line_count(std::string_view field) {
    Decimal d;
    if (field.empty()) return d;
    std::uint64_t magnitude = 0;
    bool fits = true;
    std::size_t pos = 0;
    while (pos < field.size()) {
        int digit = read_decimal_digit(field, pos);
        if (digit < 0) return Decimal{};
        fits = accumulate(magnitude, digit, kInt64Max) && fits;
    }
    d.text = field;
    d.fits = fits;
    if (fits) d.value = static_cast<std::int64_t>(magnitude);
    return d;
}

std::vector<FileChangeView> file_change_views(const std::vector<std::string_view>& tokens,
                                              const TwoPathLetters& two_path) {
    FileChangeParser parser(two_path);
    return parser.parse(tokens);
}

std::vector<CommitView> commit_change_views(std::string_view output, const TwoPathLetters& two_path) {
    std::vector<CommitView> commits;
    FileChangeParser parser(two_path);
    // The tokens of the open commit only: a whole log's tokens would take
    // more memory than the log itself.
    std::vector<std::string_view> body;
    bool open = false;

    auto close = [&]() {
        commits.back().files = parser.parse(body);
        body.clear();
    };

    const char* p = output.data();
    const char* const end = p + output.size();
    for (;;) {
        const void* nul = p == end ? nullptr : std::memchr(p, '\0', static_cast<std::size_t>(end - p));
        const char* token_end = nul ? static_cast<const char*>(nul) : end;
        const std::string_view token(p, static_cast<std::size_t>(token_end - p));

        std::size_t lf = 0;
        while (lf < token.size() && token[lf] == '\n') ++lf;
        if (lf < token.size() && token[lf] == kCommitStart) {
            if (open) close();
            CommitView& commit = commits.emplace_back();
            commit.stamp = strip(token.substr(lf + 1));
            commit.timestamp = read_timestamp(commit.stamp, commit.valid);
            // The whole parse fails at this commit: nothing after it is read.
            if (!commit.valid) return commits;
            open = true;
        } else if (open) {
            body.push_back(token);
        }  // tokens before the first header are ignored

        if (!nul) break;
        p = token_end + 1;
    }
    if (open) close();
    return commits;
}

std::vector<FileChange> parse_file_changes(std::string_view output) {
    const std::vector<FileChangeView> views = file_change_views(split_nul(output));
    std::vector<FileChange> records;
    records.reserve(views.size());
    for (const FileChangeView& v : views) records.push_back(to_record(v));
    return records;
}

std::vector<CommitChanges> parse_commit_changes(std::string_view output) {
    const std::vector<CommitView> views = commit_change_views(output);
    std::vector<CommitChanges> commits;
    commits.reserve(views.size());
    for (const CommitView& v : views) {
        if (!v.valid) throw std::invalid_argument("invalid literal for int() with base 10: " + python_repr(v.stamp));
        if (!v.timestamp.fits)
            throw std::out_of_range("commit timestamp does not fit a 64-bit integer: " + std::string(v.stamp));
        CommitChanges& c = commits.emplace_back();
        c.timestamp = v.timestamp.value;
        c.files.reserve(v.files.size());
        for (const FileChangeView& f : v.files) c.files.push_back(to_record(f));
    }
    return commits;
}

}  // namespace git_utils
