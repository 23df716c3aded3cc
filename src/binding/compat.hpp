// What one source needs to build against CPython 3.10 to 3.13, with the GIL
// and without it (the free-threaded build, where Py_GIL_DISABLED is defined).
//
// Without a GIL, holding the interpreter lock protects nothing: another
// thread may change a dict, a list or an object's fields while this one
// reads them. The binding reads shared objects through what CPython makes
// safe for that: strong references from dict lookups (PyDict_GetItemRef),
// copies made under the object's own lock, and critical sections (below)
// where an object's fields are read and then used.
#pragma once

#include <Python.h>

#include <atomic>

// Python 3.12's way of holding the exception being raised, for 3.10 and 3.11.
#if PY_VERSION_HEX < 0x030C0000
inline PyObject* PyErr_GetRaisedException() {
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (value && traceback) PyException_SetTraceback(value, traceback);
    Py_XDECREF(type);
    Py_XDECREF(traceback);
    return value;
}
inline void PyErr_SetRaisedException(PyObject* exc) {
    if (!exc) return;
    PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exc))), exc, PyException_GetTraceback(exc));
}
#endif

// Python 3.13's dict lookups that hand out a strong reference: 1 found, 0
// absent, -1 an error. Before 3.13 only builds with the GIL exist, where the
// borrowed item stays alive until the caller takes its own reference.
#if PY_VERSION_HEX < 0x030D0000
inline int PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** result) {
    PyObject* item = PyDict_GetItemWithError(dict, key);
    *result = Py_XNewRef(item);
    return item ? 1 : (PyErr_Occurred() ? -1 : 0);
}
inline int PyDict_GetItemStringRef(PyObject* dict, const char* key, PyObject** result) {
    PyObject* name = PyUnicode_FromString(key);
    if (!name) {
        *result = nullptr;
        return -1;
    }
    const int found = PyDict_GetItemRef(dict, name, result);
    Py_DECREF(name);
    return found;
}
#endif

namespace git_utils::binding {

// Holds the per-object lock of `op` for a scope (Py_BEGIN_CRITICAL_SECTION as
// a C++ object, so that an exception cannot leave it held). Nothing where
// there is a GIL: there the interpreter lock already keeps other threads out
// while no Python code runs. The lock is let go while the thread blocks (on
// another lock, or when it detaches), so the scope must not call anything
// that can run Python code or wait.
class CriticalSection {
public:
#ifdef Py_GIL_DISABLED
    explicit CriticalSection(PyObject* op) { PyCriticalSection_Begin(&section_, op); }
    ~CriticalSection() { PyCriticalSection_End(&section_); }
#else
    explicit CriticalSection(PyObject*) {}
#endif
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

private:
#ifdef Py_GIL_DISABLED
    PyCriticalSection section_;
#endif
};

// A type's version tag as of now. Without a GIL another thread may be
// changing the class (which clears the tag and assigns a new one), so the
// field is read atomically there.
inline unsigned int type_version(PyTypeObject* type) {
#ifdef Py_GIL_DISABLED
    return std::atomic_ref<unsigned int>(type->tp_version_tag).load(std::memory_order_acquire);
#else
    return type->tp_version_tag;
#endif
}

}  // namespace git_utils::binding
