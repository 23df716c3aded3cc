// The change-list parsers with the native steps, and the owned records the
// library's C++ callers get from them.
#include "src/core/changes.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <random>

#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

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

// A count as an unsigned 64-bit number; counts beyond it saturate.
std::uint64_t count_value(const Integer& count) {
    if (count.fits()) return static_cast<std::uint64_t>(count.value);
    std::size_t pos = 0;
    const DigitRun run = read_digits(*count.digits, pos, std::numeric_limits<std::uint64_t>::max());
    return run.fits ? run.magnitude : std::numeric_limits<std::uint64_t>::max();
}

FileChange to_record(const FileEntry<Integer>& e) {
    FileChange f;
    f.path.assign(e.path);
    f.status.assign(status_text(e.letter));
    f.additions = count_value(e.additions);
    f.deletions = count_value(e.deletions);
    if (e.old_path) f.old_path.emplace(*e.old_path);
    return f;
}

// Reads each commit's files with one parser, so path ids hold across the log.
class NativeLogSink {
public:
    explicit NativeLogSink(CommitLog& log) : log_(log), parser_(steps_) {}
    void commit(const Integer& time, std::span<const std::string_view> body) {
        CommitEntry& c = log_.commits.emplace_back();
        c.time = time;
        c.first_file = log_.files.size();
        parser_.parse(body, log_.files);
        c.file_count = log_.files.size() - c.first_file;
    }
    std::size_t distinct_paths() const { return parser_.distinct_paths(); }

private:
    CommitLog& log_;
    NativeChangeSteps steps_;
    FileChangeParser<NativeChangeSteps> parser_;
};

}  // namespace

namespace detail {

PathIds::PathIds() : seed_(hash_seed()) {}

std::uint32_t PathIds::id(std::string_view key) {
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

void PathIds::grow() {
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

}  // namespace detail

std::string_view status_text(std::string_view letter) {
    for (const StatusLetter& s : STATUS_LETTERS)
        if (s.letter == letter) return s.status;
    return DEFAULT_STATUS;
}

std::vector<std::string_view> split_nul(std::string_view output) {
    std::vector<std::string_view> tokens;
    // A guess (git's tokens run to a few dozen bytes); counting the NULs
    // first would read the whole text once more.
    tokens.reserve(output.size() / 24 + 1);
    ByteFinder nuls(output, '\0');
    for (std::size_t start = 0;;) {
        const std::size_t nul = nuls.next();
        tokens.push_back(output.substr(start, nul - start));
        if (nul == output.size()) return tokens;
        start = nul + 1;
    }
}

void throw_invalid_stamp(std::string_view stamp) {
    throw std::invalid_argument("invalid literal for int() with base 10: " + python_repr(stamp));
}

std::vector<FileEntry<Integer>> file_entries(std::span<const std::string_view> tokens) {
    NativeChangeSteps steps;
    FileChangeParser<NativeChangeSteps> parser(steps);
    std::vector<FileEntry<Integer>> entries;
    // One file takes at least three tokens (header, path, numstat).
    entries.reserve(tokens.size() / 3 + 1);
    parser.parse(tokens, entries);
    return entries;
}

CommitLog commit_log(std::string_view output, std::string_view commit_start) {
    CommitLog log;
    // Room for the files at once: growing would copy the entries and touch
    // fresh pages at each step. A file's records take about 100 bytes (raw
    // header, path, numstat), so this is rarely too little (the vector then
    // grows as usual) and never much more than the log itself.
    log.files.reserve(output.size() / 96 + 1);
    NativeLogSink sink(log);
    scan_commit_log(output, commit_start, sink);
    log.distinct_paths = sink.distinct_paths();
    return log;
}

std::vector<FileChange> parse_file_changes(std::string_view output) {
    const std::vector<std::string_view> tokens = split_nul(output);
    const std::vector<FileEntry<Integer>> entries = file_entries(tokens);
    std::vector<FileChange> records;
    records.reserve(entries.size());
    for (const auto& e : entries) records.push_back(to_record(e));
    return records;
}

std::vector<CommitChanges> parse_commit_changes(std::string_view output) {
    const CommitLog log = commit_log(output);
    std::vector<CommitChanges> commits;
    commits.reserve(log.commits.size());
    for (const CommitEntry& c : log.commits) {
        if (!c.time.fits())
            throw std::out_of_range("commit time does not fit a 64-bit integer: " + *c.time.digits);
        CommitChanges& record = commits.emplace_back();
        record.timestamp = c.time.value;
        record.files.reserve(c.file_count);
        for (const auto& f : log.files_of(c)) record.files.push_back(to_record(f));
    }
    return commits;
}

}  // namespace git_utils
