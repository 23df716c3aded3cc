// Parsers of git's NUL-separated change lists: the `--raw --numstat -z` stream
// of one diff, and the commit log written with `--format=%x1e%ct` in front of
// each commit's stream.
//
// Both work on views into the caller's text and allocate only their results
// (plus one reusable hash table), since a log of a large history runs to
// hundreds of megabytes.
#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
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

// A seed drawn once per process, so that nobody can prepare file names whose
// hashes collide and make the path table probe in quadratic time.
std::uint64_t hash_seed() {
    static const std::uint64_t seed = [] {
        std::random_device device;
        return (static_cast<std::uint64_t>(device()) << 32) ^ device() ^ 0x9E3779B97F4A7C15ull;
    }();
    return seed;
}

inline std::uint64_t load64(const char* p) {
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
}

// A hash of a path read eight bytes at a time (the last word overlapping
// the one before): paths are short, and a general byte hash costs more than
// the rest of a lookup.
inline std::uint64_t hash_path(std::string_view s, std::uint64_t seed) {
    constexpr std::uint64_t k1 = 0x9E3779B97F4A7C15ull, k2 = 0xBF58476D1CE4E5B9ull;
    const char* p = s.data();
    const std::size_t n = s.size();
    std::uint64_t h = seed ^ n;
    if (n >= 8) {
        const char* last = p + n - 8;
        for (; p < last; p += 8) h = std::rotl((h ^ load64(p)) * k1, 29);
        h = (h ^ load64(last)) * k2;
    } else if (n >= 4) {
        std::uint32_t lo, hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + n - 4, 4);
        h = (h ^ (static_cast<std::uint64_t>(hi) << 32 | lo)) * k2;
    } else if (n > 0) {
        const auto* u = reinterpret_cast<const unsigned char*>(p);
        h = (h ^ (std::uint64_t{u[0]} << 16 | std::uint64_t{u[n / 2]} << 8 | u[n - 1])) * k2;
    }
    h ^= h >> 32;
    h *= k1;
    return h ^ (h >> 29);
}

// Open-addressing table that numbers the distinct paths of a scan: the same
// path always gets the same id, from 0 upwards.
class PathIds {
public:
    std::uint32_t id(std::string_view key) {
        if ((count_ + 1) * 4 > slots_.size() * 3) grow();
        const std::uint64_t h = hash_path(key, seed_);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = h & mask;; i = (i + 1) & mask) {
            Slot& slot = slots_[i];
            if (slot.id == kEmpty) {
                slot = Slot{key, h, static_cast<std::uint32_t>(count_)};
                return static_cast<std::uint32_t>(count_++);
            }
            if (slot.hash == h && slot.key == key) return slot.id;
        }
    }

    std::size_t size() const { return count_; }

private:
    static constexpr std::uint32_t kEmpty = static_cast<std::uint32_t>(-1);
    struct Slot {
        std::string_view key;
        std::uint64_t hash = 0;
        std::uint32_t id = kEmpty;
    };

    void grow() {
        std::vector<Slot> bigger(slots_.empty() ? 64 : slots_.size() * 2);
        const std::size_t mask = bigger.size() - 1;
        for (const Slot& s : slots_) {
            if (s.id == kEmpty) continue;
            std::size_t i = s.hash & mask;
            while (bigger[i].id != kEmpty) i = (i + 1) & mask;
            bigger[i] = s;
        }
        slots_.swap(bigger);
    }

    std::vector<Slot> slots_;
    std::size_t count_ = 0;
    std::uint64_t seed_ = hash_seed();
};

using CountPair = std::pair<Decimal, Decimal>;

// The raw + numstat parser proper. One parser reads one diff, or every
// commit of a log in turn: path ids then hold across the commits, while the
// pairing of raw and numstat records is kept apart per commit by a
// generation number.
class FileChangeParser {
public:
    explicit FileChangeParser(const TwoPathLetters& two_path) : two_path_(two_path) {
        // The default predicate is tested inline rather than through the
        // std::function on every raw record.
        auto* target = two_path.target<bool (*)(std::string_view)>();
        default_letters_ = target && *target == &default_two_path_letter;
    }

    std::size_t distinct_paths() const { return ids_.size(); }

    // Appends the files of one diff's tokens to `views`.
    void parse(std::span<const std::string_view> tokens, std::vector<FileChangeView>& views) {
        ++generation_;
        pending_.clear();
        next_counted_ = views.size();

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
    }

private:
    // Where a path's records went in the current diff.
    struct Place {
        std::uint64_t generation = 0;  // the diff these entries belong to
        std::size_t view = kNone;      // index of its view in the result
        std::size_t pending = kNone;   // its counts, while no raw record has come
    };

    bool two_path(std::string_view letter) const {
        if (default_letters_) return default_two_path_letter(letter);
        return two_path_(letter);
    }

    Place& place(std::uint32_t id) {
        if (id >= places_.size()) places_.resize(std::max<std::size_t>(id + 1, places_.size() * 2));
        Place& p = places_[id];
        if (p.generation != generation_) p = Place{generation_};
        return p;
    }

    void raw_record(std::vector<FileChangeView>& views, std::string_view path, std::string_view letter,
                    std::optional<std::string_view> old_path) {
        const std::uint32_t id = ids_.id(path);
        Place& slot = place(id);
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
        v.path_id = id;
        v.letter = letter;
        v.old_path = old_path;
        if (slot.pending != kNone) {
            v.additions = pending_[slot.pending].first;
            v.deletions = pending_[slot.pending].second;
        }
    }

    void counts(std::vector<FileChangeView>& views, std::string_view path, const Decimal& added,
                const Decimal& deleted) {
        // git writes the numstat records in the order of the raw records, so
        // the next file usually is the one; as a diff's paths are distinct in
        // `views`, a path equal to that file's is that file.
        if (next_counted_ < views.size() && views[next_counted_].path == path) {
            views[next_counted_].additions = added;
            views[next_counted_].deletions = deleted;
            ++next_counted_;
            return;
        }
        Place& slot = place(ids_.id(path));
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
    PathIds ids_;
    std::vector<Place> places_;
    std::uint64_t generation_ = 0;
    std::size_t next_counted_ = 0;  // the view whose numstat record is expected next
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
    // A guess (git's tokens run to a few dozen bytes); counting the NULs
    // first would read the whole text once more.
    tokens.reserve(output.size() / 24 + 1);
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
    // git writes ASCII digits that fit: read those inline, and hand anything
    // else to the general reader of Unicode digits.
    if (field.size() <= 18) {
        std::int64_t value = 0;
        std::size_t pos = 0;
        for (; pos < field.size(); ++pos) {
            unsigned c = static_cast<unsigned char>(field[pos]) - '0';
            if (c > 9) break;
            value = value * 10 + c;
        }
        if (pos == field.size()) {
            d.text = field;
            d.value = value;
            return d;
        }
    }
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
    std::vector<FileChangeView> views;
    // One file takes at least three tokens (header, path, numstat).
    views.reserve(tokens.size() / 3 + 1);
    parser.parse(tokens, views);
    return views;
}

CommitLogScan commit_change_views(std::string_view output, const TwoPathLetters& two_path) {
    CommitLogScan scan;
    FileChangeParser parser(two_path);
    // The tokens of the open commit only: a whole log's tokens would take
    // more memory than the log itself.
    std::vector<std::string_view> body;
    bool open = false;

    auto close = [&]() {
        CommitView& commit = scan.commits.back();
        commit.first_file = scan.files.size();
        parser.parse(body, scan.files);
        commit.file_count = scan.files.size() - commit.first_file;
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
            CommitView& commit = scan.commits.emplace_back();
            commit.stamp = strip(token.substr(lf + 1));
            commit.timestamp = read_timestamp(commit.stamp, commit.valid);
            commit.first_file = scan.files.size();
            // The whole parse fails at this commit: nothing after it is read.
            if (!commit.valid) break;
            open = true;
        } else if (open) {
            body.push_back(token);
        }  // tokens before the first header are ignored

        if (!nul) {
            if (open) close();
            break;
        }
        p = token_end + 1;
    }
    scan.distinct_paths = parser.distinct_paths();
    return scan;
}

std::vector<FileChange> parse_file_changes(std::string_view output) {
    const std::vector<FileChangeView> views = file_change_views(split_nul(output));
    std::vector<FileChange> records;
    records.reserve(views.size());
    for (const FileChangeView& v : views) records.push_back(to_record(v));
    return records;
}

std::vector<CommitChanges> parse_commit_changes(std::string_view output) {
    const CommitLogScan scan = commit_change_views(output);
    std::vector<CommitChanges> commits;
    commits.reserve(scan.commits.size());
    for (const CommitView& v : scan.commits) {
        if (!v.valid) throw std::invalid_argument("invalid literal for int() with base 10: " + python_repr(v.stamp));
        if (!v.timestamp.fits)
            throw std::out_of_range("commit timestamp does not fit a 64-bit integer: " + std::string(v.stamp));
        CommitChanges& c = commits.emplace_back();
        c.timestamp = v.timestamp.value;
        c.files.reserve(v.file_count);
        for (const FileChangeView& f : scan.files_of(v)) c.files.push_back(to_record(f));
    }
    return commits;
}

}  // namespace git_utils
