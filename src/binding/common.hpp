// Shared pieces of the extension module `git_utils`.
//
// The binding translates; the core decides. Every algorithm (the runner's,
// the parsers', the queries' with their fallbacks and batching, the reading
// of since values) is a template of the core (src/core/*.hpp). The binding
// converts arguments, instantiates those templates with steps that are
// either native or call what the host bound under the step's name in the
// module namespace, converts the results and words Python's errors.
//
// Ownership rule. Every object taken from the module namespace, from host
// code, or from an argument's protocol method (__fspath__, __index__,
// __len__, ...) is held as an owned reference (`Ref`) for as long as it is
// used. No borrowed pointer, C string or string_view into such an object
// survives anything that can run Python code: a call, a comparison, a hash,
// a `__fspath__`, an allocation that may start the garbage collector (and so
// a finaliser). Host code can rebind any name at any moment, from any
// thread. A view into a `str` is safe only while a `Ref` to that str is held.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "compat.hpp"
#include "src/core/runner.hpp"
#include "src/core/text.hpp"
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
inline int check(int rc) {
    if (rc < 0) throw PyErrSet{};
    return rc;
}

// Sets a TypeError (or another error class) and throws.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

// Names the library binds and looks up in its own namespace at each call,
// in load order (operations.inc).
enum Name : int {
#define NAME(id) id,
#define OPERATION(id, returns, doc, params) id,
#include "operations.inc"
#undef NAME
#undef OPERATION
    NAME_COUNT
};

// Per-module state: the module's own objects (to recognise them in the
// namespace) and strings made once.
struct State {
    PyObject* own[NAME_COUNT];       // what loading bound under each name (strong refs)
    PyObject* names[NAME_COUNT];     // interned name strings
    unsigned int record_tags[3];     // type version tags of the record classes as made
    PyTypeObject* function_type;     // type of the bound operations
    PyObject* empty_tuple;
    PyObject* timed_out_triple;      // ("", "Command timed out", 1)
    PyObject* not_found_triple;      // ("", "git not found", 1)
    PyObject* field_names[3][5];     // FileChange, CommitChanges, LineSpan field names
    PyObject* datetime_type;         // datetime.datetime as imported (for reading moments)
    PyObject* modified;              // "modified", the default status
};

State* state_of(PyObject* module);

// The running call: its module, state and namespace.
struct Call {
    PyObject* module;  // kept alive by the function object being called
    State* st;
    PyObject* ns;      // the module's __dict__ (it cannot be replaced)

    // The object bound under `name` now, owned; NameError when missing.
    Ref get(Name name) const;
    // Whether `obj` is what loading bound under `name`.
    bool is_own(Name name, const Ref& obj) const { return obj.get() == st->own[name]; }
    bool is_own(Name name) const { return is_own(name, get(name)); }
};

// --- conversions (convert.cpp) ----------------------------------------------

Ref str_from_utf8(std::string_view text);    // well-formed UTF-8, or lone surrogates passed through
Ref ascii_str(std::string_view text);         // text known to be ASCII
// The UTF-8 of a str. The view points into the str's own cache, or into
// `scratch` when it holds lone surrogates; hold the str while it is used.
std::string_view utf8_view(PyObject* str, std::string& scratch);
std::string utf8_of(PyObject* str);
// An argument as its errors name it: "<function>() argument '<parameter>'".
// Args<op> gives each parameter with the names of the table
// (operations.inc); a value that is no parameter (what host code returned)
// is named by a constant beside the code that reads it.
struct ArgName {
    const char* function;
    const char* parameter;
};
struct Param {
    PyObject* value;
    ArgName name;
    operator PyObject*() const { return value; }  // NOLINT(google-explicit-constructor)
};
// TypeError: "<function>() argument '<parameter>' must <must>, not <type>".
[[noreturn]] void wrong_type(const Param& arg, const char* must);
// The argument must be a str; its UTF-8.
inline void require_str(const Param& arg) {
    if (!PyUnicode_Check(arg.value)) wrong_type(arg, "be str");
}
inline std::string str_argument(const Param& arg) {
    require_str(arg);
    return utf8_of(arg.value);
}
// A list (any sequence, not str or bytes) of str, as UTF-8 strings;
// `paths_too` also takes bytes and os.PathLike items, as process arguments.
std::vector<std::string> str_list_argument(const Param& arg, bool paths_too = false);
// A list of str from UTF-8 strings.
Ref str_list(const std::vector<std::string>& items);
// An Integer as a Python int: the one conversion of the core's numbers. The
// digits of one beyond 64 bits are converted with no limit on their count
// (Python's limit on long digit strings guards against a cost this avoids).
Ref int_object_unfit(const Integer& i);
inline Ref int_object(const Integer& i) { return i.fits() ? check(PyLong_FromLongLong(i.value)) : int_object_unfit(i); }
// The text form of `repo_root` (str() of it) for the process's working
// directory, in the operating system's encoding.
std::string repo_root_text(PyObject* repo_root);
// A str in the operating system's encoding, as os.fsencode gives it (the
// interpreter's own encoder); ValueError naming `what` for an embedded NUL.
std::string fs_bytes(PyObject* str, const char* what);
// A datetime as the moment it names, read through datetime's own fields.
Moment moment_argument(const Call& call, const Param& arg);
// A Path of the namespace from a path in the operating system's encoding.
Ref path_object(const Call& call, const std::string& os_path);

// An attribute, and a method called with positional arguments (through
// call_python_method), by name. The name is interned: CPython's type
// attribute cache keeps the name object of every lookup, and a fresh name on
// each call would pile up there.
Ref attr(PyObject* obj, const char* name);
Ref call_method(PyObject* obj, const char* name, std::initializer_list<PyObject*> args = {});
// An int object for small arguments (match.group(1)).
Ref small_int(long value);

// --- logging and errors (module.cpp) -----------------------------------------

// logger.<level>(message, *args) through the namespace's `logger`.
void log(const Call& call, const char* level, const char* message, std::initializer_list<PyObject*> args);

// Translates a C++ exception escaping an implementation into a Python error.
void set_python_error(const Call& call) noexcept;

// --- the bound operations (operations.inc, operations.cpp) ------------------

// A parameter's default: none (the argument is required) or a value made at
// load from one of the core's constants.
struct Default {
    enum Kind : unsigned char { Required, None, True, Number, Text, EmptyTuple } kind;
    long long number = 0;
    std::string_view text = {};
};
inline constexpr Default required{Default::Required};
namespace dflt {
inline constexpr Default none{Default::None};
inline constexpr Default yes{Default::True};
inline constexpr Default empty{Default::EmptyTuple};
constexpr Default number(double value) { return {Default::Number, static_cast<long long>(value)}; }
constexpr Default text(std::string_view value) { return {Default::Text, 0, value}; }
}  // namespace dflt

struct ParamDef {
    const char* name;
    const char* annotation;  // a type expression, evaluated at load
    Default dflt;
    bool keyword_only;
};

// Runs an operation on its arguments, in parameter order with the defaults
// filled in: they become the operation's Args struct. Returns a new
// reference or throws.
using Impl = Ref (*)(const Call& call, PyObject* const* args);

struct FunctionDef {
    Name name;
    const char* doc;
    Impl impl;
    std::vector<ParamDef> params;
    const char* returns;
};

// Every bound function, in load order.
const std::vector<FunctionDef>& function_defs();

// The arguments of each operation, read by parameter name (args.repo_root())
// from the parsed argument array, in parameter order with the defaults filled
// in; borrowed from the caller for the call. Each comes as a Param named
// after the operation and the parameter, so that no error spells them by
// hand. Args holds only the array, so the step from the function table to
// the implementation costs a jump. Fields<op> numbers the parameters,
// Args<op> reads them; impl(call, args) is the implementation (one file per
// family).
template <Name N>
struct Fields;
template <Name N>
struct Args;
#define NAME(id)
#define PARAM(name, annotation, dflt) name,
#define KWONLY PARAM
#define PARAM_AS(field, name, annotation, dflt) field,
#define OPERATION(id, returns, doc, params) \
    template <>                              \
    struct Fields<id> {                      \
        enum Index : int { params };         \
    };
#include "operations.inc"
#undef PARAM
#undef PARAM_AS
#define PARAM_AS(field, name, annotation, dflt) \
    Param field() const { return {values[F::field], {function, #name}}; }
#define PARAM(name, annotation, dflt) PARAM_AS(name, name, annotation, dflt)
#undef OPERATION
#define OPERATION(id, returns, doc, params)         \
    template <>                                      \
    struct Args<id> {                                \
        using F = Fields<id>;                        \
        static constexpr const char* function = #id; \
        PyObject* const* values;                     \
        params                                       \
    };                                               \
    Ref impl(const Call& call, Args<id> args);
#include "operations.inc"
#undef NAME
#undef PARAM
#undef KWONLY
#undef PARAM_AS
#undef OPERATION

// Evaluates a type expression such as "list[dict[str, Any]]" or "Path | None"
// against the namespace and builtins.
Ref eval_type(PyObject* ns, const char* expr);

// Creates the function type for a module (PyType_FromModuleAndSpec).
PyTypeObject* make_function_type(PyObject* module);
// Creates one bound operation.
Ref make_function(PyObject* module, const FunctionDef& def);

// --- records (records.cpp) ----------------------------------------------------

enum Record : int { FILE_CHANGE = 0, COMMIT_CHANGES = 1, LINE_SPAN = 2 };

// Creates a record class at load (0 FileChange, 1 CommitChanges, 2 LineSpan).
Ref make_record_class(const Call& call, Record which);

// Builds records of the class bound under the record's name at the start of
// a call. While that is the class loading made, unchanged since, an
// instance is made as its dataclass __init__ would leave it without running
// any Python code; otherwise the class is called.
class RecordMaker {
public:
    RecordMaker(const Call& call, Record which);
    // No Python code runs while this maker builds a record.
    bool sealed() const { return sealed_; }
    // `values` are the fields in order, owned by the caller.
    Ref make(PyObject* const* values, int count) const;

private:
    const Call& call_;
    Record which_;
    Ref cls_;
    bool sealed_;
};

// A list or tuple made one item at a time, so that no list or tuple with
// empty slots is ever visible to other code: while Python code may run
// between two items, the items are kept until they all exist; while none can
// (`sealed`), they go straight into a sequence made beforehand with `size`
// slots, which nobody else can reach yet. Without a GIL other threads run
// Python code meanwhile, and gc.get_objects() in one of them reaches every
// tracked list whenever this thread waits on a lock (a type cache miss
// takes one): there the items are always kept until they all exist.
class ListBuilder {
public:
    ListBuilder() = default;
    ListBuilder(bool sealed, bool tuple, std::size_t size);
    void reserve(std::size_t n) { items_.reserve(n); }
    void add(Ref item);
    Ref list();
    Ref tuple();

private:
    std::vector<Ref> items_;
    Ref made_;  // the sequence being filled, when sealed
    Py_ssize_t filled_ = 0;
};

// Pauses the cyclic garbage collector while records are built, when no
// Python code can run in between (so the host cannot change the setting
// meanwhile): the records hold no cycles, and collections triggered by tens
// of thousands of fresh objects would only traverse them. The setting is the
// whole interpreter's: without a GIL other threads run Python code all the
// while, would see it off and could switch it themselves (and have their
// choice undone here), so there the collector is left alone.
class GcPause {
public:
#ifdef Py_GIL_DISABLED
    explicit GcPause(bool) : paused_(false) {}
#else
    explicit GcPause(bool active) : paused_(active && PyGC_Disable()) {}
#endif
    ~GcPause() {
        if (paused_) PyGC_Enable();
    }
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;

private:
    bool paused_;
};

// The interpreter lock given up and taken back (lock.cpp). give_lock_up() is
// PyEval_SaveThread(); take_lock_back(saved) is PyEval_RestoreThread(saved),
// except that a thread that the exiting interpreter would end there never
// returns: parks_at_exit() tells whether it would park now (the interpreter
// is finalising, and this is not the thread that finalises it).
PyThreadState* give_lock_up();
bool parks_at_exit();
void take_lock_back(PyThreadState* saved);

// Every call from the library into Python code, once loaded, goes through
// these (lock.cpp): a thread that the exiting interpreter ends inside the
// call parks there instead of unwinding through our frames. They return what
// the C API call returns (a new reference, or null with an error set).
//   call_python: callable(*args, **kwargs), kwargs a dict or null;
//   call_python_method: args[0].<name>(*args[1:]);
//   apply_python: fn(obj) for a C API function that runs what host code
//     returned (PySequence_Tuple of a generator, PyIter_Next).
PyObject* call_python(PyObject* callable, PyObject* const* args, std::size_t nargs, PyObject* kwargs = nullptr);
PyObject* call_python_method(PyObject* name, PyObject* const* args, std::size_t nargs);
PyObject* apply_python(PyObject* (*fn)(PyObject*), PyObject* obj);

// callable(*args): a new reference, or PyErrSet.
inline Ref invoke(PyObject* callable, std::initializer_list<PyObject*> args, PyObject* kwargs = nullptr) {
    return check(call_python(callable, args.begin(), args.size(), kwargs));
}
// tuple(obj) of what host code returned: iterating it may run host code.
inline Ref host_tuple(PyObject* obj) { return check(apply_python(PySequence_Tuple, obj)); }

// The interpreter lock given up for the life of this object (when `release`
// holds), and taken back through take_lock_back when it ends, also when an
// exception leaves the scope. Nothing in the scope may touch a Python object,
// except inside held().
class LockReleased {
public:
    explicit LockReleased(bool release = true) : saved_(release ? give_lock_up() : nullptr) {}
    ~LockReleased() {
        if (saved_) take_lock_back(saved_);
    }
    LockReleased(const LockReleased&) = delete;
    LockReleased& operator=(const LockReleased&) = delete;
    // Runs `fn` with the lock taken back for a moment (a signal handler that
    // interrupts a wait), then gives it up again.
    template <class F>
    auto held(F&& fn) {
        take_lock_back(saved_);
        struct Again {
            PyThreadState*& saved;
            ~Again() { saved = give_lock_up(); }
        } again{saved_};
        return fn();
    }

private:
    PyThreadState* saved_;
};

// Runs `work` with the interpreter lock released when `release` holds. The
// work must touch no Python object.
template <class F>
void without_gil(bool release, F&& work) {
    LockReleased unlocked(release);
    work();
}

// Inputs smaller than this are scanned with the lock held: releasing it
// costs more than the scan.
inline constexpr std::size_t kReleaseThreshold = 1 << 16;

// --- git's output on its way to a parser -------------------------------------

// UTF-8 from the native runner, or the str a host's `_git_output` returned
// (held, and read as UTF-8 in place).
class Text {
public:
    explicit Text(std::string utf8) : bytes_(std::move(utf8)) {}
    explicit Text(Ref str);
    std::string_view view() const;
    bool ascii() const;
    // The text as a str (made once from the UTF-8 when it came as bytes).
    Ref object();

private:
    std::string bytes_;
    Ref str_;
    bool from_bytes_ = true;
};

// --- entry points shared between files ----------------------------------------

// The runner (run.cpp): one run through the namespace's runner, as the
// lenient and strict queries make it.
struct RunRequest {
    PyObject* repo_root;           // the caller's object, handed to host code as given
    std::vector<std::string> args; // UTF-8
    PyObject* args_object = nullptr;  // the caller's list, when there is one (for host code and the log)
    PyObject* timeout = nullptr;      // the caller's limit; null: the default
    StdinMode stdin_mode = StdinMode::Inherit;
    std::optional<double> seconds = DEFAULT_TIMEOUT;  // the limit as read (no value: none)
};
// `run_git_command` as the namespace holds it now.
RunOutcome run_through_namespace(const Call& call, const RunRequest& request);
// The library's own runner.
RunOutcome run_own(const Call& call, const RunRequest& request);
// The library's own `_git_output`: stdout, or GitError.
std::string checked_own(const Call& call, const RunRequest& request);
// A result triple as a tuple (the fixed triples shared).
Ref triple_of(const Call& call, const RunOutcome& result);

// The parsers (parsers.cpp), as the queries reach them through the namespace.
Ref file_changes_of(const Call& call, Text& text);
Ref commit_changes_of(const Call& call, Text& text);
Ref line_spans_of(const Call& call, Text& text);

// Period starts (timespec.cpp): `parse_time_spec` as the namespace holds it,
// read as a moment.
Moment period_start(const Call& call, std::string_view since);

}  // namespace git_utils::binding
