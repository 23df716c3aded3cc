// The repository operations at the boundary: roots, branch names, period starts
// and the queries. Each builds git's argument list with the core, runs it
// through the namespace's runner or checked wrapper, and reads the answer.
#include <array>
#include <cstring>

#include "common.hpp"

namespace git_utils::binding {
namespace {

void require_str(PyObject* value, const char* func, const char* param) {
    if (!PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s() argument '%s' must be str, not %.100s", func, param, Py_TYPE(value)->tp_name);
        throw PyErrSet{};
    }
}

std::string text_of(PyObject* value, const char* func, const char* param) {
    require_str(value, func, param);
    return utf8_of(value);
}

// A result triple as the namespace's runner gave it.
struct Answer {
    Ref out, err, rc;
    explicit Answer(Ref triple) {
        Ref seq = check(PySequence_Fast(triple.get(), "run_git_command must return a triple"));
        if (PySequence_Fast_GET_SIZE(seq.get()) != 3) {
            PyErr_SetString(PyExc_ValueError, "run_git_command must return (stdout, stderr, returncode)");
            throw PyErrSet{};
        }
        out = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 0));
        err = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 1));
        rc = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 2));
    }
    bool ok() const {
        if (PyLong_CheckExact(rc.get())) return PyLong_AsLong(rc.get()) == 0 && !PyErr_Occurred();
        Ref zero = check(PyLong_FromLong(0));
        int eq = PyObject_RichCompareBool(rc.get(), zero.get(), Py_EQ);
        check(eq);
        return eq == 1;
    }
    // stdout stripped, or None when the run failed or printed nothing.
    Ref stripped_out_or_none() const {
        if (!ok()) return Ref::borrow(Py_None);
        Ref s = strip_str(out.get());
        int empty = PyObject_Not(s.get());
        check(empty);
        return empty ? Ref::borrow(Py_None) : s;
    }
};

Answer run(const Call& call, PyObject* root, const std::vector<std::string>& args,
           StdinMode stdin_mode = StdinMode::Inherit) {
    Ref list = str_list(args);
    return Answer(run_git(call, root, list.get(), stdin_mode));
}

std::string checked(const Call& call, PyObject* root, const std::vector<std::string>& args) {
    Ref list = str_list(args);
    return git_output_text(call, root, list.get());
}

std::string checked(const Call& call, PyObject* root, PyObject* list) { return git_output_text(call, root, list); }

// A moment written for git: "%Y-%m-%d %H:%M:%S", the fraction dropped.
std::string moment_text(const Call& call, PyObject* moment) {
    if (PyObject_TypeCheck(moment, reinterpret_cast<PyTypeObject*>(call.st->datetime_type))) {
        Moment m;
        // Each field through datetime's own descriptor, as strftime reads it:
        // a subclass that redefines `year` cannot hand over something else.
        // The names are interned: the type's attribute cache keeps the name
        // object of each lookup, and fresh ones would pile up there.
        auto field = [&](const char* name) {
            Ref key = check(PyUnicode_InternFromString(name));
            Ref descriptor = check(PyObject_GetAttr(call.st->datetime_type, key.get()));
            descrgetfunc get = Py_TYPE(descriptor.get())->tp_descr_get;
            Ref v = get ? check(get(descriptor.get(), moment, call.st->datetime_type)) : descriptor;
            long value = PyLong_AsLong(v.get());
            if (value == -1 && PyErr_Occurred()) throw PyErrSet{};
            return static_cast<int>(value);
        };
        m.year = field("year");
        m.month = field("month");
        m.day = field("day");
        m.hour = field("hour");
        m.minute = field("minute");
        m.second = field("second");
        return format_moment(m);
    }
    // Any other object that can write itself with strftime.
    Ref text = check(PyObject_CallMethod(moment, "strftime", "s", "%Y-%m-%d %H:%M:%S"));
    return text_of(text.get(), "strftime", "result");
}

Ref path_object(const Call& call, const std::string& fs_path) {
    Ref text = check(PyUnicode_DecodeFSDefault(fs_path.c_str()));
    return check(PyObject_CallOneArg(call.lookup(Path), text.get()));
}

// The ValueError for a malformed since value, worded with the namespace's
// TIME_SPEC_FORMS and Python's repr() of what was passed.
[[noreturn]] void raise_time_spec_error(const Call& call, PyObject* since, bool out_of_calendar, PyObject* cause) {
    Ref quoted = check(PyObject_Repr(since));
    Ref message = out_of_calendar
                      ? check(PyUnicode_FromFormat("since %U reaches outside the calendar", quoted.get()))
                      : check(PyUnicode_FromFormat("since must be %S; got %U", call.lookup(TIME_SPEC_FORMS), quoted.get()));
    Ref error = check(PyObject_CallOneArg(PyExc_ValueError, message.get()));
    if (cause) PyException_SetCause(error.get(), Py_NewRef(cause));
    PyErr_SetObject(PyExc_ValueError, error.get());
    throw PyErrSet{};
}

Moment core_time_spec(const Call& call, PyObject* since, bool iso_only) {
    std::string text = utf8_of(since);
    try {
        return iso_only ? git_utils::parse_iso_time_spec(text) : git_utils::parse_time_spec(text);
    } catch (const TimeSpecError& e) {
        Ref cause;
        // The range failure underneath becomes the error's cause.
        if (e.out_of_calendar()) cause = check(PyObject_CallFunction(PyExc_OverflowError, "s", "date value out of range"));
        raise_time_spec_error(call, since, e.out_of_calendar(), cause.get());
    }
}

// Whether `_SPEC_UNITS` is the module's own table, unedited.
bool own_units(const Call& call) {
    if (!call.is_own(_SPEC_UNITS)) return false;
    PyObject* table = call.st->own[_SPEC_UNITS];
    static const char* const kPairs[][2] = {{"m", "minutes"}, {"h", "hours"}, {"d", "days"}, {"w", "weeks"}};
    if (PyDict_GET_SIZE(table) != 4) return false;
    for (const auto& pair : kPairs) {
        PyObject* v = PyDict_GetItemString(table, pair[0]);
        if (!v || !PyUnicode_Check(v) || PyUnicode_CompareWithASCIIString(v, pair[1]) != 0) return false;
    }
    return true;
}

// The relative form read with the namespace's pattern and unit table (the
// host replaced or edited them): now - timedelta(**{unit: amount}).
Ref relative_through_namespace(const Call& call, PyObject* since) {
    Ref stripped = strip_str(since);
    Ref m = check(PyObject_CallMethod(call.lookup(_RELATIVE_SPEC), "fullmatch", "O", stripped.get()));
    if (m.get() == Py_None) return Ref();
    Ref digits = check(PyObject_CallMethod(m.get(), "group", "i", 1));
    Ref letter = check(PyObject_CallMethod(m.get(), "group", "i", 2));
    Ref amount = check(PyLong_FromUnicodeObject(digits.get(), 10));
    Ref zero = check(PyLong_FromLong(0));
    int positive = PyObject_RichCompareBool(amount.get(), zero.get(), Py_GT);
    check(positive);
    if (!positive) raise_time_spec_error(call, since, false, nullptr);
    Ref unit = check(PyObject_GetItem(call.lookup(_SPEC_UNITS), letter.get()));
    Ref kwargs = check(PyDict_New());
    check(PyDict_SetItem(kwargs.get(), unit.get(), amount.get()));
    Ref now = check(PyObject_CallMethod(call.lookup(datetime), "now", nullptr));
    PyObject* span = PyObject_Call(call.lookup(timedelta), call.st->empty_tuple, kwargs.get());
    PyObject* result = span ? PyNumber_Subtract(now.get(), span) : nullptr;
    Py_XDECREF(span);
    if (result) return Ref(result);
    if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw PyErrSet{};
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    PyErr_NormalizeException(&type, &value, &tb);
    Ref cause(value);
    Py_XDECREF(type);
    Py_XDECREF(tb);
    raise_time_spec_error(call, since, true, cause.get());
}

Ref parse_time_spec_native(const Call& call, PyObject* since) {
    require_str(since, "parse_time_spec", "since");
    bool iso_only = false;
    if (!call.is_own(_RELATIVE_SPEC) || !own_units(call)) {
        if (Ref relative = relative_through_namespace(call, since)) return relative;
        iso_only = true;
    }
    Moment m = core_time_spec(call, since, iso_only);
    return check(PyObject_CallFunction(call.st->datetime_type, "iiiiiii", m.year, m.month, m.day, m.hour, m.minute,
                                       m.second, m.microsecond));
}

Ref call_name(const Call& call, Name name, std::initializer_list<PyObject*> args) {
    PyObject* stack[4];
    std::size_t n = 0;
    for (PyObject* a : args) stack[n++] = a;
    return check(PyObject_Vectorcall(call.lookup(name), stack, n, nullptr));
}

}  // namespace

Ref impl_find_git_root(const Call& call, PyObject* const* a) {
    std::optional<std::string> start;
    if (a[0] != Py_None) {
        Ref path = check(PyOS_FSPath(a[0]));
        Ref bytes;
        if (PyUnicode_Check(path.get())) {
            bytes = Ref(PyUnicode_EncodeFSDefault(path.get()));
            if (!bytes) {  // a name the system cannot represent counts as absent
                PyErr_Clear();
                return Ref::borrow(Py_None);
            }
        } else {
            bytes = path;
        }
        std::string s(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
        if (s.find('\0') != std::string::npos) return Ref::borrow(Py_None);
        start = std::move(s);
    }
    std::optional<std::string> root = git_utils::find_git_root(std::move(start));
    return root ? path_object(call, *root) : Ref::borrow(Py_None);
}

Ref impl_find_repo_root(const Call& call, PyObject* const*) {
    Ref root = call.is_own(find_git_root) ? impl_find_git_root(call, std::array<PyObject*, 1>{Py_None}.data())
                                          : call_name(call, find_git_root, {});
    if (root.get() != Py_None) return root;
    return path_object(call, current_directory());
}

Ref impl_resolve_display_branch(const Call& call, PyObject* const* a) {
    return run(call, a[0], {"branch", "--show-current"}).stripped_out_or_none();
}

Ref impl_normalize_branch_name(const Call&, PyObject* const* a) {
    if (a[0] == Py_None) return Ref::borrow(Py_None);
    std::string name = text_of(a[0], "normalize_branch_name", "name");
    std::optional<std::string> short_name = git_utils::normalize_branch_name(name);
    return short_name ? str_from_utf8(*short_name) : Ref::borrow(Py_None);
}

Ref impl_parse_time_spec(const Call& call, PyObject* const* a) { return parse_time_spec_native(call, a[0]); }

Ref impl_get_head_commit(const Call& call, PyObject* const* a) {
    int short_id = PyObject_IsTrue(a[1]);
    check(short_id);
    return run(call, a[0], args::head_commit(short_id)).stripped_out_or_none();
}

Ref impl_get_default_branch(const Call& call, PyObject* const* a) {
    Answer remote = run(call, a[0], {"symbolic-ref", "refs/remotes/origin/HEAD"});
    if (remote.ok()) {
        Ref target = strip_str(remote.out.get());
        int empty = PyObject_Not(target.get());
        check(empty);
        if (!empty) {
            std::string t = utf8_of(target.get());
            constexpr std::string_view prefix = "refs/remotes/origin/";
            if (t.rfind(prefix, 0) == 0) return str_from_utf8(std::string_view(t).substr(prefix.size()));
            return target;
        }
    }
    if (run(call, a[0], {"rev-parse", "--verify", "main"}).ok()) return check(PyUnicode_FromString("main"));
    if (run(call, a[0], {"rev-parse", "--verify", "master"}).ok()) return check(PyUnicode_FromString("master"));
    return check(PyUnicode_FromString("main"));
}

Ref impl_branch_exists(const Call& call, PyObject* const* a) {
    std::string branch = text_of(a[1], "branch_exists", "branch");
    if (run(call, a[0], {"rev-parse", "--verify", branch}).ok()) return Ref::borrow(Py_True);
    if (branch.rfind("origin/", 0) == 0) return Ref::borrow(Py_False);
    return Ref::borrow(run(call, a[0], {"rev-parse", "--verify", "origin/" + branch}).ok() ? Py_True : Py_False);
}

Ref impl_get_authors_for_period(const Call& call, PyObject* const* a) {
    Ref since = call.is_own(parse_time_spec) ? parse_time_spec_native(call, a[1])
                                             : call_name(call, parse_time_spec, {a[1]});
    // git shortlog summarises HEAD only when its stdin is a terminal; the
    // native runner gives it one, whatever the host's stdin is.
    Answer answer = run(call, a[0], args::authors(moment_text(call, since.get())), StdinMode::Terminal);
    Ref authors = check(PyList_New(0));
    if (!answer.ok()) {
        Ref err = strip_str(answer.err.get());
        log(call, call.st->str_debug, call.st->msg_shortlog_failed, {answer.rc.get(), err.get()});
        return authors;
    }
    std::string out = text_of(answer.out.get(), "get_authors_for_period", "stdout");
    for (const Author& author : parse_shortlog(out)) {
        Ref name = str_from_utf8(author.name), email = str_from_utf8(author.email);
        Ref commits = check(PyLong_FromLongLong(author.commits));
        Ref entry = check(Py_BuildValue("{s:O,s:O,s:O}", "name", name.get(), "email", email.get(), "commits",
                                        commits.get()));
        check(PyList_Append(authors.get(), entry.get()));
    }
    return authors;
}

Ref impl_resolve_commit(const Call& call, PyObject* const* a) {
    std::string name = text_of(a[1], "resolve_commit", "name");
    if (name.empty() || name[0] == '-') return Ref::borrow(Py_None);
    return run(call, a[0], args::resolve_commit(name)).stripped_out_or_none();
}

Ref impl_count_commits(const Call& call, PyObject* const* a) {
    std::string base = text_of(a[1], "count_commits", "base"), head = text_of(a[2], "count_commits", "head");
    std::string out = checked(call, a[0], args::count_commits(base, head));
    std::string_view count = strip(out);
    if (count.empty()) return check(PyLong_FromLong(0));
    Ref text = str_from_utf8(count);
    return check(PyLong_FromUnicodeObject(text.get(), 10));
}

Ref impl_commit_before(const Call& call, PyObject* const* a) {
    std::string ref = text_of(a[1], "commit_before", "ref");
    std::vector<std::string> argv = args::commit_before(moment_text(call, a[2]));
    argv.push_back(ref);
    std::string out = checked(call, a[0], argv);
    std::string_view id = strip(out);
    return id.empty() ? Ref::borrow(Py_None) : str_from_utf8(id);
}

Ref impl_diff_file_changes(const Call& call, PyObject* const* a) {
    std::string base = text_of(a[1], "diff_file_changes", "base"), head = text_of(a[2], "diff_file_changes", "head");
    std::string out = checked(call, a[0], args::diff_file_changes(base, head));
    return file_changes_from_output(call, out);
}

Ref impl_log_commit_changes(const Call& call, PyObject* const* a) {
    Ref max_commits = check(PyObject_Format(a[3], nullptr));
    std::optional<std::string> ref;
    if (a[2] != Py_None) ref = text_of(a[2], "log_commit_changes", "ref");
    std::string out = checked(call, a[0],
                              args::log_commit_changes(moment_text(call, a[1]), utf8_of(max_commits.get()), ref));
    return commit_changes_from_output(call, out);
}

Ref impl_path_batches(const Call& call, PyObject* const* a) {
    Ref budget_obj = Ref::borrow(call.lookup(_MAX_PATHSPEC_CHARS));
    // A tuple of its own: len() of a path runs the host's code, which must
    // not be able to free paths still to be batched.
    Ref fast = check(PySequence_Fast(a[0], "_path_batches() argument 'paths' must be a sequence of str"));
    Ref seq = check(PySequence_Tuple(fast.get()));
    Ref batches = check(PyList_New(0));
    Ref batch = check(PyList_New(0));
    check(PyList_Append(batches.get(), batch.get()));
    // The budget is compared as Python compares numbers, so any number works.
    Ref length = check(PyLong_FromLong(0));
    Ref one = check(PyLong_FromLong(1));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.get()); ++i) {
        PyObject* path = PySequence_Fast_GET_ITEM(seq.get(), i);
        Ref size = check(PyLong_FromSsize_t(PyObject_Length(path)));
        if (PyErr_Occurred()) throw PyErrSet{};
        Ref counted = check(PyNumber_Add(size.get(), one.get()));
        Ref total = check(PyNumber_Add(length.get(), counted.get()));
        int over = PyObject_RichCompareBool(total.get(), budget_obj.get(), Py_GT);
        check(over);
        if (PyList_GET_SIZE(batch.get()) > 0 && over) {
            batch = check(PyList_New(0));
            check(PyList_Append(batches.get(), batch.get()));
            length = check(PyLong_FromLong(0));
            total = counted;
        }
        check(PyList_Append(batch.get(), path));
        length = total;
    }
    return batches;
}

Ref impl_diff_line_spans(const Call& call, PyObject* const* a) {
    std::string base = text_of(a[1], "diff_line_spans", "base"), head = text_of(a[2], "diff_line_spans", "head");
    int merge_base = PyObject_IsTrue(a[3]);
    check(merge_base);
    std::string filter = text_of(a[5], "diff_line_spans", "diff_filter");
    // The base command, with the patch options as the namespace holds them now.
    Ref command = check(PyList_New(0));
    for (const char* s : {"-c", "core.quotepath=off", "--literal-pathspecs", "diff"}) {
        Ref item = check(PyUnicode_FromString(s));
        check(PyList_Append(command.get(), item.get()));
    }
    Ref options = check(PySequence_Fast(call.lookup(_PATCH_OPTIONS), "_PATCH_OPTIONS must be a sequence"));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(options.get()); ++i)
        check(PyList_Append(command.get(), PySequence_Fast_GET_ITEM(options.get(), i)));
    std::vector<std::string> full = args::diff_line_spans(base, head, merge_base, filter);
    auto from = full.begin();
    while (from != full.end() && from->rfind("--diff-filter=", 0) != 0) ++from;
    for (const std::string& s : std::vector<std::string>(from, full.end())) {
        Ref item = str_from_utf8(s);
        check(PyList_Append(command.get(), item.get()));
    }

    int has_paths = PyObject_IsTrue(a[4]);
    check(has_paths);
    Ref batches = !has_paths ? check(Py_BuildValue("[[]]"))
                  : call.is_own(_path_batches) ? impl_path_batches(call, &a[4])
                                               : call_name(call, _path_batches, {a[4]});
    Ref result = check(PyDict_New());
    Ref iter = check(PyObject_GetIter(batches.get()));
    Ref separator = check(PyUnicode_FromString("--"));
    while (PyObject* raw = PyIter_Next(iter.get())) {
        Ref batch(raw);
        Ref cmd = check(PySequence_List(command.get()));
        int nonempty = PyObject_IsTrue(batch.get());
        check(nonempty);
        if (nonempty) {
            check(PyList_Append(cmd.get(), separator.get()));
            Ref extended = check(PySequence_InPlaceConcat(cmd.get(), batch.get()));
        }
        std::string out = checked(call, a[0], cmd.get());
        Ref spans;
        if (call.is_own(parse_line_spans)) {
            spans = line_spans_of_text(call, out);
        } else {
            Ref text = str_from_utf8(out);
            spans = call_name(call, parse_line_spans, {text.get()});
        }
        check(PyDict_Update(result.get(), spans.get()));
    }
    if (PyErr_Occurred()) throw PyErrSet{};
    return result;
}

}  // namespace git_utils::binding
