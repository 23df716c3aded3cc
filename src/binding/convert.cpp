// Conversions between Python values and the core's UTF-8 and byte strings.
#include <cstring>

#include "common.hpp"

namespace git_utils::binding {

Ref str_from_utf8(std::string_view text) {
    // "surrogatepass" lets lone surrogates that came in from Python go back out.
    return check(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

std::string_view utf8_view(PyObject* text, std::string& scratch) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(text, &size);
    if (data) return {data, static_cast<std::size_t>(size)};
    if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyErrSet{};
    PyErr_Clear();
    Ref bytes = check(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
    scratch.assign(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    return scratch;
}

std::string utf8_of(PyObject* text) {
    std::string scratch;
    std::string_view view = utf8_view(text, scratch);
    return scratch.empty() ? std::string(view) : scratch;
}

std::string fs_bytes(PyObject* arg, const char* what) {
    Ref path = check(PyOS_FSPath(arg));  // str, bytes, or os.PathLike; TypeError otherwise
    Ref bytes;
    const char* data;
    Py_ssize_t size;
    if (PyUnicode_Check(path.get())) {
        if (PyUnicode_IS_ASCII(path.get())) {
            data = static_cast<const char*>(PyUnicode_DATA(path.get()));
            size = PyUnicode_GET_LENGTH(path.get());
        } else {
            bytes = check(PyUnicode_EncodeFSDefault(path.get()));  // os.fsencode: surrogateescape
            data = PyBytes_AS_STRING(bytes.get());
            size = PyBytes_GET_SIZE(bytes.get());
        }
    } else {
        data = PyBytes_AS_STRING(path.get());
        size = PyBytes_GET_SIZE(path.get());
    }
    if (std::memchr(data, '\0', static_cast<std::size_t>(size))) {
        PyErr_Format(PyExc_ValueError, "embedded null byte in %s", what);
        throw PyErrSet{};
    }
    return std::string(data, static_cast<std::size_t>(size));
}

std::string repo_root_text(PyObject* repo_root) {
    if (PyUnicode_CheckExact(repo_root)) return fs_bytes(repo_root, "repo_root");
    Ref text = check(PyObject_Str(repo_root));
    return fs_bytes(text.get(), "repo_root");
}

Ref strip_str(PyObject* text) {
    if (!PyUnicode_Check(text)) return check(PyObject_CallMethod(text, "strip", nullptr));
    std::string scratch;
    std::string_view view = utf8_view(text, scratch);
    std::string_view stripped = strip(view);
    if (stripped.size() == view.size()) return Ref::borrow(text);
    return str_from_utf8(stripped);
}

Ref str_list(const std::vector<std::string>& items) {
    Ref list = check(PyList_New(static_cast<Py_ssize_t>(items.size())));
    for (std::size_t i = 0; i < items.size(); ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), str_from_utf8(items[i]).release());
    return list;
}

}  // namespace git_utils::binding
