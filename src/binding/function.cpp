// The function objects of the bound operations: vectorcall with exact
// parameter handling, and the introspection a Python function offers
// (__signature__, __annotations__, __defaults__, __name__, __doc__, ...).
#include "common.hpp"  // Python.h first, as structmember.h needs it

#include <structmember.h>

#include <cstring>
#include <new>
#include <utility>

namespace git_utils::binding {
namespace {

constexpr int kMaxParams = 8;

struct FunctionObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    const FunctionDef* def;
    PyObject* module;
    PyObject* dict;
    PyObject* name;
    PyObject* qualname;
    PyObject* doc;
    PyObject* defaults;    // tuple: one entry per parameter, None where required (see def)
    PyObject* param_names; // tuple of interned parameter names
    PyObject* signature;   // built on first use
    PyObject* weakreflist;
};

// The object in one of the fields that Python code can replace (__name__,
// __qualname__, __doc__, __signature__), owned. Without a GIL a setter may
// run on another thread: the read and the replacement both take the
// function's own lock, so no reader takes a reference to an object that a
// setter has just released.
Ref field(FunctionObject* f, PyObject* FunctionObject::*member) {
    CriticalSection section(reinterpret_cast<PyObject*>(f));
    return Ref::borrow(f->*member);
}

// Puts `value` (a new reference, or null) in a field. The old object is
// released once the lock is let go: its release may run Python code.
void replace_field(FunctionObject* f, PyObject* FunctionObject::*member, PyObject* value) {
    PyObject* old;
    {
        CriticalSection section(reinterpret_cast<PyObject*>(f));
        old = std::exchange(f->*member, value);
    }
    Py_XDECREF(old);
}

// --- parameter parsing ------------------------------------------------------

std::size_t positional_count(const FunctionDef& def) {
    std::size_t n = 0;
    for (const auto& p : def.params) n += !p.keyword_only;
    return n;
}

void too_many_positional(FunctionObject* f, Py_ssize_t given) {
    Ref qualname = field(f, &FunctionObject::qualname);
    const FunctionDef& def = *f->def;
    std::size_t npos = positional_count(def), required = 0;
    for (const auto& p : def.params)
        if (!p.keyword_only && p.dflt.kind == Default::Required) ++required;
    std::string takes;
    if (required == npos)
        takes = std::to_string(npos) + " positional argument" + (npos == 1 ? "" : "s");
    else
        takes = "from " + std::to_string(required) + " to " + std::to_string(npos) + " positional arguments";
    PyErr_Format(PyExc_TypeError, "%U() takes %s but %zd %s given", qualname.get(), takes.c_str(), given,
                 given == 1 ? "was" : "were");
}

void missing(FunctionObject* f, const std::vector<const char*>& names, bool keyword_only) {
    Ref qualname = field(f, &FunctionObject::qualname);
    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i) list += names.size() == 2 ? " and " : (i + 1 == names.size() ? ", and " : ", ");
        list += "'" + std::string(names[i]) + "'";
    }
    PyErr_Format(PyExc_TypeError, "%U() missing %zu required %s argument%s: %s", qualname.get(), names.size(),
                 keyword_only ? "keyword-only" : "positional", names.size() == 1 ? "" : "s", list.c_str());
}

PyObject* parse_and_call(FunctionObject* f, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    const FunctionDef& def = *f->def;
    const std::size_t nparams = def.params.size();
    const Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    PyObject* values[kMaxParams] = {};

    if (static_cast<std::size_t>(nargs) > positional_count(def)) {
        too_many_positional(f, nargs);
        return nullptr;
    }
    for (Py_ssize_t i = 0; i < nargs; ++i) values[i] = args[i];
    if (kwnames) {
        const Py_ssize_t nkw = PyTuple_GET_SIZE(kwnames);
        for (Py_ssize_t k = 0; k < nkw; ++k) {
            PyObject* key = PyTuple_GET_ITEM(kwnames, k);
            std::size_t idx = nparams;
            // Keyword names are nearly always interned: try identity first.
            for (std::size_t i = 0; i < nparams; ++i) {
                if (PyTuple_GET_ITEM(f->param_names, static_cast<Py_ssize_t>(i)) == key) {
                    idx = i;
                    break;
                }
            }
            // Comparing two exact str runs no Python code.
            for (std::size_t i = 0; idx == nparams && i < nparams; ++i) {
                if (PyUnicode_Compare(PyTuple_GET_ITEM(f->param_names, static_cast<Py_ssize_t>(i)), key) == 0) {
                    idx = i;
                    break;
                }
            }
            if (idx == nparams) {
                Ref qualname = field(f, &FunctionObject::qualname);
                PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", qualname.get(), key);
                return nullptr;
            }
            if (values[idx]) {
                Ref qualname = field(f, &FunctionObject::qualname);
                PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", qualname.get(), key);
                return nullptr;
            }
            values[idx] = args[nargs + k];
        }
    }
    std::vector<const char*> absent_pos, absent_kw;
    for (std::size_t i = 0; i < nparams; ++i) {
        if (values[i]) continue;
        if (def.params[i].dflt.kind != Default::Required) {
            values[i] = PyTuple_GET_ITEM(f->defaults, static_cast<Py_ssize_t>(i));
        } else {
            (def.params[i].keyword_only ? absent_kw : absent_pos).push_back(def.params[i].name);
        }
    }
    if (!absent_pos.empty()) {
        missing(f, absent_pos, false);
        return nullptr;
    }
    if (!absent_kw.empty()) {
        missing(f, absent_kw, true);
        return nullptr;
    }
    // The arguments are borrowed from the caller, who holds them for the call.
    Call call{f->module, state_of(f->module), PyModule_GetDict(f->module)};
    try {
        return def.impl(call, values).release();
    } catch (...) {
        set_python_error(call);
        return nullptr;
    }
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    // The function object (and with it the module) stays alive for the call
    // even if host code drops every other reference to it.
    Ref keep = Ref::borrow(self);
    try {
        return parse_and_call(reinterpret_cast<FunctionObject*>(self), args, nargsf, kwnames);
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "git_utils: unexpected C++ exception while parsing arguments");
        return nullptr;
    }
}

// --- introspection ----------------------------------------------------------

PyObject* default_object(State* st, const Default& d) {
    switch (d.kind) {
        case Default::None:
        case Default::Required:
            return Py_NewRef(Py_None);
        case Default::True:
            return Py_NewRef(Py_True);
        case Default::Number:
            return PyLong_FromLongLong(d.number);
        case Default::Text:
            return PyUnicode_InternFromString(std::string(d.text).c_str());
        case Default::EmptyTuple:
            return Py_NewRef(st->empty_tuple);
    }
    return nullptr;
}

PyObject* get_signature(PyObject* self, void*) {
    auto* f = reinterpret_cast<FunctionObject*>(self);
    if (Ref cached = field(f, &FunctionObject::signature)) return cached.release();
    try {
        Ref inspect = check(PyImport_ImportModule("inspect"));
        Ref parameter = check(PyObject_GetAttrString(inspect.get(), "Parameter"));
        Ref signature = check(PyObject_GetAttrString(inspect.get(), "Signature"));
        Ref empty = check(PyObject_GetAttrString(parameter.get(), "empty"));
        Ref pos_or_kw = check(PyObject_GetAttrString(parameter.get(), "POSITIONAL_OR_KEYWORD"));
        Ref kw_only = check(PyObject_GetAttrString(parameter.get(), "KEYWORD_ONLY"));
        Ref annotations = check(PyObject_GetAttrString(self, "__annotations__"));
        Ref holder = Ref::borrow(self);
        const FunctionDef& def = *f->def;
        Ref params = check(PyList_New(0));
        for (std::size_t i = 0; i < def.params.size(); ++i) {
            const ParamDef& p = def.params[i];
            Ref name = check(PyUnicode_FromString(p.name));
            // Owned: the host may have put any object in __annotations__.
            PyObject* found = nullptr;
            Ref ann(PyDict_Check(annotations.get()) && check(PyDict_GetItemRef(annotations.get(), name.get(), &found)) ? found : nullptr);
            PyObject* dflt = p.dflt.kind == Default::Required ? empty.get()
                                                         : PyTuple_GET_ITEM(f->defaults, static_cast<Py_ssize_t>(i));
            Ref kwargs = check(Py_BuildValue("{s:O,s:O}", "default", dflt, "annotation", ann ? ann.get() : empty.get()));
            Ref param = invoke(parameter.get(), {name.get(), p.keyword_only ? kw_only.get() : pos_or_kw.get()}, kwargs.get());
            check(PyList_Append(params.get(), param.get()));
        }
        PyObject* found = nullptr;
        Ref ret(PyDict_Check(annotations.get()) && check(PyDict_GetItemStringRef(annotations.get(), "return", &found)) ? found : nullptr);
        Ref skw = check(Py_BuildValue("{s:O}", "return_annotation", ret ? ret.get() : empty.get()));
        Ref made = invoke(signature.get(), {params.get()}, skw.get());
        // Another thread may have set one meanwhile; keep the first.
        CriticalSection section(self);
        if (!f->signature) f->signature = Py_NewRef(made.get());
        return Py_NewRef(f->signature);
    } catch (PyErrSet&) {
        return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

int set_signature(PyObject* self, PyObject* value, void*) {
    replace_field(reinterpret_cast<FunctionObject*>(self), &FunctionObject::signature, Py_XNewRef(value));
    return 0;
}

// Looked up on a class, the function stays unbound, as a builtin does; having
// __get__ makes inspect treat it as a routine (isroutine, method descriptor).
PyObject* function_descr_get(PyObject* self, PyObject*, PyObject*) { return Py_NewRef(self); }

PyObject* function_repr(PyObject* self) {
    Ref qualname = field(reinterpret_cast<FunctionObject*>(self), &FunctionObject::qualname);
    return PyUnicode_FromFormat("<function %U at %p>", qualname.get(), self);
}

// Functions pickle by reference, as Python functions do.
PyObject* function_reduce(PyObject* self, PyObject*) {
    return field(reinterpret_cast<FunctionObject*>(self), &FunctionObject::qualname).release();
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    auto* f = reinterpret_cast<FunctionObject*>(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(f->module);
    Py_VISIT(f->dict);
    Py_VISIT(f->name);
    Py_VISIT(f->qualname);
    Py_VISIT(f->doc);
    Py_VISIT(f->defaults);
    Py_VISIT(f->param_names);
    Py_VISIT(f->signature);
    return 0;
}

int function_clear(PyObject* self) {
    auto* f = reinterpret_cast<FunctionObject*>(self);
    Py_CLEAR(f->module);
    Py_CLEAR(f->dict);
    Py_CLEAR(f->name);
    Py_CLEAR(f->qualname);
    Py_CLEAR(f->doc);
    Py_CLEAR(f->defaults);
    Py_CLEAR(f->param_names);
    Py_CLEAR(f->signature);
    return 0;
}

void function_dealloc(PyObject* self) {
    PyTypeObject* tp = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    auto* f = reinterpret_cast<FunctionObject*>(self);
    if (f->weakreflist) PyObject_ClearWeakRefs(self);
    function_clear(self);
    tp->tp_free(self);
    Py_DECREF(tp);
}

// __name__ and __qualname__ take only str and cannot be deleted, as on a
// Python function: the error messages of every call print them.
template <PyObject* FunctionObject::*Member>
PyObject* get_text(PyObject* self, void*) {
    return field(reinterpret_cast<FunctionObject*>(self), Member).release();
}
template <PyObject* FunctionObject::*Member>
int set_text(PyObject* self, PyObject* value, void* closure) {
    if (!value || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object", static_cast<const char*>(closure));
        return -1;
    }
    replace_field(reinterpret_cast<FunctionObject*>(self), Member, Py_NewRef(value));
    return 0;
}

PyObject* get_doc(PyObject* self, void*) {
    Ref doc = field(reinterpret_cast<FunctionObject*>(self), &FunctionObject::doc);
    return doc ? doc.release() : Py_NewRef(Py_None);
}
int set_doc(PyObject* self, PyObject* value, void*) {
    replace_field(reinterpret_cast<FunctionObject*>(self), &FunctionObject::doc, Py_XNewRef(value));
    return 0;
}

PyMemberDef function_members[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weakreflist), READONLY, nullptr},
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef function_getset[] = {
    {"__signature__", get_signature, set_signature, nullptr, nullptr},
    {"__name__", get_text<&FunctionObject::name>, set_text<&FunctionObject::name>, nullptr,
     const_cast<char*>("__name__")},
    {"__qualname__", get_text<&FunctionObject::qualname>, set_text<&FunctionObject::qualname>, nullptr,
     const_cast<char*>("__qualname__")},
    {"__doc__", get_doc, set_doc, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot function_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_descr_get)},
    {Py_tp_members, function_members},
    {Py_tp_getset, function_getset},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

PyType_Spec function_spec = {
    "vantrel_sorlith.utils.git_utils.function",
    sizeof(FunctionObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_IMMUTABLETYPE |
        Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

}  // namespace

Ref eval_type(PyObject* ns, const char* expr) {
    // As Python evaluates an annotation when it defines a function: in the
    // module's namespace, with its builtins.
    if (!PyDict_GetItemString(ns, "__builtins__"))
        check(PyDict_SetItemString(ns, "__builtins__", PyEval_GetBuiltins()));
    return check(PyRun_String(expr, Py_eval_input, ns, ns));
}

PyTypeObject* make_function_type(PyObject* module) {
    return reinterpret_cast<PyTypeObject*>(PyType_FromModuleAndSpec(module, &function_spec, nullptr));
}

Ref make_function(PyObject* module, const FunctionDef& def) {
    State* st = state_of(module);
    if (def.params.size() > kMaxParams) {  // the call path parses into a fixed array
        PyErr_SetString(PyExc_SystemError, "git_utils: too many parameters in a function definition");
        throw PyErrSet{};
    }
    PyObject* ns = PyModule_GetDict(module);
    auto* f = PyObject_GC_New(FunctionObject, st->function_type);
    if (!f) throw PyErrSet{};
    f->vectorcall = function_vectorcall;
    f->def = &def;
    f->module = Py_NewRef(module);
    f->dict = nullptr;
    f->name = Py_NewRef(st->names[def.name]);
    f->qualname = Py_NewRef(st->names[def.name]);
    f->doc = nullptr;
    f->defaults = nullptr;
    f->param_names = nullptr;
    f->signature = nullptr;
    f->weakreflist = nullptr;
    PyObject_GC_Track(f);
    Ref fn(reinterpret_cast<PyObject*>(f));

    f->doc = check(PyUnicode_FromString(def.doc)).release();
    f->param_names = check(PyTuple_New(static_cast<Py_ssize_t>(def.params.size()))).release();
    for (std::size_t i = 0; i < def.params.size(); ++i)
        PyTuple_SET_ITEM(f->param_names, static_cast<Py_ssize_t>(i),
                         check(PyUnicode_InternFromString(def.params[i].name)).release());
    f->defaults = check(PyTuple_New(static_cast<Py_ssize_t>(def.params.size()))).release();
    for (std::size_t i = 0; i < def.params.size(); ++i)
        PyTuple_SET_ITEM(f->defaults, static_cast<Py_ssize_t>(i), check(default_object(st, def.params[i].dflt)).release());

    // Annotations are evaluated now, against what the namespace holds.
    Ref annotations = check(PyDict_New());
    for (const auto& p : def.params) {
        if (!p.annotation) continue;
        Ref ann = eval_type(ns, p.annotation);
        check(PyDict_SetItemString(annotations.get(), p.name, ann.get()));
    }
    if (def.returns) check(PyDict_SetItemString(annotations.get(), "return", eval_type(ns, def.returns).get()));

    // __defaults__ / __kwdefaults__ as a Python function would carry them.
    std::vector<PyObject*> pos_defaults;
    Ref kwdefaults = Ref::borrow(Py_None);
    for (std::size_t i = 0; i < def.params.size(); ++i) {
        const ParamDef& p = def.params[i];
        if (p.dflt.kind == Default::Required) continue;
        PyObject* v = PyTuple_GET_ITEM(f->defaults, static_cast<Py_ssize_t>(i));
        if (p.keyword_only) {
            if (kwdefaults.get() == Py_None) kwdefaults = check(PyDict_New());
            check(PyDict_SetItemString(kwdefaults.get(), p.name, v));
        } else {
            pos_defaults.push_back(v);
        }
    }
    Ref defaults_tuple = Ref::borrow(Py_None);
    if (!pos_defaults.empty()) {
        defaults_tuple = check(PyTuple_New(static_cast<Py_ssize_t>(pos_defaults.size())));
        for (std::size_t i = 0; i < pos_defaults.size(); ++i)
            PyTuple_SET_ITEM(defaults_tuple.get(), static_cast<Py_ssize_t>(i), Py_NewRef(pos_defaults[i]));
    }

    Ref dict = check(PyDict_New());
    Ref modname = check(PyModule_GetNameObject(module));
    check(PyDict_SetItemString(dict.get(), "__module__", modname.get()));
    check(PyDict_SetItemString(dict.get(), "__annotations__", annotations.get()));
    check(PyDict_SetItemString(dict.get(), "__defaults__", defaults_tuple.get()));
    check(PyDict_SetItemString(dict.get(), "__kwdefaults__", kwdefaults.get()));
    f->dict = dict.release();
    return fn;
}

}  // namespace git_utils::binding
