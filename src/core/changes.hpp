// The change-list parsers: the `--raw --numstat -z` stream of one diff
// (`_file_changes`) and the `--format=%x1e%ct` log that wraps one such stream
// per commit (`parse_commit_changes`).
//
// Each is written once, as a template over the steps a host may replace:
// which status letters carry a source path, how a count field is read, and
// what is done with each commit. core/changes.cpp instantiates them with the
// native steps; the extension module instantiates them with steps that call
// what the host bound in its namespace. Both read views into the caller's
// text and allocate only their results (plus one reusable hash table), since
// a log of a large history runs to hundreds of megabytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/core/text.hpp"

namespace git_utils {

// One file of a diff as read: views into the parsed text, and its counts as
// the count step made them.
template <class Count>
struct FileEntry {
    std::string_view path;
    std::string_view letter;  // the first character of the status field; may be empty
    std::optional<std::string_view> old_path;
    Count additions{};        // a value-initialised Count stands for 0
    Count deletions{};
    // Equal paths get equal ids within one parser (for a log, across all its
    // commits), so a caller can make one object per distinct path.
    std::uint32_t path_id = 0;
};

// git's status letters and what the library calls them; any other letter,
// and none, is "modified".
struct StatusLetter {
    std::string_view letter;
    std::string_view status;
};
inline constexpr StatusLetter STATUS_LETTERS[] = {{"A", "added"},   {"C", "copied"},  {"D", "deleted"},
                                                  {"M", "modified"}, {"R", "renamed"}, {"T", "modified"}};
inline constexpr std::string_view DEFAULT_STATUS = "modified";
std::string_view status_text(std::string_view letter);

// The status letters whose raw record carries a source path (copies and
// renames).
inline constexpr std::string_view TWO_PATH_LETTERS[] = {"C", "R"};
inline bool default_two_path_letter(std::string_view letter) {
    for (std::string_view l : TWO_PATH_LETTERS)
        if (l == letter) return true;
    return false;
}

// Splits at every NUL (the output of -z): the pieces, empty ones included.
std::vector<std::string_view> split_nul(std::string_view output);

namespace detail {

// Numbers the distinct paths of a scan: the same path always gets the same
// id, from 0 upwards. Open addressing with a per-process seed, so that nobody
// can prepare names whose hashes collide.
class PathIds {
public:
    PathIds();
    std::uint32_t id(std::string_view key);
    std::size_t size() const { return count_; }

private:
    static constexpr std::uint32_t kEmpty = static_cast<std::uint32_t>(-1);
    struct Slot {
        std::string_view key;
        std::uint64_t hash = 0;
        std::uint32_t id = kEmpty;
    };
    void grow();

    std::vector<Slot> slots_;
    std::size_t count_ = 0;
    std::uint64_t seed_;
};

}  // namespace detail

// The raw + numstat parser proper. `Steps` provides:
//   using Count;                                // what a count field becomes
//   bool two_path(std::string_view letter);     // the letter's raw record carries a source path
//   Count line_count(std::string_view field);   // one count field
// One parser reads one diff, or every commit of a log in turn: path ids then
// hold across the commits, while the pairing of raw and numstat records is
// kept apart per commit by a generation number.
template <class Steps>
class FileChangeParser {
public:
    using Count = typename Steps::Count;
    using Entry = FileEntry<Count>;

    explicit FileChangeParser(Steps& steps) : steps_(steps) {}

    std::size_t distinct_paths() const { return ids_.size(); }

    // Reads one diff's tokens front to back through one cursor and appends
    // its files to `entries`, in the order their paths first had a raw record.
    void parse(std::span<const std::string_view> tokens, std::vector<Entry>& entries) {
        ++generation_;
        pending_.clear();
        next_counted_ = entries.size();

        const std::size_t n = tokens.size();
        std::size_t i = 0;
        auto take = [&]() -> std::string_view { return i < n ? tokens[i++] : std::string_view(); };
        while (i < n) {
            std::string_view token = tokens[i++];
            std::size_t lf = 0;
            while (lf < token.size() && token[lf] == '\n') ++lf;
            token.remove_prefix(lf);

            if (!token.empty() && token[0] == ':') {
                // Raw record: of the header only the status letter matters.
                const std::size_t space = token.rfind(' ');
                const std::string_view tail = space == std::string_view::npos ? token : token.substr(space + 1);
                std::string_view letter;
                if (!tail.empty()) {
                    std::size_t end = 1;  // an ASCII letter, as git writes it
                    if (static_cast<unsigned char>(tail[0]) >= 0x80) {
                        end = 0;
                        next_char(tail, end);
                    }
                    letter = tail.substr(0, end);
                }
                std::optional<std::string_view> old_path;
                if (steps_.two_path(letter)) old_path = take();
                const std::string_view path = take();
                if (!path.empty()) raw_record(entries, path, letter, old_path);
                continue;
            }

            // Numstat record: added TAB deleted TAB path; a token with fewer
            // than two TABs is skipped on its own.
            const std::size_t tab1 = find_near(token, '\t', 0);
            if (tab1 == std::string_view::npos) continue;
            const std::size_t tab2 = find_near(token, '\t', tab1 + 1);
            if (tab2 == std::string_view::npos) continue;
            std::string_view path = token.substr(tab2 + 1);
            if (path.empty()) {
                take();  // the source path of a rename or copy
                path = take();
            }
            Count added = steps_.line_count(token.substr(0, tab1));
            Count deleted = steps_.line_count(token.substr(tab1 + 1, tab2 - tab1 - 1));
            // A raw record never has an empty path, so counts under one are
            // never used.
            if (!path.empty()) counts(entries, path, std::move(added), std::move(deleted));
        }
        // Counts left in `pending_` had no raw record and yield nothing.
    }

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    // `text.find(c, from)` for what is usually a few bytes away (the counts
    // of a numstat record), without a call to memchr.
    static std::size_t find_near(std::string_view text, char c, std::size_t from) {
        for (std::size_t i = from; i < text.size(); ++i)
            if (text[i] == c) return i;
        return std::string_view::npos;
    }

    // Where a path's records went in the current diff.
    struct Place {
        std::uint64_t generation = 0;  // the diff these entries belong to
        std::size_t entry = kNone;     // index of its entry in the result
        std::size_t pending = kNone;   // its counts, while no raw record has come
    };

    Place& place(std::uint32_t id) {
        if (id >= places_.size()) places_.resize(std::max<std::size_t>(id + 1, places_.size() * 2));
        Place& p = places_[id];
        if (p.generation != generation_) p = Place{generation_};
        return p;
    }

    void raw_record(std::vector<Entry>& entries, std::string_view path, std::string_view letter,
                    std::optional<std::string_view> old_path) {
        const std::uint32_t id = ids_.id(path);
        Place& slot = place(id);
        if (slot.entry != kNone) {
            // A later raw record for the path replaces the status and the old
            // path; the file keeps its place and its counts.
            Entry& e = entries[slot.entry];
            e.letter = letter;
            e.old_path = old_path;
            return;
        }
        slot.entry = entries.size();
        Entry& e = entries.emplace_back();
        e.path = path;
        e.path_id = id;
        e.letter = letter;
        e.old_path = old_path;
        if (slot.pending != kNone) {
            e.additions = std::move(pending_[slot.pending].first);
            e.deletions = std::move(pending_[slot.pending].second);
        }
    }

    void counts(std::vector<Entry>& entries, std::string_view path, Count&& added, Count&& deleted) {
        // git writes the numstat records in the order of the raw records, so
        // the next file usually is the one; as a diff's paths are distinct in
        // `entries`, a path equal to that file's is that file.
        if (next_counted_ < entries.size() && entries[next_counted_].path == path) {
            entries[next_counted_].additions = std::move(added);
            entries[next_counted_].deletions = std::move(deleted);
            ++next_counted_;
            return;
        }
        Place& slot = place(ids_.id(path));
        if (slot.entry != kNone) {
            entries[slot.entry].additions = std::move(added);
            entries[slot.entry].deletions = std::move(deleted);
        } else if (slot.pending != kNone) {
            pending_[slot.pending] = {std::move(added), std::move(deleted)};
        } else {
            slot.pending = pending_.size();
            pending_.emplace_back(std::move(added), std::move(deleted));
        }
    }

    Steps& steps_;
    detail::PathIds ids_;
    std::vector<Place> places_;
    std::uint64_t generation_ = 0;
    std::size_t next_counted_ = 0;  // the entry whose numstat record is expected next
    std::vector<std::pair<Count, Count>> pending_;
};

// The native steps: the library's own letter table and count reader.
struct NativeChangeSteps {
    using Count = Integer;
    bool two_path(std::string_view letter) const { return default_two_path_letter(letter); }
    Count line_count(std::string_view field) const { return git_utils::line_count(field); }
};

// The error for a header whose time is not a decimal integer, worded as
// Python's int() words it.
[[noreturn]] void throw_invalid_stamp(std::string_view stamp);

// What opens every commit of the log (the "%x1e" of the format).
inline constexpr std::string_view COMMIT_START = "\x1e";

// Cuts a commit log into commits. A token is a header when, after the LF
// characters at its start, it begins with `commit_start`; its time is the
// rest after its first character, trimmed. Tokens before the first header
// are ignored; the others go, unchanged, into the body of the open commit.
// `sink.commit(time, body)` is called as each commit closes, in order. A
// time that is not a decimal integer fails the whole parse (the commits
// before it have been handed over; the one with the bad time has not).
template <class Sink>
void scan_commit_log(std::string_view output, std::string_view commit_start, Sink& sink) {
    // The tokens of the open commit only: a whole log's tokens would take
    // more memory than the log itself.
    std::vector<std::string_view> body;
    std::optional<Integer> open;

    ByteFinder nuls(output, '\0');
    std::size_t start = 0;
    for (;;) {
        const std::size_t nul = nuls.next();
        const std::string_view token = output.substr(start, nul - start);

        std::size_t lf = 0;
        while (lf < token.size() && token[lf] == '\n') ++lf;
        const std::string_view rest = token.substr(lf);
        // The first byte decides nearly always, without a call to memcmp.
        if (commit_start.empty() ||
            (!rest.empty() && rest[0] == commit_start[0] && rest.substr(0, commit_start.size()) == commit_start)) {
            if (open) sink.commit(*open, std::span<const std::string_view>(body));
            body.clear();
            std::size_t first = 0;
            if (!rest.empty()) next_char(rest, first);  // the opening character is dropped
            const std::string_view stamp = strip(rest.substr(first));
            std::optional<Integer> time = read_decimal_integer(stamp);
            // The parse fails as this commit closes; nothing after it is read.
            if (!time) throw_invalid_stamp(stamp);
            open = std::move(time);
        } else if (open) {
            body.push_back(token);
        }

        if (nul == output.size()) break;
        start = nul + 1;
    }
    if (open) sink.commit(*open, std::span<const std::string_view>(body));
}

// A whole log read with the native change steps: the commits, and every
// commit's files in one array (one allocation for the log rather than one
// per commit).
struct CommitEntry {
    Integer time;
    std::size_t first_file = 0;  // its files: CommitLog::files[first_file, +file_count)
    std::size_t file_count = 0;
};
struct CommitLog {
    std::vector<CommitEntry> commits;
    std::vector<FileEntry<Integer>> files;
    std::size_t distinct_paths = 0;  // path ids of `files` are below this

    std::span<const FileEntry<Integer>> files_of(const CommitEntry& c) const {
        return std::span<const FileEntry<Integer>>(files).subspan(c.first_file, c.file_count);
    }
};

// `_file_changes` and `parse_commit_changes` with the native steps, as views
// into `output` (which must outlive the result).
std::vector<FileEntry<Integer>> file_entries(std::span<const std::string_view> tokens);
CommitLog commit_log(std::string_view output, std::string_view commit_start = COMMIT_START);

}  // namespace git_utils
