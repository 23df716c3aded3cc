/* The cost of merely allocating record instances from C: a tiny extension
 * used by bench_parsers.py as the floor a native parser's records/s is
 * compared with. Every way takes values that already exist (a list of
 * tuples), so only making and filling the instances is timed. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

/* object.__new__(cls) for each row: an empty instance, the least any parser
 * returning these classes pays. */
static PyObject *new_only(PyObject *self, PyObject *args) {
    PyObject *cls, *rows;
    if (!PyArg_ParseTuple(args, "O!O!", &PyType_Type, &cls, &PyList_Type, &rows)) return NULL;
    PyObject *empty = PyTuple_New(0);
    if (!empty) return NULL;
    Py_ssize_t n = PyList_GET_SIZE(rows);
    PyObject *out = PyList_New(n);
    for (Py_ssize_t i = 0; out && i < n; ++i) {
        PyObject *obj = PyBaseObject_Type.tp_new((PyTypeObject *)cls, empty, NULL);
        if (!obj) { Py_CLEAR(out); break; }
        PyList_SET_ITEM(out, i, obj);
    }
    Py_DECREF(empty);
    return out;
}

/* object.__new__(cls) and then each field stored with the generic setattr,
 * in order: what a frozen dataclass's __init__ does, with no Python frame. */
static PyObject *new_and_fill(PyObject *self, PyObject *args) {
    PyObject *cls, *rows, *names;
    if (!PyArg_ParseTuple(args, "O!O!O!", &PyType_Type, &cls, &PyList_Type, &rows, &PyTuple_Type, &names))
        return NULL;
    PyObject *empty = PyTuple_New(0);
    if (!empty) return NULL;
    Py_ssize_t n = PyList_GET_SIZE(rows), width = PyTuple_GET_SIZE(names);
    PyObject *out = PyList_New(n);
    for (Py_ssize_t i = 0; out && i < n; ++i) {
        PyObject *row = PyList_GET_ITEM(rows, i);
        PyObject *obj = PyBaseObject_Type.tp_new((PyTypeObject *)cls, empty, NULL);
        if (!obj) { Py_CLEAR(out); break; }
        PyList_SET_ITEM(out, i, obj);
        for (Py_ssize_t k = 0; k < width; ++k) {
            if (PyObject_GenericSetAttr(obj, PyTuple_GET_ITEM(names, k), PyTuple_GET_ITEM(row, k)) < 0) {
                Py_CLEAR(out);
                break;
            }
        }
    }
    Py_DECREF(empty);
    return out;
}

/* A plain tuple per row: the cost of a record with no class at all. */
static PyObject *tuples(PyObject *self, PyObject *args) {
    PyObject *rows;
    if (!PyArg_ParseTuple(args, "O!", &PyList_Type, &rows)) return NULL;
    Py_ssize_t n = PyList_GET_SIZE(rows);
    PyObject *out = PyList_New(n);
    for (Py_ssize_t i = 0; out && i < n; ++i) {
        PyObject *row = PyList_GET_ITEM(rows, i);
        PyObject *copy = PyTuple_GetSlice(row, 0, PyTuple_GET_SIZE(row));
        if (!copy) { Py_CLEAR(out); break; }
        PyList_SET_ITEM(out, i, copy);
    }
    return out;
}

static PyMethodDef methods[] = {
    {"new_only", new_only, METH_VARARGS, "new_only(cls, rows) -> [object.__new__(cls) per row]"},
    {"new_and_fill", new_and_fill, METH_VARARGS,
     "new_and_fill(cls, rows, names) -> instances with each row's values set by generic setattr"},
    {"tuples", tuples, METH_VARARGS, "tuples(rows) -> a fresh tuple per row"},
    {NULL, NULL, 0, NULL},
};

static struct PyModuleDef module = {PyModuleDef_HEAD_INIT, "alloc_floor", NULL, 0, methods};

PyMODINIT_FUNC PyInit_alloc_floor(void) { return PyModule_Create(&module); }
