// The extension module `git_utils`: multi-phase initialisation, the load
// steps in their fixed order, the module state, and the call-time lookup of
// every name in the module namespace.
#include <cerrno>

#include "common.hpp"

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
#define GIT_UTILS_NAME(id) #id,
#include "names.inc"
#undef GIT_UTILS_NAME
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

Ref str_dict(std::initializer_list<std::pair<const char*, const char*>> items) {
    Ref d = check(PyDict_New());
    for (const auto& [k, v] : items) {
        Ref value = check(PyUnicode_FromString(v));
        check(PyDict_SetItemString(d.get(), k, value.get()));
    }
    return d;
}

void exec_steps(PyObject* module) {
    State* st = state_of(module);
    PyObject* ns = PyModule_GetDict(module);
    for (int i = 0; i < NAME_COUNT; ++i) st->names[i] = check(PyUnicode_InternFromString(kNameText[i])).release();
    st->function_type = make_function_type(module);
    if (!st->function_type) throw PyErrSet{};
    st->empty_tuple = check(PyTuple_New(0)).release();
    st->timed_out_triple = check(Py_BuildValue("(ssi)", "", "Command timed out", 1)).release();
    st->not_found_triple = check(Py_BuildValue("(ssi)", "", "git not found", 1)).release();
    st->str_debug = check(PyUnicode_InternFromString("debug")).release();
    st->str_warning = check(PyUnicode_InternFromString("warning")).release();
    st->str_strip = check(PyUnicode_InternFromString("strip")).release();
    st->msg_failed = check(PyUnicode_FromString("git command failed: args=%s rc=%s stderr=%s")).release();
    st->msg_timed_out = check(PyUnicode_FromString("git command timed out after %ss: args=%s")).release();
    st->msg_not_found = check(PyUnicode_FromString("git executable not found while running args=%s")).release();
    st->msg_shortlog_failed =
        check(PyUnicode_FromString("get_authors_for_period: git shortlog failed rc=%s stderr=%s")).release();

    // Imports, kept as module attributes.
    bind(module, logging, import_module("logging"));
    bind(module, re, import_module("re"));
    bind(module, subprocess, import_module("subprocess"));
    bind(module, Sequence, import_from("collections.abc", "Sequence"));
    bind(module, dataclass, import_from("dataclasses", "dataclass"));
    bind(module, datetime, import_from("datetime", "datetime"));
    bind(module, timedelta, import_from("datetime", "timedelta"));
    bind(module, Path, import_from("pathlib", "Path"));
    bind(module, Any, import_from("typing", "Any"));
    bind(module, best_effort, import_from("vantrel_sorlith.utils.best_effort", "best_effort"));
    bind(module, get_subprocess_hidden_kwargs,
         import_from("vantrel_sorlith.utils.process", "get_subprocess_hidden_kwargs"));
    st->datetime_type = Py_NewRef(st->own[datetime]);

    // The logger, named after the module's full import name.
    Ref modname = check(PyModule_GetNameObject(module));
    bind(module, logger, check(PyObject_CallMethod(st->own[logging], "getLogger", "O", modname.get())));

    // Constants and patterns.
    bind(module, TIME_SPEC_FORMS, check(PyUnicode_FromStringAndSize(git_utils::TIME_SPEC_FORMS.data(),
                                                                    static_cast<Py_ssize_t>(git_utils::TIME_SPEC_FORMS.size()))));
    PyObject* re_module = st->own[re];
    bind(module, _RELATIVE_SPEC, compile_pattern(re_module, "(\\d+)([mhdw])", nullptr));
    bind(module, _SPEC_UNITS, str_dict({{"m", "minutes"}, {"h", "hours"}, {"d", "days"}, {"w", "weeks"}}));
    bind(module, _STATUS_BY_LETTER, str_dict({{"A", "added"}, {"C", "copied"}, {"D", "deleted"},
                                              {"M", "modified"}, {"R", "renamed"}, {"T", "modified"}}));
    Ref two_path_letters = check(Py_BuildValue("(ss)", "C", "R"));
    bind(module, _TWO_PATH_LETTERS, check(PyFrozenSet_New(two_path_letters.get())));
    bind(module, _COMMIT_START, check(PyUnicode_FromString("\x1e")));
    bind(module, _PATCH_OPTIONS,
         check(Py_BuildValue("(ssssss)", "--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0")));
    bind(module, _HUNK_HEADER, compile_pattern(re_module, "@@ -\\d+(?:,(\\d+))? \\+(\\d+)(?:,(\\d+))? @@", nullptr));
    bind(module, _C_ESCAPE, compile_pattern(re_module, "\\\\([0-7]{3}|.)", "DOTALL"));
    bind(module, _C_ESCAPES, str_dict({{"a", "\x07"}, {"b", "\x08"}, {"f", "\x0c"}, {"n", "\n"}, {"r", "\r"},
                                       {"t", "\t"}, {"v", "\x0b"}}));

    // The error class and the records.
    Ref error_name = check(PyUnicode_FromFormat("%U.GitError", modname.get()));
    Ref error(PyErr_NewExceptionWithDoc(PyUnicode_AsUTF8(error_name.get()), kGitErrorDoc, PyExc_RuntimeError, nullptr));
    bind(module, GitError, check(error.release()));
    Call call{module, st, ns};
    bind(module, FileChange, make_record_class(call, 0));
    bind(module, CommitChanges, make_record_class(call, 1));
    bind(module, LineSpan, make_record_class(call, 2));

    // The operations, in load order.
    const auto& defs = function_defs();
    for (int name = find_git_root; name < NAME_COUNT; ++name) {
        if (name == checked_out_branch) {
            if (!st->own[resolve_display_branch]) continue;
            Ref wrapper = check(PyObject_CallFunction(call.lookup(best_effort), "sO", "git.checked_out_branch", Py_None));
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
    Py_CLEAR(st->str_debug);
    Py_CLEAR(st->str_warning);
    Py_CLEAR(st->str_strip);
    Py_CLEAR(st->msg_failed);
    Py_CLEAR(st->msg_timed_out);
    Py_CLEAR(st->msg_not_found);
    Py_CLEAR(st->msg_shortlog_failed);
    for (auto& row : st->field_names)
        for (auto& o : row) Py_CLEAR(o);
    return 0;
}

void module_free(void* module) { module_clear(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(module_exec)},
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

PyObject* Call::lookup(Name name) const {
    PyObject* o = PyDict_GetItemWithError(ns, st->names[name]);
    if (!o) {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", st->names[name]);
        throw PyErrSet{};
    }
    return o;
}

void log(const Call& call, PyObject* method, PyObject* message, std::initializer_list<PyObject*> args) {
    PyObject* stack[6] = {call.lookup(logger), message};
    std::size_t n = 2;
    for (PyObject* a : args) stack[n++] = a;
    check(PyObject_VectorcallMethod(method, stack, n, nullptr));
}

[[noreturn]] void raise_git_error(const Call& call, PyObject* message) {
    PyErr_SetObject(call.lookup(GitError), message);
    throw PyErrSet{};
}

void set_python_error(const Call& call) {
    try {
        throw;
    } catch (PyErrSet&) {
    } catch (git_utils::GitError& e) {
        try {
            Ref msg = str_from_utf8(e.what());
            PyErr_SetObject(call.lookup(GitError), msg.get());
        } catch (PyErrSet&) {
        }
    } catch (SpawnError& e) {
        Ref filename(PyUnicode_DecodeFSDefault(e.filename().c_str()));
        errno = e.code().value();
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.get());
    } catch (FilesystemError& e) {
        Ref filename(PyUnicode_DecodeFSDefault(e.filename().c_str()));
        errno = e.code().value();
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.get());
    } catch (std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (std::invalid_argument& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (std::system_error& e) {
        errno = e.code().value();
        PyErr_SetFromErrno(PyExc_OSError);
    } catch (std::exception& e) {
        PyErr_SetString(PyExc_SystemError, e.what());
    }
}

}  // namespace git_utils::binding

PyMODINIT_FUNC PyInit_git_utils(void) { return PyModuleDef_Init(&git_utils::binding::module_def); }
