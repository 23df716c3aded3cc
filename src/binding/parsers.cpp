// The parsers at the boundary. The core's parsers (src/core/changes.hpp,
// spans.hpp) are instantiated here with steps that are native while the
// namespace holds the module's own objects, and call the host's otherwise:
// `_TWO_PATH_LETTERS`, `_line_count`, `_file_changes`, `_COMMIT_START`,
// `_HUNK_HEADER`, `_patch_path`, `_unquote`, `_C_ESCAPE`, `_C_ESCAPES`,
// `_span`. When every step is native, the core scans the text without the
// interpreter lock and the records are built afterwards with no Python code
// running in between; otherwise the scan holds the lock and calls the
// host's steps as it goes. `_STATUS_BY_LETTER` and the record classes are
// read once per call.
#include <deque>
#include <unordered_map>

#include "common.hpp"
#include "src/core/changes.hpp"
#include "src/core/spans.hpp"

namespace git_utils::binding {
namespace {

// --- change lists ----------------------------------------------------------

// `_STATUS_BY_LETTER` as a call found it: its entries copied (owned) while
// it is a plain dict with str keys, so looking a letter up runs no Python
// code; any other mapping is asked with get(letter, "modified").
class StatusTable {
public:
    explicit StatusTable(const Call& call) : call_(call), table_(call.get(_STATUS_BY_LETTER)) {
        sealed_ = PyDict_CheckExact(table_.get());
        if (!sealed_) return;
        {
            Py_ssize_t pos = 0;
            PyObject *key, *value;
            // Only reads that run no Python code; the dict's own lock keeps
            // other threads' edits out of the walk where there is no GIL.
            CriticalSection section(table_.get());
            while (PyDict_Next(table_.get(), &pos, &key, &value)) {
                if (!PyUnicode_CheckExact(key)) {
                    sealed_ = false;
                    return;
                }
                if (PyUnicode_GET_LENGTH(key) == 1 && PyUnicode_READ_CHAR(key, 0) < 128)
                    ascii_[PyUnicode_READ_CHAR(key, 0)] = Ref::borrow(value);
                else
                    others_.emplace_back(std::string(), Ref::borrow(value)), keys_.push_back(Ref::borrow(key));
            }
        }
        for (std::size_t i = 0; i < keys_.size(); ++i) others_[i].first = utf8_of(keys_[i].get());
    }

    bool sealed() const { return sealed_; }

    Ref status(std::string_view letter) const {
        if (sealed_) {
            if (letter.size() == 1 && static_cast<unsigned char>(letter[0]) < 128) {
                const Ref& v = ascii_[static_cast<unsigned char>(letter[0])];
                return v ? v : Ref::borrow(call_.st->modified);
            }
            for (const auto& [key, value] : others_)
                if (key == letter) return value;
            return Ref::borrow(call_.st->modified);
        }
        Ref key = str_from_utf8(letter);
        return call_method(table_.get(), "get", {key.get(), call_.st->modified});
    }

private:
    const Call& call_;
    Ref table_;
    bool sealed_ = false;
    Ref ascii_[128];
    std::vector<std::pair<std::string, Ref>> others_;
    std::vector<Ref> keys_;
};

// Counts as the native reader gives them, or as the host's `_line_count`.
Ref count_object(const Integer& i) { return int_object(i); }
Ref count_object(const Ref& r) { return r ? r : check(PyLong_FromLong(0)); }

// The change steps when the host replaced `_TWO_PATH_LETTERS` or
// `_line_count` (the lock is held throughout).
struct HostChangeSteps {
    using Count = Ref;
    Ref letters;  // `_TWO_PATH_LETTERS`; null while the module's own
    Ref counter;  // `_line_count`; null while the module's own

    bool two_path(std::string_view letter) const {
        if (!letters) return default_two_path_letter(letter);
        Ref key = str_from_utf8(letter);
        return check(PySequence_Contains(letters.get(), key.get())) == 1;
    }
    Count line_count(std::string_view field) const {
        if (!counter) return int_object(git_utils::line_count(field));
        Ref arg = str_from_utf8(field);
        return invoke(counter.get(), {arg.get()});
    }
};

// Which change steps a call uses.
struct ChangeSteps {
    explicit ChangeSteps(const Call& call) {
        Ref letters = call.get(_TWO_PATH_LETTERS);
        Ref counter = call.get(_line_count);
        // The module's own frozenset cannot change; its own `_line_count` is
        // the native reader.
        if (!call.is_own(_TWO_PATH_LETTERS, letters)) host.letters = letters;
        if (!call.is_own(_line_count, counter)) host.counter = counter;
    }
    bool native() const { return !host.letters && !host.counter; }
    HostChangeSteps host;
};

// Builds FileChange records: the status from the table, the class as the
// call found it, and for a log one str per distinct path (a log names the
// same files again and again; in one diff every path is new, so there the
// sharing would only cost).
class FileChangeBuilder {
public:
    FileChangeBuilder(const Call& call, bool ascii, bool share_paths)
        : maker_(call, FILE_CHANGE), status_(call), ascii_(ascii), share_paths_(share_paths) {}

    // No Python code runs while records are built.
    bool sealed() const { return maker_.sealed() && status_.sealed(); }

    Ref text(std::string_view s) const { return ascii_ ? ascii_str(s) : str_from_utf8(s); }

    template <class Count>
    Ref make(const FileEntry<Count>& e) {
        Ref path = share_paths_ ? shared_path(e) : text(e.path);
        Ref status = status_.status(e.letter);
        Ref additions = count_object(e.additions);
        Ref deletions = count_object(e.deletions);
        Ref old_path = e.old_path ? text(*e.old_path) : Ref::borrow(Py_None);
        PyObject* values[5] = {path.get(), status.get(), additions.get(), deletions.get(), old_path.get()};
        return maker_.make(values, 5);
    }

private:
    template <class Count>
    Ref shared_path(const FileEntry<Count>& e) {
        if (e.path_id >= paths_.size()) paths_.resize(std::max<std::size_t>(e.path_id + 1, paths_.size() * 2));
        Ref& path = paths_[e.path_id];
        if (!path) path = text(e.path);
        return path;
    }

    RecordMaker maker_;
    StatusTable status_;
    bool ascii_;
    bool share_paths_;
    std::vector<Ref> paths_;  // by path id
};

template <class Entries>
Ref file_change_list(FileChangeBuilder& builder, const Entries& entries) {
    GcPause pause(builder.sealed());
    ListBuilder list(builder.sealed(), false, entries.size());
    for (const auto& e : entries) list.add(builder.make(e));
    return list.list();
}

// `_file_changes` with the module's own function, over tokens held alive by
// the caller.
Ref file_changes_of_tokens(const Call& call, std::span<const std::string_view> tokens, std::size_t bytes, bool ascii) {
    ChangeSteps steps(call);
    FileChangeBuilder builder(call, ascii, false);
    if (steps.native()) {
        std::vector<FileEntry<Integer>> entries;
        without_gil(bytes >= kReleaseThreshold, [&] { entries = file_entries(tokens); });
        return file_change_list(builder, entries);
    }
    FileChangeParser<HostChangeSteps> parser(steps.host);
    std::vector<FileEntry<Ref>> entries;
    parser.parse(tokens, entries);
    return file_change_list(builder, entries);
}

// The tokens of `text` cut at every NUL, as a list of str.
Ref token_list(std::string_view text, bool ascii) {
    const std::vector<std::string_view> tokens = split_nul(text);
    ListBuilder list;
    list.reserve(tokens.size());
    for (std::string_view t : tokens) list.add(ascii ? ascii_str(t) : str_from_utf8(t));
    return list.list();
}

// `parse_file_changes` with the module's own function, over a text held
// alive by the caller: cut at every NUL, then `_file_changes`.
Ref file_changes_of_view(const Call& call, std::string_view text, bool ascii) {
    Ref inner = call.get(_file_changes);
    if (!call.is_own(_file_changes, inner)) {
        Ref tokens = token_list(text, ascii);
        return invoke(inner.get(), {tokens.get()});
    }
    const std::vector<std::string_view> tokens = split_nul(text);
    return file_changes_of_tokens(call, tokens, text.size(), ascii);
}

// Hands each commit of a log to `_file_changes` as the call found it, and
// makes its CommitChanges record (the lock is held throughout).
class HostLogSink {
public:
    HostLogSink(const Call& call, Ref file_changes, bool ascii)
        : host_(call.is_own(_file_changes, file_changes) ? Ref() : file_changes), steps_(call),
          parser_(steps_.host), builder_(call, ascii, true), maker_(call, COMMIT_CHANGES), ascii_(ascii) {}

    void commit(const Integer& time, std::span<const std::string_view> body) {
        Ref timestamp = int_object(time);
        Ref files;
        if (host_) {
            ListBuilder tokens;
            for (std::string_view t : body) tokens.add(ascii_ ? ascii_str(t) : str_from_utf8(t));
            Ref list = tokens.list();
            Ref got = invoke(host_.get(), {list.get()});
            files = host_tuple(got.get());
        } else {
            entries_.clear();
            parser_.parse(body, entries_);
            ListBuilder tuple;
            for (const auto& e : entries_) tuple.add(builder_.make(e));
            files = tuple.tuple();
        }
        PyObject* values[2] = {timestamp.get(), files.get()};
        commits_.add(maker_.make(values, 2));
    }

    Ref result() { return commits_.list(); }

private:
    Ref host_;
    ChangeSteps steps_;
    FileChangeParser<HostChangeSteps> parser_;
    std::vector<FileEntry<Ref>> entries_;
    FileChangeBuilder builder_;
    RecordMaker maker_;
    ListBuilder commits_;
    bool ascii_;
};

// `parse_commit_changes` over a text held alive by the caller.
Ref commit_changes_of_view(const Call& call, std::string_view text, bool ascii) {
    Ref file_changes = call.get(_file_changes);
    Ref start_obj = call.get(_COMMIT_START);
    require_str({start_obj.get(), {"parse_commit_changes", "_COMMIT_START"}});
    const std::string start = utf8_of(start_obj.get());

    ChangeSteps steps(call);
    if (call.is_own(_file_changes, file_changes) && steps.native()) {
        CommitLog log;
        without_gil(text.size() >= kReleaseThreshold, [&] { log = commit_log(text, start); });
        FileChangeBuilder builder(call, ascii, true);
        RecordMaker maker(call, COMMIT_CHANGES);
        const bool sealed = builder.sealed() && maker.sealed();
        GcPause pause(sealed);
        ListBuilder commits(sealed, false, log.commits.size());
        for (const CommitEntry& c : log.commits) {
            Ref timestamp = int_object(c.time);
            ListBuilder files(sealed, true, c.file_count);
            for (const auto& f : log.files_of(c)) files.add(builder.make(f));
            Ref tuple = files.tuple();
            PyObject* values[2] = {timestamp.get(), tuple.get()};
            commits.add(maker.make(values, 2));
        }
        return commits.list();
    }
    HostLogSink sink(call, file_changes, ascii);
    scan_commit_log(text, start, sink);
    return sink.result();
}

// --- spans ------------------------------------------------------------------

// A Python number with the operators `span_of` uses, each as Python's.
class PyNum {
public:
    PyNum(long v) : o_(check(PyLong_FromLong(v))) {}  // NOLINT: converts like an integer
    explicit PyNum(Ref o) : o_(std::move(o)) {}
    const Ref& object() const { return o_; }
    friend bool operator==(const PyNum& a, const PyNum& b) { return compare(a, b, Py_EQ); }
    friend bool operator>(const PyNum& a, const PyNum& b) { return compare(a, b, Py_GT); }
    friend PyNum operator+(const PyNum& a, const PyNum& b) { return PyNum(check(PyNumber_Add(a.o_.get(), b.o_.get()))); }
    friend PyNum operator-(const PyNum& a, const PyNum& b) {
        return PyNum(check(PyNumber_Subtract(a.o_.get(), b.o_.get())));
    }

private:
    static bool compare(const PyNum& a, const PyNum& b, int op) {
        return check(PyObject_RichCompareBool(a.o_.get(), b.o_.get(), op)) == 1;
    }
    Ref o_;
};

Ref line_span_record(const RecordMaker& maker, PyObject* start, PyObject* end, bool added) {
    PyObject* values[3] = {start, end, added ? Py_True : Py_False};
    return maker.make(values, 3);
}

// `_span` with the module's own function.
Ref own_span(const Call& call, const Ref& start, const Ref& new_count, const Ref& old_count) {
    const SpanOf<PyNum> s = span_of(PyNum(start), PyNum(new_count), PyNum(old_count));
    RecordMaker maker(call, LINE_SPAN);
    return line_span_record(maker, s.start.object().get(), s.end.object().get(), s.added);
}

// Whether `_C_ESCAPES` still maps exactly the letters of the native table.
bool native_letters(const Ref& table) {
    if (!PyDict_CheckExact(table.get())) return false;
    // Only reads of exact str, which run no Python code; the dict's own lock
    // keeps other threads' edits out where there is no GIL.
    CriticalSection section(table.get());
    if (PyDict_GET_SIZE(table.get()) != static_cast<Py_ssize_t>(std::size(ESCAPE_LETTERS))) return false;
    Py_ssize_t pos = 0;
    PyObject *key, *value;
    while (PyDict_Next(table.get(), &pos, &key, &value)) {
        if (!PyUnicode_CheckExact(key) || !PyUnicode_CheckExact(value) || !PyUnicode_IS_ASCII(key) ||
            !PyUnicode_IS_ASCII(value) || PyUnicode_GET_LENGTH(key) != 1)
            return false;
        const std::string_view k(static_cast<const char*>(PyUnicode_DATA(key)), 1);
        const std::string_view v(static_cast<const char*>(PyUnicode_DATA(value)),
                                 static_cast<std::size_t>(PyUnicode_GET_LENGTH(value)));
        std::string mapped;
        NativeEscapes::letter(k, mapped);
        if (mapped == k || mapped != v) return false;  // not a letter of the table, or another character
    }
    return true;
}

// The escape steps of `_unquote` for one text (held by the caller).
class EscapeSteps {
public:
    EscapeSteps(const Call& call, PyObject* text, std::string_view utf8)
        : native_(utf8), utf8_(utf8), text_(Ref::borrow(text)) {
        Ref pattern = call.get(_C_ESCAPE);
        table_ = call.get(_C_ESCAPES);
        if (!call.is_own(_C_ESCAPE, pattern)) matches_ = call_method(pattern.get(), "finditer", {text});
        if (matches_) matches_ = check(apply_python(PyObject_GetIter, matches_.get()));
        native_letters_ = call.is_own(_C_ESCAPES, table_) && native_letters(table_);
    }

    bool native() const { return !matches_ && native_letters_; }

    std::optional<Escape> next_escape() {
        if (!matches_) return native_.next_escape();
        Ref m(apply_python(PyIter_Next, matches_.get()));
        if (!m) {
            if (PyErr_Occurred()) throw PyErrSet{};
            return std::nullopt;
        }
        const std::size_t start = byte_offset(index_of(m, "start"));
        const std::size_t end = byte_offset(index_of(m, "end"));
        Ref code = call_method(m.get(), "group", {small_int(1).get()});
        codes_.push_back(str_argument({code.get(), {"_unquote", "_C_ESCAPE group"}}));
        return Escape{start, std::max(start, end), codes_.back()};
    }

    void letter(std::string_view code, std::string& bytes) {
        if (native_letters_) return NativeEscapes::letter(code, bytes);
        Ref key = str_from_utf8(code);
        Ref mapped = call_method(table_.get(), "get", {key.get(), key.get()});
        bytes += str_argument({mapped.get(), {"_unquote", "_C_ESCAPES value"}});
    }

private:
    static Py_ssize_t index_of(const Ref& match, const char* method) {
        Ref v = call_method(match.get(), method);
        const Py_ssize_t i = PyNumber_AsSsize_t(v.get(), PyExc_OverflowError);
        if (i == -1 && PyErr_Occurred()) throw PyErrSet{};
        return i;
    }
    // The byte offset in the UTF-8 of a character index (the host's pattern
    // counts characters); matches come in order, so the walk goes forward.
    std::size_t byte_offset(Py_ssize_t index) {
        if (index < 0) index = 0;
        if (static_cast<std::size_t>(index) < walked_chars_) walked_chars_ = walked_bytes_ = 0;
        while (walked_chars_ < static_cast<std::size_t>(index) && walked_bytes_ < utf8_.size()) {
            next_char(utf8_, walked_bytes_);
            ++walked_chars_;
        }
        return walked_bytes_;
    }

    NativeEscapes native_;
    std::string_view utf8_;
    Ref text_;
    Ref matches_;
    Ref table_;
    bool native_letters_ = false;
    std::deque<std::string> codes_;  // stable: the escapes view into them
    std::size_t walked_chars_ = 0, walked_bytes_ = 0;
};

// `_unquote` with the module's own function.
Ref own_unquote(const Call& call, PyObject* text) {
    std::string scratch;
    const std::string_view utf8 = utf8_view(text, scratch);
    EscapeSteps steps(call, text, utf8);
    if (steps.native() && utf8.find('\\') == std::string_view::npos && scratch.empty()) return Ref::borrow(text);
    return str_from_utf8(unquote_with(steps, utf8));
}

// `_unquote` as the namespace holds it.
Ref unquote_through_namespace(const Call& call, std::string_view inner) {
    Ref text = str_from_utf8(inner);
    Ref unquote_fn = call.get(_unquote);
    if (call.is_own(_unquote, unquote_fn)) return own_unquote(call, text.get());
    return invoke(unquote_fn.get(), {text.get()});
}

// `_patch_path` with the module's own function, as Python objects.
struct PathSteps {
    const Call& call;
    PyObject* whole;  // the text being read, when it is a str
    std::string_view whole_utf8;
    Ref none() { return Ref::borrow(Py_None); }
    Ref text(std::string_view name) {
        if (whole && name.size() == whole_utf8.size()) return Ref::borrow(whole);
        return str_from_utf8(name);
    }
    Ref unquote(std::string_view inner) { return unquote_through_namespace(call, inner); }
};

// `_patch_path` as the namespace holds it.
Ref patch_path_through_namespace(const Call& call, std::string_view text) {
    Ref fn = call.get(_patch_path);
    if (call.is_own(_patch_path, fn)) {
        PathSteps steps{call, nullptr, {}};
        return patch_path_with(steps, text);
    }
    Ref arg = str_from_utf8(text);
    return invoke(fn.get(), {arg.get()});
}

// The span steps when any of them is the host's (the lock is held
// throughout): names and spans are Python objects, appended to a dict.
class HostSpanSteps {
public:
    using Number = Ref;
    using Path = Ref;

    explicit HostSpanSteps(const Call& call)
        : call_(call), header_(call.get(_HUNK_HEADER)), span_(call.get(_span)), result_(check(PyDict_New())) {
        if (call.is_own(_HUNK_HEADER, header_)) header_ = Ref();
        if (call.is_own(_span, span_)) span_ = Ref();
    }

    Path patch_path(std::string_view text) { return patch_path_through_namespace(call_, text); }
    static bool present(const Path& p) { return p.get() != Py_None; }

    bool hunk_header(std::string_view line, HunkHeader<Ref>& h) {
        if (!header_) {
            HunkHeader<Integer> d;
            if (!match_hunk_header(line, d)) return false;
            h.start = int_object(d.start);
            if (d.old_count) h.old_count = int_object(*d.old_count);
            if (d.new_count) h.new_count = int_object(*d.new_count);
            return true;
        }
        Ref text = str_from_utf8(line);
        Ref m = call_method(header_.get(), "match", {text.get()});
        if (m.get() == Py_None) return false;
        h.old_count = group_number(m, 1);
        std::optional<Ref> start = group_number(m, 2);
        h.start = start ? std::move(*start) : check(PyNumber_Long(Py_None));  // int(None): its TypeError
        h.new_count = group_number(m, 3);
        return true;
    }
    static Ref one() { return check(PyLong_FromLong(1)); }
    // A count as a line counter: values beyond 64 bits are never counted down.
    static std::int64_t counter(const Ref& n) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(n.get(), &overflow);
        if (v == -1 && PyErr_Occurred()) throw PyErrSet{};
        return overflow > 0 ? INT64_MAX : overflow < 0 ? INT64_MIN : v;
    }

    void hunk(const Path& path, const Ref& start, const Ref& new_count, const Ref& old_count) {
        Ref span = span_ ? invoke(span_.get(), {start.get(), new_count.get(), old_count.get()})
                         : own_span(call_, start, new_count, old_count);
        // The list is taken (owned) before anything else can run.
        PyObject* found = nullptr;
        Ref list(check(PyDict_GetItemRef(result_.get(), path.get(), &found)) ? found : nullptr);
        if (!list) {
            list = check(PyList_New(0));
            check(PyDict_SetItem(result_.get(), path.get(), list.get()));
        }
        check(PyList_Append(list.get(), span.get()));
    }

    // The patch read with these steps: a dict of lists of records.
    static Ref read(const Call& call, std::string_view text) {
        HostSpanSteps steps(call);
        scan_patch(steps, text);
        return steps.result_;
    }

private:
    // A group of the header's match as int(); none when it did not take part.
    static std::optional<Ref> group_number(const Ref& m, int group) {
        Ref g = call_method(m.get(), "group", {small_int(group).get()});
        if (g.get() == Py_None) return std::nullopt;
        if (PyUnicode_Check(g.get())) {
            std::string scratch;
            const std::string_view digits = utf8_view(g.get(), scratch);
            if (const std::optional<Integer> i = read_decimal_integer(digits)) return int_object(*i);  // any number of digits
        }
        return check(PyNumber_Long(g.get()));  // int()'s own reading, and its error
    }
    const Call& call_;
    Ref header_;
    Ref span_;
    Ref result_;
};

// Whether every span step is the module's own, so the core can read the
// patch alone.
bool native_span_steps(const Call& call) {
    if (!call.is_own(_HUNK_HEADER) || !call.is_own(_patch_path) || !call.is_own(_unquote) || !call.is_own(_span) ||
        !call.is_own(_C_ESCAPE))
        return false;
    Ref table = call.get(_C_ESCAPES);
    return call.is_own(_C_ESCAPES, table) && native_letters(table);
}

constexpr std::size_t kSharedLines = 1 << 14;

// From this size on the patch is read on a thread of its own while the
// records of the spans already found are made here (starting a thread costs
// about as much as reading 100 KiB of patch).
constexpr std::size_t kScanThreadThreshold = 1 << 20;

Ref line_spans_of_view(const Call& call, std::string_view text) {
    if (native_span_steps(call)) {
        const bool on_thread = text.size() >= kScanThreadThreshold;
        std::optional<SpanScan> scan;
        without_gil(!on_thread && text.size() >= kReleaseThreshold, [&] { scan.emplace(text, on_thread); });
        RecordMaker maker(call, LINE_SPAN);
        // The host's class is called only for a patch read whole and exact,
        // as it would be without the thread.
        if (!maker.sealed() && !scan->finish().exact) return HostSpanSteps::read(call, text);
        GcPause pause(maker.sealed());
        // The files of a patch repeat each other's line numbers: one int
        // per small value, made when first needed (ints are immutable).
        std::vector<Ref> small(std::min(kSharedLines, 2 * NativeSpans::most_spans(text)));
        auto line_number = [&](std::int64_t n) {
            if (n < 0 || static_cast<std::size_t>(n) >= small.size()) return check(PyLong_FromLongLong(n));
            Ref& shared = small[static_cast<std::size_t>(n)];
            if (!shared) shared = check(PyLong_FromLongLong(n));
            return shared;
        };
        // Records in patch order, made as the reading finds their spans. The
        // lock stays held while waiting for it: making a record takes about
        // as long as finding its span, so each wait is short, and giving the
        // lock up could cost each time another thread's whole switch interval.
        std::vector<Ref> records;
        for (std::size_t i = 0, found = 0;; ++i) {
            if (i == found && (found = scan->wait_beyond(i)) == i) break;
            const git_utils::LineSpan& s = scan->span(i);
            Ref start = line_number(s.start);
            Ref end = s.end == s.start ? start : line_number(s.end);
            records.push_back(line_span_record(maker, start.get(), end.get(), s.added));
        }
        const NativeSpans& spans = scan->finish();
        if (spans.exact) {
            std::vector<ListBuilder> lists;
            lists.reserve(spans.names.size());
            for (std::size_t count : spans.counts) lists.emplace_back(maker.sealed(), false, count);
            for (std::size_t i = 0; i < records.size(); ++i) lists[spans.spans[i].path].add(std::move(records[i]));
            Ref result = check(PyDict_New());
            for (std::size_t i = 0; i < spans.names.size(); ++i) {
                Ref key = str_from_utf8(spans.names[i]);
                Ref value = lists[i].list();
                check(PyDict_SetItem(result.get(), key.get(), value.get()));
            }
            return result;
        }
        // A number beyond 64 bits: read again with Python's integers.
    }
    return HostSpanSteps::read(call, text);
}

}  // namespace

// --- entry points ----------------------------------------------------------------

namespace {
// A parser as the namespace holds it: the host's function is given the text
// as a str; the module's own reads the text's UTF-8 in place.
template <class Own>
Ref parser_through_namespace(const Call& call, Name name, Text& text, Own&& own) {
    Ref fn = call.get(name);
    if (call.is_own(name, fn)) return own(text.view());
    Ref str = text.object();
    return invoke(fn.get(), {str.get()});
}
}  // namespace

Ref file_changes_of(const Call& call, Text& text) {
    return parser_through_namespace(call, parse_file_changes, text,
                                    [&](std::string_view v) { return file_changes_of_view(call, v, text.ascii()); });
}

Ref commit_changes_of(const Call& call, Text& text) {
    return parser_through_namespace(call, parse_commit_changes, text,
                                    [&](std::string_view v) { return commit_changes_of_view(call, v, text.ascii()); });
}

Ref line_spans_of(const Call& call, Text& text) {
    return parser_through_namespace(call, parse_line_spans, text,
                                    [&](std::string_view v) { return line_spans_of_view(call, v); });
}

Ref impl(const Call& call, Args<parse_file_changes> args) {
    require_str(args.output());
    Ref output = Ref::borrow(args.output());
    std::string scratch;
    return file_changes_of_view(call, utf8_view(output.get(), scratch), PyUnicode_IS_ASCII(output.get()));
}

Ref impl(const Call& call, Args<_file_changes> args) {
    if (PyUnicode_Check(args.tokens()) || PyBytes_Check(args.tokens())) wrong_type(args.tokens(), "be a sequence of str");
    // A tuple of its own keeps every token alive while views into them are
    // read (the host's steps run their code in between).
    Ref seq = check(PySequence_Tuple(args.tokens()));
    const Py_ssize_t n = PyTuple_GET_SIZE(seq.get());
    std::vector<std::string_view> tokens;
    tokens.reserve(static_cast<std::size_t>(n));
    // A deque keeps its strings in place as it grows: a short string holds
    // its bytes inside the object, so a vector moving it would leave the
    // earlier views dangling.
    std::deque<std::string> scratch(1);
    std::size_t bytes = 0;
    bool ascii = true;
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PyTuple_GET_ITEM(seq.get(), i);
        require_str({item, args.tokens().name});
        ascii = ascii && PyUnicode_IS_ASCII(item);
        const std::string_view v = utf8_view(item, scratch.back());
        if (!scratch.back().empty()) scratch.emplace_back();  // keep that buffer alive
        tokens.push_back(v);
        bytes += v.size();
    }
    return file_changes_of_tokens(call, tokens, bytes, ascii);
}

Ref impl(const Call&, Args<_line_count> args) {
    require_str(args.field());
    std::string scratch;
    return int_object(line_count(utf8_view(args.field(), scratch)));
}

Ref impl(const Call& call, Args<parse_commit_changes> args) {
    require_str(args.output());
    Ref output = Ref::borrow(args.output());
    std::string scratch;
    return commit_changes_of_view(call, utf8_view(output.get(), scratch), PyUnicode_IS_ASCII(output.get()));
}

Ref impl(const Call& call, Args<parse_line_spans> args) {
    require_str(args.patch());
    Ref patch = Ref::borrow(args.patch());
    std::string scratch;
    return line_spans_of_view(call, utf8_view(patch.get(), scratch));
}

Ref impl(const Call& call, Args<_span> args) {
    return own_span(call, Ref::borrow(args.start()), Ref::borrow(args.new_count()), Ref::borrow(args.old_count()));
}

Ref impl(const Call& call, Args<_patch_path> args) {
    require_str(args.text());
    Ref text = Ref::borrow(args.text());
    std::string scratch;
    const std::string_view utf8 = utf8_view(text.get(), scratch);
    PathSteps steps{call, scratch.empty() ? text.get() : nullptr, utf8};
    return patch_path_with(steps, utf8);
}

Ref impl(const Call& call, Args<_unquote> args) {
    require_str(args.text());
    Ref text = Ref::borrow(args.text());
    return own_unquote(call, text.get());
}

}  // namespace git_utils::binding
