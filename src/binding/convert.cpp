// Conversions between Python values and the core's UTF-8 text, integers,
// moments and operating-system strings.
#include <cstdarg>
#include <cstring>

#include "common.hpp"

namespace git_utils::binding {

void raise(PyObject* type, const char* format, ...) {
    va_list va;
    va_start(va, format);
    PyErr_FormatV(type, format, va);
    va_end(va);
    throw PyErrSet{};
}

Ref attr(PyObject* obj, const char* name) {
    Ref key = check(PyUnicode_InternFromString(name));
    return check(PyObject_GetAttr(obj, key.get()));
}

Ref call_method(PyObject* obj, const char* name, std::initializer_list<PyObject*> args) {
    Ref key = check(PyUnicode_InternFromString(name));
    PyObject* stack[8] = {obj};
    std::size_t n = 1;
    for (PyObject* a : args) stack[n++] = a;
    return check(call_python_method(key.get(), stack, n));
}

Ref small_int(long value) { return check(PyLong_FromLong(value)); }

Ref str_from_utf8(std::string_view text) {
    // "surrogatepass" lets lone surrogates that came in from Python go back out.
    return check(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

Ref ascii_str(std::string_view text) {
    // What the UTF-8 decoder would make, without scanning for non-ASCII.
    Ref o = check(PyUnicode_New(static_cast<Py_ssize_t>(text.size()), 127));
    std::memcpy(PyUnicode_1BYTE_DATA(o.get()), text.data(), text.size());
    return o;
}

std::string_view utf8_view(PyObject* str, std::string& scratch) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(str, &size);
    if (data) return {data, static_cast<std::size_t>(size)};
    if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyErrSet{};
    PyErr_Clear();
    Ref bytes = check(PyUnicode_AsEncodedString(str, "utf-8", "surrogatepass"));
    scratch.assign(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    return scratch;
}

std::string utf8_of(PyObject* str) {
    std::string scratch;
    const std::string_view view = utf8_view(str, scratch);
    return scratch.empty() ? std::string(view) : scratch;
}

void wrong_type(const Param& arg, const char* must) {
    raise(PyExc_TypeError, "%s() argument '%s' must %s, not %.100s", arg.name.function, arg.name.parameter, must,
          Py_TYPE(arg.value)->tp_name);
}

std::vector<std::string> str_list_argument(const Param& arg, bool paths_too) {
    // A str is a sequence of one-character strs; taken for a list it would
    // become one argument per character.
    if (PyUnicode_Check(arg.value) || PyBytes_Check(arg.value) || PyByteArray_Check(arg.value))
        wrong_type(arg, "be a list of str");
    // A tuple of its own: reading an element may run the host's code, which
    // must not be able to shrink or free what is still to be read.
    Ref seq = check(PySequence_Tuple(arg.value));
    const Py_ssize_t n = PyTuple_GET_SIZE(seq.get());
    std::vector<std::string> out;
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        Ref item = Ref::borrow(PyTuple_GET_ITEM(seq.get(), i));
        if (paths_too && !PyUnicode_Check(item.get())) {
            // As subprocess takes them: bytes and os.PathLike, in the
            // operating system's encoding (os.fsdecode).
            item = Ref(PyOS_FSPath(item.get()));
            if (!item) {
                PyErr_Clear();
                item = Ref::borrow(PyTuple_GET_ITEM(seq.get(), i));
            } else if (PyBytes_Check(item.get())) {
                item = check(PyUnicode_DecodeFSDefaultAndSize(PyBytes_AS_STRING(item.get()), PyBytes_GET_SIZE(item.get())));
            }
        }
        if (!PyUnicode_Check(item.get())) wrong_type({item.get(), arg.name}, "hold only str");
        out.push_back(utf8_of(item.get()));
    }
    return out;
}

Ref str_list(const std::vector<std::string>& items) {
    ListBuilder list;
    list.reserve(items.size());
    for (const std::string& item : items) list.add(str_from_utf8(item));
    return list.list();
}

namespace {
// The value of `digits` (ASCII, no sign) split in halves, so the work grows
// like the multiplication of Python ints, not like the square of the length.
Ref int_of_ascii(std::string_view digits) {
    if (digits.size() <= 18) {
        long long v = 0;
        for (char c : digits) v = v * 10 + (c - '0');
        return check(PyLong_FromLongLong(v));
    }
    const std::size_t low_len = digits.size() / 2;
    Ref high = int_of_ascii(digits.substr(0, digits.size() - low_len));
    Ref low = int_of_ascii(digits.substr(digits.size() - low_len));
    Ref ten = check(PyLong_FromLong(10));
    Ref exponent = check(PyLong_FromSize_t(low_len));
    Ref scale = check(PyNumber_Power(ten.get(), exponent.get(), Py_None));
    Ref shifted = check(PyNumber_Multiply(high.get(), scale.get()));
    return check(PyNumber_Add(shifted.get(), low.get()));
}
}  // namespace

Ref int_object_unfit(const Integer& i) {
    std::string_view ascii = *i.digits;
    const bool negative = ascii[0] == '-';
    if (negative) ascii.remove_prefix(1);
    Ref value = int_of_ascii(ascii);
    return negative ? check(PyNumber_Negative(value.get())) : value;
}

std::string fs_bytes(PyObject* str, const char* what) {
    Ref bytes = check(PyUnicode_EncodeFSDefault(str));
    const std::string_view raw(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    if (raw.find('\0') != std::string_view::npos) raise(PyExc_ValueError, "embedded null byte in %s", what);
    return std::string(raw);
}

std::string repo_root_text(PyObject* repo_root) {
    Ref text = PyUnicode_CheckExact(repo_root) ? Ref::borrow(repo_root) : check(PyObject_Str(repo_root));
    return fs_bytes(text.get(), "repo_root");
}

Moment moment_argument(const Call& call, const Param& arg) {
    PyObject* const type = call.st->datetime_type;
    PyObject* const value = arg.value;
    if (!PyObject_TypeCheck(value, reinterpret_cast<PyTypeObject*>(type))) wrong_type(arg, "be datetime");
    // Each field through datetime's own descriptor, as strftime reads it: a
    // subclass that redefines `year` cannot hand over something else. The
    // names are interned: the type's attribute cache keeps the name object
    // of each lookup, and fresh ones would pile up there.
    auto field = [&](const char* name) {
        Ref key = check(PyUnicode_InternFromString(name));
        Ref descriptor = check(PyObject_GetAttr(type, key.get()));
        descrgetfunc get = Py_TYPE(descriptor.get())->tp_descr_get;
        Ref v = get ? check(get(descriptor.get(), value, type)) : descriptor;
        const long n = PyLong_AsLong(v.get());
        if (n == -1 && PyErr_Occurred()) throw PyErrSet{};
        return static_cast<int>(n);
    };
    Moment m;
    m.year = field("year");
    m.month = field("month");
    m.day = field("day");
    m.hour = field("hour");
    m.minute = field("minute");
    m.second = field("second");
    m.microsecond = field("microsecond");
    return m;
}

Ref path_object(const Call& call, const std::string& os_path) {
    Ref text = check(PyUnicode_DecodeFSDefaultAndSize(os_path.data(), static_cast<Py_ssize_t>(os_path.size())));
    Ref path_class = call.get(Path);
    return invoke(path_class.get(), {text.get()});
}

Text::Text(Ref str) : str_(std::move(str)), from_bytes_(false) {
    // A str with lone surrogates has no UTF-8 of its own: keep its
    // surrogatepass bytes.
    if (!PyUnicode_AsUTF8AndSize(str_.get(), nullptr)) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyErrSet{};
        PyErr_Clear();
        bytes_ = utf8_of(str_.get());
        from_bytes_ = true;
    }
}

std::string_view Text::view() const {
    if (from_bytes_) return bytes_;
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(str_.get(), &size);  // cached by the str: cannot fail now
    return {data, static_cast<std::size_t>(size)};
}

bool Text::ascii() const { return str_ && !from_bytes_ ? PyUnicode_IS_ASCII(str_.get()) : is_ascii(bytes_); }

Ref Text::object() {
    if (!str_) str_ = str_from_utf8(bytes_);
    return str_;
}

ListBuilder::ListBuilder(bool sealed, bool tuple, std::size_t size) {
#ifdef Py_GIL_DISABLED
    sealed = false;
#endif
    if (!sealed) {
        items_.reserve(size);
        return;
    }
    made_ = check(tuple ? PyTuple_New(static_cast<Py_ssize_t>(size)) : PyList_New(static_cast<Py_ssize_t>(size)));
}

void ListBuilder::add(Ref item) {
    if (!made_) {
        items_.push_back(std::move(item));
        return;
    }
    // Room was made for every item; an empty slot left by an error on the
    // way is released as empty by the sequence's deallocator.
    if (PyTuple_Check(made_.get()))
        PyTuple_SET_ITEM(made_.get(), filled_++, item.release());
    else
        PyList_SET_ITEM(made_.get(), filled_++, item.release());
}

Ref ListBuilder::list() {
    if (made_) return std::move(made_);
    Ref list = check(PyList_New(static_cast<Py_ssize_t>(items_.size())));
    for (std::size_t i = 0; i < items_.size(); ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), items_[i].release());
    items_.clear();
    return list;
}

Ref ListBuilder::tuple() {
    if (made_) return std::move(made_);
    Ref tuple = check(PyTuple_New(static_cast<Py_ssize_t>(items_.size())));
    for (std::size_t i = 0; i < items_.size(); ++i)
        PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(i), items_[i].release());
    items_.clear();
    return tuple;
}

}  // namespace git_utils::binding
