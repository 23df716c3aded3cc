// The extension module `git_utils`: multi-phase initialisation, the load
// steps in their fixed order, the module state, and the call-time lookup of
// every name in the module namespace.
#include <cstring>

#include "common.hpp"
#include "src/core/changes.hpp"
#include "src/core/queries.hpp"
#include "src/core/spans.hpp"
#include "src/core/timespec.hpp"

namespace git_utils::binding {
namespace {

const char kModuleDoc[] =
    "Git utilities for parsing git log, diff, and related commands.\n"
    "\n"
    "Features:\n"
    "- Period starts (30m, 24h, 7d, 2w or an ISO 8601 date) read as the local moment they name\n"
    "- Diffs and commit logs parsed into file changes (status, line counts, renames) and changed line spans\n"
    "- Default branch detection (origin/HEAD, main, master) and branch existence checks\n"
    "- Author contribution tracking (commit counts per author over a period)\n"
    "\n"
    "Platform notes:\n"
    "- Console windows are hidden on Windows (through the host's process options)\n"
    "- Every git command runs with a default time limit of 30 seconds\n";

const char kGitErrorDoc[] = "A git command failed; the message carries what git said.";

const char* const kNameText[] = {
#define NAME(id) #id,
#define OPERATION(id, returns, doc, params) #id,
#include "operations.inc"
#undef NAME
#undef OPERATION
};

// Binds `value` under `name` and remembers it as the module's own object.
void bind(PyObject* module, Name name, Ref value) {
    State* st = state_of(module);
    check(PyDict_SetItem(PyModule_GetDict(module), st->names[name], value.get()));
    Py_XSETREF(st->own[name], value.release());
}

Ref import_module(const char* name) { return check(PyImport_ImportModule(name)); }

// `from module import attr`, failing with ImportError as the statement does.
Ref import_from(const char* module_name, const char* attr) {
    Ref module = import_module(module_name);
    PyObject* value = PyObject_GetAttrString(module.get(), attr);
    if (value) return Ref(value);
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyErrSet{};
    PyErr_Clear();
    Ref name = check(PyUnicode_FromString(module_name));
    Ref msg = check(PyUnicode_FromFormat("cannot import name '%s' from '%s'", attr, module_name));
    PyErr_SetImportError(msg.get(), name.get(), nullptr);
    throw PyErrSet{};
}

Ref compile_pattern(PyObject* re, const char* pattern, const char* flag) {
    Ref flags = flag ? check(PyObject_GetAttrString(re, flag)) : check(PyLong_FromLong(0));
    return check(PyObject_CallMethod(re, "compile", "sO", pattern, flags.get()));
}

// A dict of str built from a table of the core, in its order.
template <class Table, class Key, class Value>
Ref str_dict(const Table& table, Key key, Value value) {
    Ref d = check(PyDict_New());
    for (const auto& row : table) {
        Ref k = str_from_utf8(key(row));
        Ref v = str_from_utf8(value(row));
        check(PyDict_SetItem(d.get(), k.get(), v.get()));
    }
    return d;
}

// Loading calls Python code directly (imports, re.compile, getLogger,
// dataclass, best_effort), not through call_python (lock.cpp): it runs once,
// at import, normally long before the interpreter exits. A daemon thread
// that first imports the module just as the interpreter exits is the case
// this leaves open.
void exec_steps(PyObject* module) {
    State* st = state_of(module);
    PyObject* ns = PyModule_GetDict(module);
    for (int i = 0; i < NAME_COUNT; ++i) st->names[i] = check(PyUnicode_InternFromString(kNameText[i])).release();
    st->function_type = make_function_type(module);
    if (!st->function_type) throw PyErrSet{};
    st->empty_tuple = check(PyTuple_New(0)).release();
    st->timed_out_triple = check(Py_BuildValue("(ssi)", "", "Command timed out", 1)).release();
    st->not_found_triple = check(Py_BuildValue("(ssi)", "", "git not found", 1)).release();
    st->modified = str_from_utf8(DEFAULT_STATUS).release();
    PyUnicode_InternInPlace(&st->modified);

    // Imports, kept as module attributes: `import id`, or `from module import id`.
#define NAME(id)
#define OPERATION(id, returns, doc, params)
#define IMPORT(id, from) bind(module, id, *(from) ? import_from(from, #id) : import_module(#id));
#include "operations.inc"
#undef NAME
#undef OPERATION
    st->datetime_type = Py_NewRef(st->own[datetime]);

    // The logger, named after the module's full import name.
    Ref modname = check(PyModule_GetNameObject(module));
    bind(module, logger, check(PyObject_CallMethod(st->own[logging], "getLogger", "O", modname.get())));

    // Constants and patterns.
    bind(module, TIME_SPEC_FORMS, str_from_utf8(git_utils::TIME_SPEC_FORMS));
    PyObject* re_module = st->own[re];
    bind(module, _RELATIVE_SPEC, compile_pattern(re_module, RELATIVE_SPEC_PATTERN, nullptr));
    bind(module, _SPEC_UNITS, str_dict(SPEC_UNITS, [](auto& u) { return u.letter; }, [](auto& u) { return u.name; }));
    bind(module, _STATUS_BY_LETTER,
         str_dict(STATUS_LETTERS, [](auto& s) { return s.letter; }, [](auto& s) { return s.status; }));
    bind(module, _TWO_PATH_LETTERS, check(PyFrozenSet_New(str_list(std::vector<std::string>(std::begin(TWO_PATH_LETTERS), std::end(TWO_PATH_LETTERS))).get())));
    bind(module, _COMMIT_START, str_from_utf8(COMMIT_START));
    Ref patch_options = str_list(args::patch_options());
    bind(module, _PATCH_OPTIONS, check(PySequence_Tuple(patch_options.get())));
    bind(module, _HUNK_HEADER, compile_pattern(re_module, HUNK_HEADER_PATTERN, nullptr));
    bind(module, _C_ESCAPE, compile_pattern(re_module, C_ESCAPE_PATTERN, "DOTALL"));
    bind(module, _C_ESCAPES, str_dict(ESCAPE_LETTERS, [](auto& e) { return std::string_view(&e.letter, 1); },
                                      [](auto& e) { return std::string_view(&e.character, 1); }));

    // The error class and the records.
    Ref error_name = check(PyUnicode_FromFormat("%U.GitError", modname.get()));
    Ref error(PyErr_NewExceptionWithDoc(PyUnicode_AsUTF8(error_name.get()), kGitErrorDoc, PyExc_RuntimeError, nullptr));
    bind(module, GitError, check(error.release()));
    Call call{module, st, ns};
    bind(module, FileChange, make_record_class(call, FILE_CHANGE));
    bind(module, CommitChanges, make_record_class(call, COMMIT_CHANGES));
    bind(module, LineSpan, make_record_class(call, LINE_SPAN));

    // The operations, in load order.
    const auto& defs = function_defs();
    for (int name = find_git_root; name < NAME_COUNT; ++name) {
        if (name == checked_out_branch) {
            if (!st->own[resolve_display_branch]) continue;
            Ref factory = call.get(best_effort);
            Ref wrapper = check(PyObject_CallFunction(factory.get(), "sO", "git.checked_out_branch", Py_None));
            bind(module, checked_out_branch, check(PyObject_CallOneArg(wrapper.get(), st->own[resolve_display_branch])));
            continue;
        }
        if (name == _MAX_PATHSPEC_CHARS) {
            bind(module, _MAX_PATHSPEC_CHARS, check(PyLong_FromSize_t(git_utils::MAX_PATHSPEC_CHARS)));
            continue;
        }
        for (const auto& def : defs)
            if (def.name == name) bind(module, static_cast<Name>(name), make_function(module, def));
    }
}

int module_exec(PyObject* module) {
    try {
        exec_steps(module);
        return 0;
    } catch (PyErrSet&) {
        return -1;
    } catch (std::exception& e) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_ImportError, e.what());
        return -1;
    }
}

int module_traverse(PyObject* module, visitproc visit, void* arg) {
    State* st = state_of(module);
    if (!st) return 0;
    for (auto* o : st->own) Py_VISIT(o);
    Py_VISIT(st->function_type);
    Py_VISIT(st->datetime_type);
    return 0;
}

int module_clear(PyObject* module) {
    State* st = state_of(module);
    if (!st) return 0;
    for (auto& o : st->own) Py_CLEAR(o);
    for (auto& o : st->names) Py_CLEAR(o);
    Py_CLEAR(st->function_type);
    Py_CLEAR(st->datetime_type);
    Py_CLEAR(st->empty_tuple);
    Py_CLEAR(st->timed_out_triple);
    Py_CLEAR(st->not_found_triple);
    Py_CLEAR(st->modified);
    for (auto& row : st->field_names)
        for (auto& o : row) Py_CLEAR(o);
    return 0;
}

void module_free(void* module) { module_clear(static_cast<PyObject*>(module)); }

// The module keeps every Python object in its own state (the function type
// and the record classes are made per module), and nothing static refers to
// one: each interpreter that imports it gets its own, so interpreters with a
// GIL of their own may load it. Every shared read states what protects it
// where there is no GIL (see compat.hpp), so importing it keeps the GIL off.
PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(module_exec)},
#if PY_VERSION_HEX >= 0x030C0000
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
#ifdef Py_mod_gil
    {Py_mod_gil, Py_MOD_GIL_NOT_USED},
#endif
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "git_utils",
    kModuleDoc,
    sizeof(State),
    nullptr,
    module_slots,
    module_traverse,
    module_clear,
    module_free,
};

}  // namespace

State* state_of(PyObject* module) { return static_cast<State*>(PyModule_GetState(module)); }

Ref Call::get(Name name) const {
    // The dict may hold the only other reference, and another thread may
    // rebind the name at any moment: the lookup hands out our own reference
    // (taken under the dict's lock where there is no GIL).
    PyObject* o = nullptr;
    if (PyDict_GetItemRef(ns, st->names[name], &o) > 0) return Ref(o);
    if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", st->names[name]);
    throw PyErrSet{};
}

void log(const Call& call, const char* level, const char* message, std::initializer_list<PyObject*> args) {
    Ref logger_obj = call.get(logger);
    Ref text = check(PyUnicode_FromString(message));
    Ref name = check(PyUnicode_InternFromString(level));
    PyObject* stack[6] = {logger_obj.get(), text.get()};
    std::size_t n = 2;
    for (PyObject* a : args) stack[n++] = a;
    check(call_python_method(name.get(), stack, n));
}

namespace {
void set_os_error(int err, const std::string& filename, unsigned long winerror = 0) {
    Ref name(filename.empty() ? nullptr : PyUnicode_DecodeFSDefault(filename.c_str()));
    PyErr_Clear();
#ifdef MS_WINDOWS
    // The system's own code, from which the host finds the error number.
    if (winerror) {
        PyErr_SetExcFromWindowsErrWithFilenameObject(PyExc_OSError, static_cast<int>(winerror), name.get());
        return;
    }
#else
    (void)winerror;
#endif
    // OSError(errno, text, filename) made here rather than through the
    // interpreter's errno: a module linked with another C runtime than
    // CPython's (msvcrt.dll on Windows) has an errno of its own.
    Ref error(PyObject_CallFunction(PyExc_OSError, "isO", err, std::strerror(err), name ? name.get() : Py_None));
    if (error) PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
}
}  // namespace

void set_python_error(const Call& call) noexcept {
    try {
        throw;
    } catch (PyErrSet&) {
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const git_utils::GitError& e) {
        try {
            Ref msg = str_from_utf8(e.what());
            Ref cls = call.get(GitError);
            PyErr_SetObject(cls.get(), msg.get());
        } catch (...) {
            if (!PyErr_Occurred()) PyErr_NoMemory();
        }
    } catch (const OsError& e) {
        set_os_error(e.code().value(), e.filename(), e.winerror());
    } catch (const OptionClash& e) {
        PyErr_Format(PyExc_TypeError, "run_git_command() %s", e.what());
    } catch (const std::invalid_argument& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::out_of_range& e) {
        PyErr_SetString(PyExc_OverflowError, e.what());
    } catch (const std::system_error& e) {
        set_os_error(e.code().value(), "");
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_SystemError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "git_utils: unknown C++ exception");
    }
}

}  // namespace git_utils::binding

PyMODINIT_FUNC PyInit_git_utils(void) { return PyModuleDef_Init(&git_utils::binding::module_def); }
