// The three record classes: real frozen dataclasses made at load, and their
// instances made without running a Python-level __init__ while a class is
// the one loading made, unchanged since.
#include "common.hpp"

namespace git_utils::binding {
namespace {

struct FieldDef {
    const char* name;
    const char* annotation;
};

struct RecordDef {
    const char* name;
    const char* doc;
    std::vector<FieldDef> fields;
};

const RecordDef kRecords[3] = {
    {"FileChange",
     "One file of a diff: its path on the newer side, what happened to it, its line counts.",
     {{"path", "str"}, {"status", "str"}, {"additions", "int"}, {"deletions", "int"}, {"old_path", "str | None"}}},
    {"CommitChanges",
     "The files one commit changed, and when it was committed (seconds since the epoch).",
     {{"timestamp", "int"}, {"files", "tuple[FileChange, ...]"}}},
    {"LineSpan",
     "Lines start to end (counted from 1, both inclusive) of a file's newer side that a diff touched.\n"
     "\n"
     "added is true when the span holds new lines only, none of them replacing an old line; false when\n"
     "lines were replaced, and for a deletion, whose span is the line above the removed lines (or line 1).",
     {{"start", "int"}, {"end", "int"}, {"added", "bool"}}},
};

// The type's version tag, assigned now if it has none. Any change to the
// class (a new __init__, a property over a field) gives it another tag.
unsigned int version_tag(PyObject* cls) {
    auto* type = reinterpret_cast<PyTypeObject*>(cls);
#if PY_VERSION_HEX >= 0x030C0000
    (void)PyUnstable_Type_AssignVersionTag(type);
#else
    // Before 3.12 a lookup through the type's attribute cache assigns it.
    Ref name = check(PyUnicode_InternFromString("__init__"));
    (void)check(PyObject_GetAttr(cls, name.get()));
#endif
    return type_version(type);
}

}  // namespace

Ref make_record_class(const Call& call, Record which) {
    const RecordDef& def = kRecords[which];
    Ref annotations = check(PyDict_New());
    for (std::size_t i = 0; i < def.fields.size(); ++i) {
        const FieldDef& f = def.fields[i];
        call.st->field_names[which][i] = check(PyUnicode_InternFromString(f.name)).release();
        check(PyDict_SetItemString(annotations.get(), f.name, eval_type(call.ns, f.annotation).get()));
    }
    Ref body = check(PyDict_New());
    Ref modname = check(PyModule_GetNameObject(call.module));
    Ref doc = check(PyUnicode_FromString(def.doc));
    Ref qualname = check(PyUnicode_FromString(def.name));
    check(PyDict_SetItemString(body.get(), "__module__", modname.get()));
    check(PyDict_SetItemString(body.get(), "__qualname__", qualname.get()));
    check(PyDict_SetItemString(body.get(), "__doc__", doc.get()));
    check(PyDict_SetItemString(body.get(), "__annotations__", annotations.get()));
    if (which == FILE_CHANGE) check(PyDict_SetItemString(body.get(), "old_path", Py_None));
    Ref cls = check(PyObject_CallFunction(reinterpret_cast<PyObject*>(&PyType_Type), "s()O", def.name, body.get()));
    // dataclass(frozen=True), through the imported name.
    Ref kwargs = check(Py_BuildValue("{s:O}", "frozen", Py_True));
    Ref dataclass_fn = call.get(dataclass);
    Ref decorator = check(PyObject_Call(dataclass_fn.get(), call.st->empty_tuple, kwargs.get()));
    Ref record = check(PyObject_CallOneArg(decorator.get(), cls.get()));
    call.st->record_tags[which] = version_tag(record.get());
    return record;
}

RecordMaker::RecordMaker(const Call& call, Record which)
    : call_(call), which_(which), cls_(call.get(static_cast<Name>(static_cast<int>(FileChange) + static_cast<int>(which)))) {
    const unsigned int tag = call.st->record_tags[which];
    sealed_ = call.is_own(static_cast<Name>(static_cast<int>(FileChange) + static_cast<int>(which)), cls_) && tag != 0 &&
              type_version(reinterpret_cast<PyTypeObject*>(cls_.get())) == tag;
}

Ref RecordMaker::make(PyObject* const* values, int count) const {
    if (!sealed_) return check(call_python(cls_.get(), values, static_cast<std::size_t>(count)));
    // object.__new__(cls), then the fields set in order with object.__setattr__,
    // exactly what the dataclass's own __init__ does for a frozen class. The
    // class had no descriptor for any field when the call began (its tag was
    // unchanged), so with the GIL this runs no Python code. Without one,
    // another thread may change the class meanwhile: a descriptor it adds is
    // then honoured by object.__setattr__ as the dataclass's __init__ would
    // honour it, and a new __init__ is seen by the next call; the sequences
    // being built are never visible half-filled there (ListBuilder).
    Ref obj = check(PyBaseObject_Type.tp_new(reinterpret_cast<PyTypeObject*>(cls_.get()), call_.st->empty_tuple, nullptr));
    for (int i = 0; i < count; ++i)
        check(PyObject_GenericSetAttr(obj.get(), call_.st->field_names[which_][i], values[i]));
    return obj;
}

}  // namespace git_utils::binding
