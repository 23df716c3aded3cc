// The parsers at the boundary: str in, records out. The core scans the text
// (without the interpreter lock for large inputs); records are built here,
// reading the status table, the record classes and the helper functions from
// the namespace at each call.
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>

#include "common.hpp"

namespace git_utils::binding {
namespace {

// Inputs smaller than this are scanned with the lock held: releasing it
// costs more than the scan.
constexpr std::size_t kReleaseThreshold = 1 << 16;

void require_str(PyObject* value, const char* func, const char* param) {
    if (!PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s() argument '%s' must be str, not %.100s", func, param, Py_TYPE(value)->tp_name);
        throw PyErrSet{};
    }
}

// Runs `work` with the interpreter lock released when `release` holds.
template <class F>
void scan(bool release, F&& work) {
    if (!release) {
        work();
        return;
    }
    PyThreadState* saved = PyEval_SaveThread();
    try {
        work();
    } catch (...) {
        PyEval_RestoreThread(saved);
        throw;
    }
    PyEval_RestoreThread(saved);
}

// Pauses the cyclic garbage collector while a result is built: the records
// hold no cycles, and collections triggered by tens of thousands of fresh
// objects would only traverse them. The host's setting comes back after.
class GcPause {
public:
    GcPause() : was_enabled_(PyGC_Disable()) {}
    ~GcPause() {
        if (was_enabled_) PyGC_Enable();
    }

private:
    int was_enabled_;
};

// Builds the Python values of one call.
class Builder {
public:
    // `ascii`: the parsed text is all ASCII, so every piece of it is too.
    // `distinct_paths`: make one str per distinct path id (a log names the
    // same files again and again; in one diff every path is new, so there it
    // would only cost); 0 for a str per occurrence.
    Builder(const Call& call, bool ascii, std::size_t distinct_paths = 0)
        : call_(call),
          ascii_(ascii),
          file_change_(call.lookup(FileChange)),
          status_table_(call.lookup(_STATUS_BY_LETTER)),
          modified_(check(PyUnicode_InternFromString("modified"))),
          paths_(distinct_paths, nullptr) {}

    ~Builder() {
        for (PyObject* o : paths_) Py_XDECREF(o);
        for (PyObject* o : ascii_status_) Py_XDECREF(o);
    }

    Ref text(std::string_view s) {
        if (!ascii_) return str_from_utf8(s);
        // What the UTF-8 decoder would make, without scanning for non-ASCII.
        Ref o = check(PyUnicode_New(static_cast<Py_ssize_t>(s.size()), 127));
        std::memcpy(PyUnicode_1BYTE_DATA(o.get()), s.data(), s.size());
        return o;
    }

    Ref path(const FileChangeView& v) {
        if (v.path_id >= paths_.size()) return text(v.path);
        PyObject*& shared = paths_[v.path_id];
        if (!shared) shared = text(v.path).release();
        return Ref::borrow(shared);
    }

    // `_STATUS_BY_LETTER.get(letter, "modified")`, remembered per ASCII letter
    // for the length of the call.
    Ref status(std::string_view letter) {
        bool ascii = letter.size() == 1 && static_cast<unsigned char>(letter[0]) < 128;
        if (ascii && ascii_status_[static_cast<unsigned char>(letter[0])])
            return Ref::borrow(ascii_status_[static_cast<unsigned char>(letter[0])]);
        Ref key = str_from_utf8(letter);
        Ref value;
        if (PyDict_CheckExact(status_table_)) {
            PyObject* v = PyDict_GetItemWithError(status_table_, key.get());
            if (!v && PyErr_Occurred()) throw PyErrSet{};
            value = Ref::borrow(v ? v : modified_.get());
        } else {
            value = check(PyObject_CallMethod(status_table_, "get", "OO", key.get(), modified_.get()));
        }
        if (ascii) ascii_status_[static_cast<unsigned char>(letter[0])] = Ref(value).release();
        return value;
    }

    static Ref number(const Decimal& d) {
        if (d.fits) return check(PyLong_FromLongLong(d.value));
        Ref digits = str_from_utf8(d.text);
        return check(PyLong_FromUnicodeObject(digits.get(), 10));
    }

    Ref file_change(const FileChangeView& v) {
        Ref path_text = path(v);
        Ref status_text = status(v.letter);
        Ref additions = number(v.additions);
        Ref deletions = number(v.deletions);
        Ref old_path = v.old_path ? text(*v.old_path) : Ref::borrow(Py_None);
        PyObject* values[5] = {path_text.get(), status_text.get(), additions.get(), deletions.get(), old_path.get()};
        return new_record(call_, file_change_, 0, values, 5);
    }

    Ref file_changes(const std::vector<FileChangeView>& views) {
        GcPause pause;
        Ref list = check(PyList_New(static_cast<Py_ssize_t>(views.size())));
        for (std::size_t i = 0; i < views.size(); ++i)
            PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), file_change(views[i]).release());
        return list;
    }

private:
    const Call& call_;
    bool ascii_;
    PyObject* file_change_;
    PyObject* status_table_;
    Ref modified_;
    std::vector<PyObject*> paths_;
    PyObject* ascii_status_[128] = {};
};

// Whether a status letter carries two paths, per `_TWO_PATH_LETTERS` as the
// namespace holds it now. Only the module's own frozenset is read without
// the interpreter.
struct TwoPath {
    PyObject* letters;
    bool native;
    explicit TwoPath(const Call& call) : letters(call.lookup(_TWO_PATH_LETTERS)), native(call.is_own(_TWO_PATH_LETTERS)) {}
    TwoPathLetters predicate() const {
        if (native) return default_two_path_letter;
        PyObject* container = letters;
        return [container](std::string_view letter) {
            Ref key = str_from_utf8(letter);
            int found = PySequence_Contains(container, key.get());
            check(found);
            return found == 1;
        };
    }
};

// `ascii`: every token is ASCII.
Ref file_changes_of_tokens(const Call& call, const std::vector<std::string_view>& tokens, std::size_t bytes,
                           bool ascii) {
    TwoPath two_path(call);
    std::vector<FileChangeView> views;
    auto predicate = two_path.predicate();
    scan(two_path.native && bytes >= kReleaseThreshold, [&] { views = file_change_views(tokens, predicate); });
    return Builder(call, ascii).file_changes(views);
}

Ref split_tokens(PyObject* output) {
    Ref nul = check(PyUnicode_FromOrdinal(0));
    return check(PyUnicode_Split(output, nul.get(), -1));
}

// `_file_changes` as the namespace holds it, for a list of str tokens.
Ref call_file_changes(const Call& call, PyObject* tokens) {
    return check(PyObject_CallOneArg(call.lookup(_file_changes), tokens));
}

// parse_commit_changes when `_file_changes` is the host's: the commits are
// cut here and each body handed to it as a list of str.
Ref commit_changes_through_host(const Call& call, PyObject* output) {
    Ref tokens = split_tokens(output);
    PyObject* commit_cls = call.lookup(CommitChanges);
    Ref commits = check(PyList_New(0));
    Ref stamp, body;
    auto close = [&] {
        Ref timestamp = check(PyLong_FromUnicodeObject(stamp.get(), 10));
        Ref files = call_file_changes(call, body.get());
        Ref files_tuple = check(PySequence_Tuple(files.get()));
        PyObject* values[2] = {timestamp.get(), files_tuple.get()};
        Ref record = new_record(call, commit_cls, 1, values, 2);
        check(PyList_Append(commits.get(), record.get()));
    };
    Py_ssize_t n = PyList_GET_SIZE(tokens.get());
    std::string scratch, start_scratch;
    std::string_view start = utf8_view(call.lookup(_COMMIT_START), start_scratch);
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* token = PyList_GET_ITEM(tokens.get(), i);
        std::string_view t = utf8_view(token, scratch);
        std::size_t lf = t.find_first_not_of('\n');
        std::string_view rest = lf == std::string_view::npos ? std::string_view() : t.substr(lf);
        bool header = rest.substr(0, start.size()) == start;
        if (header) {
            if (stamp) close();
            std::size_t first = 0;
            if (!rest.empty()) next_char(rest, first);  // the opening character is dropped
            stamp = str_from_utf8(strip(rest.substr(first)));
            body = check(PyList_New(0));
        } else if (stamp) {
            check(PyList_Append(body.get(), token));
        }
    }
    if (stamp) close();
    return commits;
}

Ref span_record(const Call& call, PyObject* cls, PyObject* start, PyObject* end, bool added) {
    PyObject* values[3] = {start, end, added ? Py_True : Py_False};
    return new_record(call, cls, 2, values, 3);
}

// `_span` over Python integers, exactly as the arithmetic reads.
Ref span_of_objects(const Call& call, PyObject* start, PyObject* new_count, PyObject* old_count) {
    PyObject* cls = call.lookup(LineSpan);
    Ref zero = check(PyLong_FromLong(0)), one = check(PyLong_FromLong(1));
    int removes_only = PyObject_RichCompareBool(new_count, zero.get(), Py_EQ);
    check(removes_only);
    if (removes_only) {
        int above = PyObject_RichCompareBool(start, one.get(), Py_GE);
        check(above);
        PyObject* line = above ? start : one.get();
        return span_record(call, cls, line, line, false);
    }
    Ref sum = check(PyNumber_Add(start, new_count));
    Ref end = check(PyNumber_Subtract(sum.get(), one.get()));
    int added = PyObject_RichCompareBool(old_count, zero.get(), Py_EQ);
    check(added);
    return span_record(call, cls, start, end.get(), added);
}

// `_patch_path` with `_unquote` reached through the namespace.
Ref patch_path_of(const Call& call, PyObject* text) {
    std::string scratch;
    std::string_view t = utf8_view(text, scratch);
    if (!t.empty() && t.back() == '\t') t.remove_suffix(1);
    if (t == "/dev/null") return Ref::borrow(Py_None);
    if (t.size() >= 2 && t.front() == '"' && t.back() == '"') {
        Ref inner = str_from_utf8(t.substr(1, t.size() - 2));
        if (call.is_own(_unquote)) return impl_unquote_text(call, inner.get());
        return check(PyObject_CallOneArg(call.lookup(_unquote), inner.get()));
    }
    if (t.size() == static_cast<std::size_t>(PyUnicode_GET_LENGTH(text)) && scratch.empty() &&
        PyUnicode_IS_ASCII(text))
        return Ref::borrow(text);
    return str_from_utf8(t);
}

// Whether `_C_ESCAPE` and `_C_ESCAPES` are the module's own, unedited: then
// the core's unquoting applies.
bool own_escapes(const Call& call) {
    if (!call.is_own(_C_ESCAPE) || !call.is_own(_C_ESCAPES)) return false;
    PyObject* table = call.st->own[_C_ESCAPES];
    static const char* const kLetters[] = {"a", "b", "f", "n", "r", "t", "v"};
    static const char kChars[] = {'\a', '\b', '\f', '\n', '\r', '\t', '\v'};
    if (PyDict_GET_SIZE(table) != 7) return false;
    for (int i = 0; i < 7; ++i) {
        PyObject* v = PyDict_GetItemString(table, kLetters[i]);
        if (!v || !PyUnicode_Check(v) || PyUnicode_GET_LENGTH(v) != 1 ||
            PyUnicode_READ_CHAR(v, 0) != static_cast<Py_UCS4>(kChars[i]))
            return false;
    }
    return true;
}

// Unquoting with the host's pattern or escape table, as the algorithm reads:
// bytes gathered per match, then decoded as UTF-8 with replacement.
Ref unquote_through_namespace(const Call& call, PyObject* text) {
    Ref data = check(PyByteArray_FromStringAndSize(nullptr, 0));
    Ref matches = check(PyObject_CallMethod(call.lookup(_C_ESCAPE), "finditer", "O", text));
    Ref iter = check(PyObject_GetIter(matches.get()));
    PyObject* table = call.lookup(_C_ESCAPES);
    Py_ssize_t position = 0;
    auto append_text = [&](Py_ssize_t from, Py_ssize_t to) {
        Ref piece = check(PyUnicode_Substring(text, from, to));
        Ref bytes = check(PyUnicode_AsUTF8String(piece.get()));
        Ref grown = check(PySequence_InPlaceConcat(data.get(), bytes.get()));
    };
    while (PyObject* raw = PyIter_Next(iter.get())) {
        Ref m(raw);
        Ref start = check(PyObject_CallMethod(m.get(), "start", nullptr));
        Ref end = check(PyObject_CallMethod(m.get(), "end", nullptr));
        Ref code = check(PyObject_CallMethod(m.get(), "group", "i", 1));
        append_text(position, PyLong_AsSsize_t(start.get()));
        if (PyUnicode_Check(code.get()) && PyUnicode_GET_LENGTH(code.get()) == 3) {
            Ref value = check(PyLong_FromUnicodeObject(code.get(), 8));
            long byte = PyLong_AsLong(value.get());
            if (byte < 0 || byte > 255) {
                PyErr_Format(PyExc_ValueError, "octal escape \\%U is above \\377", code.get());
                throw PyErrSet{};
            }
            char b = static_cast<char>(byte);
            Ref one = check(PyBytes_FromStringAndSize(&b, 1));
            Ref grown = check(PySequence_InPlaceConcat(data.get(), one.get()));
        } else {
            Ref mapped = check(PyObject_CallMethod(table, "get", "OO", code.get(), code.get()));
            Ref bytes = check(PyUnicode_AsUTF8String(mapped.get()));
            Ref grown = check(PySequence_InPlaceConcat(data.get(), bytes.get()));
        }
        position = PyLong_AsSsize_t(end.get());
    }
    if (PyErr_Occurred()) throw PyErrSet{};
    append_text(position, PyUnicode_GET_LENGTH(text));
    std::string decoded;
    append_utf8_replacing(decoded, std::string_view(PyByteArray_AS_STRING(data.get()),
                                                    static_cast<std::size_t>(PyByteArray_GET_SIZE(data.get()))));
    return str_from_utf8(decoded);
}

}  // namespace

Ref impl_unquote_text(const Call& call, PyObject* text) {
    if (!own_escapes(call)) return unquote_through_namespace(call, text);
    std::string scratch;
    std::string_view t = utf8_view(text, scratch);
    if (t.find('\\') == std::string_view::npos) return Ref::borrow(text);
    return str_from_utf8(unquote(t));
}

Ref impl_parse_file_changes(const Call& call, PyObject* const* a) {
    require_str(a[0], "parse_file_changes", "output");
    if (!call.is_own(_file_changes)) return call_file_changes(call, split_tokens(a[0]).get());
    std::string scratch;
    std::string_view text = utf8_view(a[0], scratch);
    return file_changes_of_tokens(call, split_nul(text), text.size(), PyUnicode_IS_ASCII(a[0]));
}

Ref impl_file_changes(const Call& call, PyObject* const* a) {
    // A tuple of its own keeps every token alive while the views into them
    // are read (the host's status table runs its code in between).
    Ref fast = check(PySequence_Fast(a[0], "_file_changes() argument 'tokens' must be a sequence of str"));
    Ref seq = check(PySequence_Tuple(fast.get()));
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.get());
    std::vector<std::string_view> tokens;
    // A deque keeps its strings in place as it grows: a short string holds its
    // bytes inside the object, so a vector moving it would leave the earlier
    // views dangling.
    std::deque<std::string> scratch(1);
    tokens.reserve(static_cast<std::size_t>(n));
    std::size_t bytes = 0;
    bool ascii = true;
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PySequence_Fast_GET_ITEM(seq.get(), i);
        require_str(item, "_file_changes", "tokens");
        ascii = ascii && PyUnicode_IS_ASCII(item);
        std::string& s = scratch.back();
        std::string_view v = utf8_view(item, s);
        if (!s.empty()) scratch.emplace_back();  // keep that buffer alive
        tokens.push_back(v);
        bytes += v.size();
    }
    return file_changes_of_tokens(call, tokens, bytes, ascii);
}

Ref impl_line_count(const Call&, PyObject* const* a) {
    require_str(a[0], "_line_count", "field");
    std::string scratch;
    return Builder::number(line_count(utf8_view(a[0], scratch)));
}

Ref impl_parse_commit_changes(const Call& call, PyObject* const* a) {
    require_str(a[0], "parse_commit_changes", "output");
    if (!call.is_own(_file_changes) || !call.is_own(_COMMIT_START)) return commit_changes_through_host(call, a[0]);
    std::string scratch;
    return commit_changes_of_text(call, utf8_view(a[0], scratch), PyUnicode_IS_ASCII(a[0]));
}

Ref commit_changes_from_output(const Call& call, std::string_view output) {
    if (!call.is_own(parse_commit_changes) || !call.is_own(_file_changes) || !call.is_own(_COMMIT_START)) {
        Ref text = str_from_utf8(output);
        if (!call.is_own(parse_commit_changes))
            return check(PyObject_CallOneArg(call.lookup(parse_commit_changes), text.get()));
        return commit_changes_through_host(call, text.get());
    }
    return commit_changes_of_text(call, output, is_ascii(output));
}

Ref commit_changes_of_text(const Call& call, std::string_view text, bool ascii) {
    TwoPath two_path(call);
    auto predicate = two_path.predicate();
    CommitLogScan log;
    scan(two_path.native && text.size() >= kReleaseThreshold, [&] { log = commit_change_views(text, predicate); });
    Builder builder(call, ascii, log.distinct_paths);
    GcPause pause;
    PyObject* commit_cls = call.lookup(CommitChanges);
    Ref list = check(PyList_New(static_cast<Py_ssize_t>(log.commits.size())));
    Py_ssize_t done = 0;
    for (const CommitView& c : log.commits) {
        Ref timestamp;
        if (c.valid && c.timestamp.fits) {
            timestamp = Builder::number(c.timestamp);
        } else {
            // Python's int() gives the value of a big stamp, and the error of a bad one.
            Ref stamp = str_from_utf8(c.stamp);
            timestamp = check(PyLong_FromUnicodeObject(stamp.get(), 10));
        }
        Ref files = check(PyTuple_New(static_cast<Py_ssize_t>(c.file_count)));
        Py_ssize_t i = 0;
        for (const FileChangeView& f : log.files_of(c)) PyTuple_SET_ITEM(files.get(), i++, builder.file_change(f).release());
        PyObject* values[2] = {timestamp.get(), files.get()};
        PyList_SET_ITEM(list.get(), done++, new_record(call, commit_cls, 1, values, 2).release());
    }
    return list;
}

namespace {
// Reads a group of a hunk-header match as int(), or `absent` when unmatched.
Ref match_number(PyObject* m, int group, long absent) {
    Ref g = check(PyObject_CallMethod(m, "group", "i", group));
    if (g.get() == Py_None) return check(PyLong_FromLong(absent));
    return check(PyLong_FromUnicodeObject(g.get(), 10));
}

long long clamp(PyObject* n) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(n, &overflow);
    if (v == -1 && PyErr_Occurred()) throw PyErrSet{};
    return overflow > 0 ? LLONG_MAX : overflow < 0 ? LLONG_MIN : v;
}

// The patch read line by line with the hunk-header pattern the namespace
// holds now (the host replaced it).
Ref line_spans_through_namespace(const Call& call, std::string_view text) {
    PyObject* pattern = call.lookup(_HUNK_HEADER);
    Ref result = check(PyDict_New());
    Ref path = Ref::borrow(Py_None);
    long long old_left = 0, new_left = 0;
    std::size_t pos = 0;
    for (;;) {
        std::size_t end = text.find('\n', pos);
        std::string_view line = text.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos);
        if (old_left > 0 || new_left > 0) {
            char c = line.empty() ? '\0' : line[0];
            if (c == '-') --old_left;
            else if (c == '+') --new_left;
            else if (c == ' ') --old_left, --new_left;
        } else if (line.substr(0, 4) == "+++ ") {
            Ref rest = str_from_utf8(line.substr(4));
            path = call.is_own(_patch_path) ? patch_path_of(call, rest.get())
                                            : check(PyObject_CallOneArg(call.lookup(_patch_path), rest.get()));
        } else {
            Ref line_obj = str_from_utf8(line);
            Ref m = check(PyObject_CallMethod(pattern, "match", "O", line_obj.get()));
            if (m.get() != Py_None) {
                Ref old_count = match_number(m.get(), 1, 1), start = match_number(m.get(), 2, 1),
                    new_count = match_number(m.get(), 3, 1);
                old_left = clamp(old_count.get());
                new_left = clamp(new_count.get());
                if (path.get() != Py_None) {
                    Ref span = call.is_own(_span) ? span_of_objects(call, start.get(), new_count.get(), old_count.get())
                                                  : check(PyObject_CallFunctionObjArgs(call.lookup(_span), start.get(),
                                                                                       new_count.get(), old_count.get(), nullptr));
                    PyObject* list = PyDict_GetItemWithError(result.get(), path.get());
                    if (!list) {
                        if (PyErr_Occurred()) throw PyErrSet{};
                        Ref fresh = check(PyList_New(0));
                        check(PyDict_SetItem(result.get(), path.get(), fresh.get()));
                        list = fresh.get();
                    }
                    check(PyList_Append(list, span.get()));
                }
            }
        }
        if (end == std::string_view::npos) break;
        pos = end + 1;
    }
    return result;
}
}  // namespace

Ref line_spans_of_text(const Call& call, std::string_view text) {
    if (!call.is_own(_HUNK_HEADER)) return line_spans_through_namespace(call, text);
    PatchScan patch;
    scan(text.size() >= kReleaseThreshold, [&] { patch = scan_patch(text); });
    const bool own_span = call.is_own(_span);
    const bool own_patch_path = call.is_own(_patch_path) && call.is_own(_unquote) && own_escapes(call);
    PyObject* line_span_cls = call.lookup(LineSpan);

    // Every "+++ " name is read, in order, whether or not hunks follow it.
    std::vector<Ref> paths;
    paths.reserve(patch.plus_lines.size());
    for (std::string_view line : patch.plus_lines) {
        if (own_patch_path) {
            std::optional<std::string> p = patch_path(line);
            paths.push_back(p ? str_from_utf8(*p) : Ref::borrow(Py_None));
        } else {
            Ref text_obj = str_from_utf8(line);
            if (call.is_own(_patch_path))
                paths.push_back(patch_path_of(call, text_obj.get()));
            else
                paths.push_back(check(PyObject_CallOneArg(call.lookup(_patch_path), text_obj.get())));
        }
    }

    Ref result = check(PyDict_New());
    GcPause pause;
    PyObject* last_path = nullptr;
    PyObject* last_list = nullptr;
    for (const HunkView& h : patch.hunks) {
        if (h.path_index == NO_PATH) continue;
        PyObject* path = paths[h.path_index].get();
        if (path == Py_None) continue;
        Ref span;
        if (own_span && h.start.fits && h.new_count.fits && h.old_count.fits &&
            h.start.value < (INT64_MAX >> 1) && h.new_count.value < (INT64_MAX >> 1)) {
            git_utils::LineSpan s = git_utils::span(h.start.value, h.new_count.value, h.old_count.value);
            Ref start = check(PyLong_FromLongLong(s.start));
            Ref end = s.end == s.start ? start : check(PyLong_FromLongLong(s.end));
            span = span_record(call, line_span_cls, start.get(), end.get(), s.added);
        } else {
            Ref start = Builder::number(h.start), new_count = Builder::number(h.new_count),
                old_count = Builder::number(h.old_count);
            if (own_span)
                span = span_of_objects(call, start.get(), new_count.get(), old_count.get());
            else
                span = check(PyObject_CallFunctionObjArgs(call.lookup(_span), start.get(), new_count.get(),
                                                          old_count.get(), nullptr));
        }
        if (path != last_path) {
            last_list = PyDict_GetItemWithError(result.get(), path);
            if (!last_list) {
                if (PyErr_Occurred()) throw PyErrSet{};
                Ref fresh = check(PyList_New(0));
                check(PyDict_SetItem(result.get(), path, fresh.get()));
                last_list = fresh.get();
            }
            last_path = path;
        }
        check(PyList_Append(last_list, span.get()));
    }
    return result;
}

Ref impl_parse_line_spans(const Call& call, PyObject* const* a) {
    require_str(a[0], "parse_line_spans", "patch");
    std::string scratch;
    return line_spans_of_text(call, utf8_view(a[0], scratch));
}

Ref impl_span(const Call& call, PyObject* const* a) { return span_of_objects(call, a[0], a[1], a[2]); }

Ref impl_patch_path(const Call& call, PyObject* const* a) {
    require_str(a[0], "_patch_path", "text");
    return patch_path_of(call, a[0]);
}

Ref impl_unquote(const Call& call, PyObject* const* a) {
    require_str(a[0], "_unquote", "text");
    return impl_unquote_text(call, a[0]);
}

// Used by the queries: records from git output already in UTF-8.
Ref file_changes_from_output(const Call& call, std::string_view output) {
    if (!call.is_own(parse_file_changes)) {
        Ref text = str_from_utf8(output);
        return check(PyObject_CallOneArg(call.lookup(parse_file_changes), text.get()));
    }
    if (!call.is_own(_file_changes)) {
        Ref text = str_from_utf8(output);
        return call_file_changes(call, split_tokens(text.get()).get());
    }
    return file_changes_of_tokens(call, split_nul(output), output.size(), is_ascii(output));
}

}  // namespace git_utils::binding
