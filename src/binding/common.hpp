// Shared pieces of the extension module: owned references, the module state,
// call-time name lookup, and the table that describes every bound function.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <string>
#include <string_view>
#include <vector>

#include "utils/git_utils.hpp"

namespace git_utils::binding {

// An owned (strong) reference.
class Ref {
public:
    Ref() = default;
    explicit Ref(PyObject* o) : o_(o) {}  // steals
    static Ref borrow(PyObject* o) {
        Py_XINCREF(o);
        return Ref(o);
    }
    Ref(const Ref& other) : o_(other.o_) { Py_XINCREF(o_); }
    Ref(Ref&& other) noexcept : o_(other.o_) { other.o_ = nullptr; }
    Ref& operator=(Ref other) noexcept {
        std::swap(o_, other.o_);
        return *this;
    }
    ~Ref() { Py_XDECREF(o_); }
    PyObject* get() const { return o_; }
    PyObject* release() {
        PyObject* o = o_;
        o_ = nullptr;
        return o;
    }
    explicit operator bool() const { return o_ != nullptr; }

private:
    PyObject* o_ = nullptr;
};

// Thrown through C++ frames when a Python exception is already set.
struct PyErrSet {};

// Throws PyErrSet when `o` is null (a Python error is set); returns it owned.
inline Ref check(PyObject* o) {
    if (!o) throw PyErrSet{};
    return Ref(o);
}
inline void check(int rc) {
    if (rc < 0) throw PyErrSet{};
}

// Names the library looks up in its own namespace at each call.
enum Name : int {
#define GIT_UTILS_NAME(id) id,
#include "names.inc"
#undef GIT_UTILS_NAME
    NAME_COUNT
};

struct FunctionDef;

// Per-module state: the module's own objects (to recognise them in the
// namespace) and interned strings.
struct State {
    PyObject* own[NAME_COUNT];       // what loading bound under each name (strong refs)
    PyObject* names[NAME_COUNT];     // interned name strings
    PyTypeObject* function_type;     // type of the bound operations
    PyObject* empty_tuple;
    PyObject* timed_out_triple;      // ("", "Command timed out", 1)
    PyObject* not_found_triple;      // ("", "git not found", 1)
    PyObject* str_debug;
    PyObject* str_warning;
    PyObject* str_strip;
    PyObject* field_names[3][5];     // FileChange, CommitChanges, LineSpan field names
    PyObject* datetime_type;         // datetime.datetime as imported
    PyObject* msg_failed;            // log message texts
    PyObject* msg_timed_out;
    PyObject* msg_not_found;
    PyObject* msg_shortlog_failed;
};

State* state_of(PyObject* module);

// The running call: its module, state and namespace.
struct Call {
    PyObject* module;
    State* st;
    PyObject* ns;  // the module's __dict__ (borrowed)

    // The object bound under `name` now (borrowed); NameError when missing.
    PyObject* lookup(Name name) const;
    // Whether `name` still holds what loading bound there.
    bool is_own(Name name) const { return lookup(name) == st->own[name]; }
};

// Signature of a bound operation's implementation: the arguments arrive in
// parameter order, defaults filled in. Returns a new reference or throws.
using Impl = Ref (*)(const Call& call, PyObject* const* args);

enum class Default { None_, Required, True_, Int30, Str30d, EmptyTuple, StrMR };

struct ParamDef {
    const char* name;
    const char* annotation;  // a type expression, evaluated at load
    Default dflt;
    bool keyword_only;
};

struct FunctionDef {
    Name name;
    const char* doc;
    Impl impl;
    std::vector<ParamDef> params;
    const char* returns;
};

// Every bound function, in load order.
const std::vector<FunctionDef>& function_defs();

// Evaluates a type expression such as "list[dict[str, Any]]" or "Path | None"
// against the namespace and builtins.
Ref eval_type(PyObject* ns, const char* expr);

// Creates the function type for a module (PyType_FromModuleAndSpec).
PyTypeObject* make_function_type(PyObject* module);
// Creates one bound operation.
Ref make_function(PyObject* module, const FunctionDef& def);

// Records: creation of the dataclasses at load, and fast instances.
Ref make_record_class(const Call& call, int which);  // 0 FileChange, 1 CommitChanges, 2 LineSpan
// Builds an instance of `cls` from `values` (owned refs, moved in) without
// running a Python __init__, as dataclass's own __init__ would leave it.
Ref new_record(const Call& call, PyObject* cls, int which, PyObject* const* values, int count);

// Conversions.
Ref str_from_utf8(std::string_view text);           // well-formed UTF-8 (or surrogates passed through)
std::string utf8_of(PyObject* text);                // a str as UTF-8 (lone surrogates kept as 3 bytes)
std::string_view utf8_view(PyObject* text, std::string& scratch);  // fast when possible
std::string fs_bytes(PyObject* arg, const char* what);  // os.fsencode rules; ValueError on NUL
std::string repo_root_text(PyObject* repo_root);    // str(repo_root), encoded for the OS
Ref strip_str(PyObject* text);                      // text.strip()

// Logging through the namespace's `logger`.
void log(const Call& call, PyObject* method, PyObject* message, std::initializer_list<PyObject*> args);

// Translates a C++ exception escaping an implementation into a Python error.
void set_python_error(const Call& call);

// The runner, for the other operations.
struct NativeRun {
    RunStatus status;
    std::string out, err;  // decoded
    int returncode;
};
// Runs git natively (GIL released), logs as the runner does; throws PyErrSet.
NativeRun run_native(const Call& call, PyObject* repo_root, PyObject* args, PyObject* timeout,
                     StdinMode stdin_mode = StdinMode::Inherit);
// `_git_output` semantics through the namespace: the stdout text, or raises
// GitError (PyErrSet).
Ref git_output(const Call& call, PyObject* repo_root, PyObject* args);
// The same, as UTF-8 for the native parsers.
std::string git_output_text(const Call& call, PyObject* repo_root, PyObject* args);
// `run_git_command` through the namespace: a result triple (new reference).
Ref run_git(const Call& call, PyObject* repo_root, PyObject* args, StdinMode stdin_mode = StdinMode::Inherit);
// A list of str from C++ strings.
Ref str_list(const std::vector<std::string>& items);
// Raises the namespace's GitError with `message`.
[[noreturn]] void raise_git_error(const Call& call, PyObject* message);

// Implementations, by family (one file each).
Ref impl_run_git_command(const Call&, PyObject* const*);
Ref impl_git_output(const Call&, PyObject* const*);
Ref impl_parse_file_changes(const Call&, PyObject* const*);
Ref impl_parse_commit_changes(const Call&, PyObject* const*);
Ref impl_parse_line_spans(const Call&, PyObject* const*);
Ref impl_span(const Call&, PyObject* const*);
Ref impl_file_changes(const Call&, PyObject* const*);
Ref impl_line_count(const Call&, PyObject* const*);
Ref impl_patch_path(const Call&, PyObject* const*);
Ref impl_unquote(const Call&, PyObject* const*);
Ref impl_unquote_text(const Call& call, PyObject* text);
// Parsing of git output (UTF-8) for the queries, through the namespace.
Ref file_changes_from_output(const Call& call, std::string_view output);
Ref line_spans_of_text(const Call& call, std::string_view text);
Ref commit_changes_from_output(const Call& call, std::string_view output);
Ref commit_changes_of_text(const Call& call, std::string_view text, bool ascii);
Ref impl_find_git_root(const Call&, PyObject* const*);
Ref impl_find_repo_root(const Call&, PyObject* const*);
Ref impl_resolve_display_branch(const Call&, PyObject* const*);
Ref impl_normalize_branch_name(const Call&, PyObject* const*);
Ref impl_parse_time_spec(const Call&, PyObject* const*);
Ref impl_get_head_commit(const Call&, PyObject* const*);
Ref impl_get_default_branch(const Call&, PyObject* const*);
Ref impl_branch_exists(const Call&, PyObject* const*);
Ref impl_get_authors_for_period(const Call&, PyObject* const*);
Ref impl_resolve_commit(const Call&, PyObject* const*);
Ref impl_count_commits(const Call&, PyObject* const*);
Ref impl_commit_before(const Call&, PyObject* const*);
Ref impl_diff_file_changes(const Call&, PyObject* const*);
Ref impl_log_commit_changes(const Call&, PyObject* const*);
Ref impl_diff_line_spans(const Call&, PyObject* const*);
Ref impl_path_batches(const Call&, PyObject* const*);

}  // namespace git_utils::binding
