// `run_git_command` and `_git_output`: the host's process options, the native
// run with the interpreter lock released, the host's `subprocess.run` for
// options the native path does not take, and the runner's log messages.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <optional>
#include <cstring>

#include "common.hpp"

namespace git_utils::binding {
namespace {

const char* const kRunnerOptions[] = {"cwd", "capture_output", "encoding", "errors", "timeout"};

Ref args_sequence(PyObject* args) {
    if (PyUnicode_Check(args) || PyBytes_Check(args)) {
        PyErr_Format(PyExc_TypeError, "args must be a list of str, not %.100s", Py_TYPE(args)->tp_name);
        throw PyErrSet{};
    }
    // A tuple of its own: converting an element may run the host's code
    // (__fspath__), which must not be able to shrink or free what is still
    // to be read.
    Ref fast = check(PySequence_Fast(args, "args must be a list of str"));
    return check(PySequence_Tuple(fast.get()));
}

// What the host's options ask of the run.
struct HostOptions {
    bool use_subprocess = false;  // options the native path does not take
    Ref env;                      // the "env" option, when given
    Ref mapping;
};

HostOptions read_host_options(const Call& call) {
    HostOptions host;
    host.mapping = check(PyObject_CallNoArgs(call.lookup(get_subprocess_hidden_kwargs)));
    if (PyDict_CheckExact(host.mapping.get()) && PyDict_GET_SIZE(host.mapping.get()) == 0) return host;
    Ref keys = check(PyMapping_Keys(host.mapping.get()));
    Py_ssize_t n = PyList_GET_SIZE(keys.get());
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* key = PyList_GET_ITEM(keys.get(), i);
        for (const char* own : kRunnerOptions) {
            if (PyUnicode_Check(key) && PyUnicode_CompareWithASCIIString(key, own) == 0) {
                PyErr_Format(PyExc_TypeError, "run_git_command() got multiple values for keyword argument '%s'", own);
                throw PyErrSet{};
            }
        }
        if (PyUnicode_Check(key) && PyUnicode_CompareWithASCIIString(key, "env") == 0) {
            host.env = check(PyObject_GetItem(host.mapping.get(), key));
        } else {
            host.use_subprocess = true;
        }
    }
    return host;
}

std::vector<std::string> environment(PyObject* env) {
    std::vector<std::string> out;
    Ref items = check(PyMapping_Items(env));
    Py_ssize_t n = PyList_GET_SIZE(items.get());
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PyList_GET_ITEM(items.get(), i);
        std::string key = fs_bytes(PyTuple_GET_ITEM(item, 0), "environment variable name");
        std::string value = fs_bytes(PyTuple_GET_ITEM(item, 1), "environment variable value");
        if (key.empty() || key.find('=') != std::string::npos) {
            PyErr_SetString(PyExc_ValueError, "illegal environment variable name");
            throw PyErrSet{};
        }
        out.push_back(key + "=" + value);
    }
    return out;
}

// A pseudo-terminal for git's stdin on the subprocess route, at end of file
// from the start (as the native runner gives it).
struct Terminal {
    int master = -1, slave = -1;
    Terminal() {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128];
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 || ::ptsname_r(master, name, sizeof name) != 0 ||
            (slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC)) < 0) {
            PyErr_SetFromErrno(PyExc_OSError);
            close_all();
            throw PyErrSet{};
        }
        const char eof = 0x04;
        (void)!::write(master, &eof, 1);
    }
    ~Terminal() { close_all(); }
    void close_all() {
        if (slave >= 0) ::close(slave);
        if (master >= 0) ::close(master);
        slave = master = -1;
    }
};

// The run through the host's `subprocess.run`, for host options that only it
// knows how to apply.
NativeRun run_with_subprocess(const Call& call, PyObject* repo_root, PyObject* seq, PyObject* timeout,
                              PyObject* options, StdinMode stdin_mode) {
    PyObject* sp = call.lookup(subprocess);
    Ref cmd = check(PyList_New(0));
    Ref git = check(PyUnicode_FromString("git"));
    check(PyList_Append(cmd.get(), git.get()));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq); ++i)
        check(PyList_Append(cmd.get(), PySequence_Fast_GET_ITEM(seq, i)));
    Ref cwd = check(PyObject_Str(repo_root));
    Ref kwargs = check(Py_BuildValue("{s:O,s:O,s:s,s:s,s:O}", "cwd", cwd.get(), "capture_output", Py_True, "encoding",
                                     "utf-8", "errors", "replace", "timeout", timeout));
    check(PyDict_Update(kwargs.get(), options));
    std::optional<Terminal> terminal;
    if (stdin_mode != StdinMode::Inherit && !PyDict_GetItemString(kwargs.get(), "stdin")) {
        Ref fd;
        if (stdin_mode == StdinMode::Terminal) {
            terminal.emplace();
            fd = check(PyLong_FromLong(terminal->slave));
        } else {
            fd = check(PyObject_GetAttrString(sp, "DEVNULL"));
        }
        check(PyDict_SetItemString(kwargs.get(), "stdin", fd.get()));
    }
    Ref run = check(PyObject_GetAttrString(sp, "run"));
    Ref pargs = check(PyTuple_Pack(1, cmd.get()));
    PyObject* result = PyObject_Call(run.get(), pargs.get(), kwargs.get());
    NativeRun out{RunStatus::Exited, {}, {}, 0};
    if (!result) {
        Ref expired(PyObject_GetAttrString(sp, "TimeoutExpired"));
        if (!expired) PyErr_Clear();
        if (expired && PyErr_ExceptionMatches(expired.get())) {
            PyErr_Clear();
            out.status = RunStatus::TimedOut;
            return out;
        }
        if (PyErr_ExceptionMatches(PyExc_FileNotFoundError)) {
            PyErr_Clear();
            out.status = RunStatus::NotFound;
            return out;
        }
        throw PyErrSet{};
    }
    Ref completed(result);
    Ref so = check(PyObject_GetAttrString(result, "stdout"));
    Ref se = check(PyObject_GetAttrString(result, "stderr"));
    Ref rc = check(PyObject_GetAttrString(result, "returncode"));
    if (so.get() != Py_None) out.out = utf8_of(so.get());
    if (se.get() != Py_None) out.err = utf8_of(se.get());
    out.returncode = PyLong_AsLong(rc.get());
    if (out.returncode == -1 && PyErr_Occurred()) throw PyErrSet{};
    decode_git_text(out.out);  // only line ends are left to normalise
    decode_git_text(out.err);
    return out;
}

Ref triple_of(const Call& call, NativeRun& run) {
    switch (run.status) {
        case RunStatus::TimedOut:
        case RunStatus::Interrupted:
            return Ref::borrow(call.st->timed_out_triple);
        case RunStatus::NotFound:
            return Ref::borrow(call.st->not_found_triple);
        case RunStatus::Exited:
            break;
    }
    Ref out = str_from_utf8(run.out);
    Ref err = str_from_utf8(run.err);
    Ref rc = check(PyLong_FromLong(run.returncode));
    return check(PyTuple_Pack(3, out.get(), err.get(), rc.get()));
}

// The message of a failed run: stderr trimmed, or "git exited with code N".
Ref failure_message(PyObject* err, PyObject* returncode) {
    Ref stripped = strip_str(err);
    int empty = PyObject_Not(stripped.get());
    check(empty);
    if (!empty) return stripped;
    Ref code = check(PyObject_Format(returncode, nullptr));
    return check(PyUnicode_FromFormat("git exited with code %U", code.get()));
}

Ref default_timeout() { return check(PyLong_FromLong(30)); }

// The host's runner replaced ours: call it and check its triple.
Ref host_checked_output(const Call& call, PyObject* repo_root, PyObject* args) {
    Ref triple = check(PyObject_CallFunctionObjArgs(call.lookup(run_git_command), repo_root, args, nullptr));
    Ref seq = check(PySequence_Fast(triple.get(), "run_git_command must return a triple"));
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.get());
    if (n != 3) {
        if (n < 3)
            PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 3, got %zd)", n);
        else
            PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 3)");
        throw PyErrSet{};
    }
    // Owned: comparing the code runs the host's code, which may change a
    // list it returned.
    Ref out = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 0));
    Ref err = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 1));
    Ref rc = Ref::borrow(PySequence_Fast_GET_ITEM(seq.get(), 2));
    Ref zero = check(PyLong_FromLong(0));
    int failed = PyObject_RichCompareBool(rc.get(), zero.get(), Py_NE);
    check(failed);
    if (failed) raise_git_error(call, failure_message(err.get(), rc.get()).get());
    return out;
}

// Our own `_git_output` when our runner is in place: stdout as UTF-8.
std::string native_checked_output(const Call& call, PyObject* repo_root, PyObject* args) {
    NativeRun run = run_native(call, repo_root, args, default_timeout().get());
    if (run.status == RunStatus::TimedOut || run.status == RunStatus::Interrupted)
        raise_git_error(call, PyTuple_GET_ITEM(call.st->timed_out_triple, 1));
    if (run.status == RunStatus::NotFound) raise_git_error(call, PyTuple_GET_ITEM(call.st->not_found_triple, 1));
    if (run.returncode != 0) {
        Ref msg = str_from_utf8(git_error_message(run.err, run.returncode));
        raise_git_error(call, msg.get());
    }
    return std::move(run.out);
}

}  // namespace

NativeRun run_native(const Call& call, PyObject* repo_root, PyObject* args, PyObject* timeout,
                     StdinMode stdin_mode) {
    Ref seq = args_sequence(args);
    HostOptions host = read_host_options(call);
    NativeRun run{RunStatus::Exited, {}, {}, 0};
    if (host.use_subprocess || call.lookup(subprocess) != call.st->own[subprocess]) {
        run = run_with_subprocess(call, repo_root, seq.get(), timeout, host.mapping.get(), stdin_mode);
    } else {
        std::string cwd = repo_root_text(repo_root);
        std::vector<std::string> argv;
        Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.get());
        argv.reserve(static_cast<std::size_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) argv.push_back(fs_bytes(PySequence_Fast_GET_ITEM(seq.get(), i), "args"));
        RunOptions options;
        options.stdin_mode = stdin_mode;
        if (timeout == Py_None) {
            options.timeout.reset();
        } else {
            double seconds = PyFloat_AsDouble(timeout);
            if (seconds == -1.0 && PyErr_Occurred()) throw PyErrSet{};
            // As subprocess.run and time.sleep refuse it: NaN names no time.
            if (std::isnan(seconds)) {
                PyErr_SetString(PyExc_ValueError, "timeout must be a number of seconds, not NaN");
                throw PyErrSet{};
            }
            options.timeout = seconds;
        }
        // The environment is copied here, with the interpreter lock held: no
        // thread can change os.environ while it is read.
        options.env = host.env && host.env.get() != Py_None ? environment(host.env.get()) : current_environment();

        // The interpreter lock is released for the whole run; a signal that
        // interrupts the wait takes it back briefly so the host's handler can
        // run (and raise, which stops git).
        PyThreadState* saved = nullptr;
        options.on_interrupt = [&saved]() {
            PyEval_RestoreThread(saved);
            bool stop = PyErr_CheckSignals() != 0;
            saved = PyEval_SaveThread();
            return stop;
        };
        RunOutcome outcome;
        saved = PyEval_SaveThread();
        try {
            outcome = run_git_process(argv, cwd, options);
            if (outcome.status == RunStatus::Exited) {
                decode_git_text(outcome.out);
                decode_git_text(outcome.err);
            }
        } catch (...) {
            PyEval_RestoreThread(saved);
            throw;
        }
        PyEval_RestoreThread(saved);
        if (outcome.status == RunStatus::Interrupted) throw PyErrSet{};
        run = {outcome.status, std::move(outcome.out), std::move(outcome.err), outcome.returncode};
    }

    switch (run.status) {
        case RunStatus::TimedOut:
            log(call, call.st->str_warning, call.st->msg_timed_out, {timeout, args});
            break;
        case RunStatus::NotFound:
            log(call, call.st->str_warning, call.st->msg_not_found, {args});
            break;
        case RunStatus::Exited:
            if (run.returncode != 0) {
                Ref rc = check(PyLong_FromLong(run.returncode));
                Ref err = str_from_utf8(strip(run.err));
                log(call, call.st->str_debug, call.st->msg_failed, {args, rc.get(), err.get()});
            }
            break;
        case RunStatus::Interrupted:
            break;
    }
    return run;
}

Ref run_git(const Call& call, PyObject* repo_root, PyObject* args, StdinMode stdin_mode) {
    if (!call.is_own(run_git_command))
        return check(PyObject_CallFunctionObjArgs(call.lookup(run_git_command), repo_root, args, nullptr));
    NativeRun run = run_native(call, repo_root, args, default_timeout().get(), stdin_mode);
    return triple_of(call, run);
}

std::string git_output_text(const Call& call, PyObject* repo_root, PyObject* args) {
    if (!call.is_own(_git_output)) {
        Ref out = check(PyObject_CallFunctionObjArgs(call.lookup(_git_output), repo_root, args, nullptr));
        if (!PyUnicode_Check(out.get())) {
            PyErr_Format(PyExc_TypeError, "_git_output must return str, not %.100s", Py_TYPE(out.get())->tp_name);
            throw PyErrSet{};
        }
        return utf8_of(out.get());
    }
    if (call.is_own(run_git_command)) return native_checked_output(call, repo_root, args);
    Ref out = host_checked_output(call, repo_root, args);
    if (!PyUnicode_Check(out.get())) {
        PyErr_Format(PyExc_TypeError, "run_git_command must return str output, not %.100s", Py_TYPE(out.get())->tp_name);
        throw PyErrSet{};
    }
    return utf8_of(out.get());
}

Ref git_output(const Call& call, PyObject* repo_root, PyObject* args) {
    if (!call.is_own(_git_output))
        return check(PyObject_CallFunctionObjArgs(call.lookup(_git_output), repo_root, args, nullptr));
    return impl_git_output(call, std::array<PyObject*, 2>{repo_root, args}.data());
}

Ref impl_run_git_command(const Call& call, PyObject* const* a) {
    NativeRun run = run_native(call, a[0], a[1], a[2]);
    return triple_of(call, run);
}

Ref impl_git_output(const Call& call, PyObject* const* a) {
    if (!call.is_own(run_git_command)) return host_checked_output(call, a[0], a[1]);
    return str_from_utf8(native_checked_output(call, a[0], a[1]));
}

}  // namespace git_utils::binding
