// `run_git_command` and `_git_output` at the boundary: the host's extra start
// options, the choice between the native process and the host's
// `subprocess.run`, the runner's log lines through the namespace's logger,
// and the routing of every library run through `run_git_command` as the
// namespace holds it. What a run does is the core's (src/core/runner.hpp).
#include <cmath>
#include <optional>

#include "common.hpp"
#include "src/core/queries.hpp"
#include "src/core/runner.hpp"

namespace git_utils::binding {
namespace {

// How errors name the outputs of a host's subprocess.run and run_git_command.
constexpr ArgName SUBPROCESS_STDOUT{"subprocess.run", "stdout"}, SUBPROCESS_STDERR{"subprocess.run", "stderr"};
constexpr ArgName HOST_STDOUT{"run_git_command", "stdout"}, HOST_STDERR{"run_git_command", "stderr"};

// The extra start options of one run, from the namespace's
// get_subprocess_hidden_kwargs().
struct HostOptions {
    Ref mapping;                    // as the host returned it
    Ref env;                        // its "env", when given
    StartOptions start;             // its "startupinfo" and "creationflags", as the native start applies them
    bool needs_subprocess = false;  // an option only the host's subprocess.run can apply
};

// An unsigned integer option of at most `bits` bits, as CreateProcess reads
// it: an int, refused when negative or too large (`mask`: cut to the low
// bits instead, as for creationflags).
std::uint32_t flag_value(PyObject* value, const char* what, int bits, bool mask) {
    if (!PyLong_Check(value))
        raise(PyExc_TypeError, "%s must be an int, not %.100s", what, Py_TYPE(value)->tp_name);
    const unsigned long long limit = (1ULL << bits) - 1;
    if (mask) {
        const unsigned long long v = PyLong_AsUnsignedLongLongMask(value);
        if (v == static_cast<unsigned long long>(-1) && PyErr_Occurred()) throw PyErrSet{};
        return static_cast<std::uint32_t>(v & limit);
    }
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (v == -1 && PyErr_Occurred()) throw PyErrSet{};
    if (overflow || v < 0 || static_cast<unsigned long long>(v) > limit)
        raise(PyExc_OverflowError, "%s must be between 0 and %llu", what, limit);
    return static_cast<std::uint32_t>(v);
}

// A STARTUPINFO's dwFlags and wShowWindow (a missing one counts as 0, as
// subprocess reads them). Its standard handles are the runner's anyway;
// handles it lists for inheritance can only be passed by the host's
// subprocess.run: false then.
bool read_startupinfo(PyObject* info, StartOptions& start) {
    if (info == Py_None) return true;
    const auto field = [&](const char* name, const char* what, int bits) -> std::uint32_t {
        Ref key = check(PyUnicode_InternFromString(name));
        Ref value(PyObject_GetAttr(info, key.get()));
        if (!value) {
            if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyErrSet{};
            PyErr_Clear();
            return 0;
        }
        return flag_value(value.get(), what, bits, false);
    };
    start.startup_flags = field("dwFlags", "startupinfo.dwFlags", 32);
    start.show_window = static_cast<std::uint16_t>(field("wShowWindow", "startupinfo.wShowWindow", 16));
    Ref key = check(PyUnicode_InternFromString("lpAttributeList"));
    Ref attributes(PyObject_GetAttr(info, key.get()));
    if (!attributes) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyErrSet{};
        PyErr_Clear();
        return true;
    }
    if (attributes.get() == Py_None || !PyMapping_Check(attributes.get())) return true;
    Ref handles(PyMapping_GetItemString(attributes.get(), "handle_list"));
    if (!handles) {
        if (!PyErr_ExceptionMatches(PyExc_KeyError)) throw PyErrSet{};
        PyErr_Clear();
        return true;
    }
    return check(PyObject_Not(handles.get())) == 1;
}

HostOptions read_start_options(const Call& call) {
    HostOptions options;
    Ref provider = call.get(get_subprocess_hidden_kwargs);
    options.mapping = invoke(provider.get(), {});
    if (PyDict_CheckExact(options.mapping.get()) && PyDict_GET_SIZE(options.mapping.get()) == 0) return options;
    Ref keys = check(PyMapping_Keys(options.mapping.get()));
    Ref key_tuple = check(PySequence_Tuple(keys.get()));
    std::vector<std::string> names;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(key_tuple.get()); ++i) {
        PyObject* key = PyTuple_GET_ITEM(key_tuple.get(), i);
        if (!PyUnicode_Check(key)) raise(PyExc_TypeError, "keywords must be strings");
        names.push_back(utf8_of(key));
    }
    check_start_options(names);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto value = [&] {
            return check(PyObject_GetItem(options.mapping.get(), PyTuple_GET_ITEM(key_tuple.get(), static_cast<Py_ssize_t>(i))));
        };
        if (names[i] == "env")
            options.env = value();
        else if (names[i] == "startupinfo")
            options.needs_subprocess |= !read_startupinfo(value().get(), options.start);
        else if (names[i] == "creationflags")
            options.start.creation_flags = flag_value(value().get(), "creationflags", 32, true);
        else
            options.needs_subprocess = true;
    }
    return options;
}

// "NAME=value" entries of a host's env mapping, as subprocess checks them.
Environment environment(PyObject* env) {
    Ref items = check(PyMapping_Items(env));
    Ref pairs = check(PySequence_Tuple(items.get()));
    Environment out;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(pairs.get()); ++i) {
        PyObject* item = PyTuple_GET_ITEM(pairs.get(), i);
        if (!PyTuple_Check(item) || PyTuple_GET_SIZE(item) != 2)
            raise(PyExc_TypeError, "env items must be (name, value) pairs, not %.100s", Py_TYPE(item)->tp_name);
        std::string entry[2];
        for (int k = 0; k < 2; ++k) {
            Ref part = check(PyOS_FSPath(PyTuple_GET_ITEM(item, k)));
            if (PyBytes_Check(part.get()))
                entry[k].assign(PyBytes_AS_STRING(part.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(part.get())));
            else
                entry[k] = fs_bytes(part.get(), k == 0 ? "environment variable name" : "environment variable value");
            if (entry[k].find('\0') != std::string::npos) raise(PyExc_ValueError, "embedded null byte");
        }
        if (entry[0].empty() || entry[0].find('=') != std::string::npos)
            raise(PyExc_ValueError, "illegal environment variable name");
        out.add(entry[0] + "=" + entry[1]);
    }
    return out;
}

// The environment git gets when the host gives none: this process's.
//
// With the GIL, the C library's `environ` is copied with the interpreter
// lock held: os.environ's edits (os.putenv and os.unsetenv, which call
// setenv and unsetenv) hold it too, so no edit runs while the copy is read,
// and git sees what subprocess would hand on.
//
// Without a GIL nothing guards `environ`: CPython calls setenv and unsetenv
// with no lock of its own (3.13's posixmodule.c), and setenv may move the
// array and free the old one while another thread reads it. There the copy
// is of os.environ's own dict (bytes to bytes on POSIX), which PyDict_Copy
// takes whole under the dict's lock. It differs from `environ` only by what
// os.putenv or C code set without going through os.environ. Windows keeps
// the system's copy, which the system makes under its own lock. The
// interpreter takes `os` out of sys.modules only while it finalises, after
// it has stopped every other thread's Python code (a finaliser that runs a
// query then): nothing edits `environ` any more, and the C library's copy is
// read, as with the GIL.
Environment process_environment() {
#if defined(Py_GIL_DISABLED) && !defined(_WIN32)
    Ref name = check(PyUnicode_InternFromString("os"));
    Ref os(PyImport_GetModule(name.get()));  // imported at start-up: in sys.modules
    if (!os && PyErr_Occurred()) throw PyErrSet{};
    if ((!os || os.get() == Py_None) && Py_IsFinalizing()) return current_environment();
    if (!os) os = check(PyImport_Import(name.get()));
    Ref mapping = attr(os.get(), "environ");
    Ref key = check(PyUnicode_InternFromString("_data"));  // interned: see attr()
    Ref data(PyObject_GetAttr(mapping.get(), key.get()));
    if (!data) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw PyErrSet{};
        PyErr_Clear();  // a host's own mapping: read as a mapping
        data = mapping;
    }
    Ref copy = check(PyDict_Check(data.get()) ? PyDict_Copy(data.get()) : PyDict_New());
    if (!PyDict_Check(data.get())) check(PyDict_Merge(copy.get(), data.get(), 1));
    return environment(copy.get());
#else
    return current_environment();
#endif
}

// The time limit of a run: None for none; a number of seconds otherwise.
std::optional<double> seconds_of(const Param& timeout) {
    if (timeout.value == Py_None) return std::nullopt;
    if (!PyLong_Check(timeout.value) && !PyFloat_Check(timeout.value)) wrong_type(timeout, "be int, float or None");
    const double seconds = PyFloat_AsDouble(timeout);
    if (seconds == -1.0 && PyErr_Occurred()) throw PyErrSet{};
    // As subprocess.run and time.sleep refuse it: NaN names no time.
    if (std::isnan(seconds)) raise(PyExc_ValueError, "timeout must be a number of seconds, not NaN");
    return seconds;
}

// The steps of one run through the library's own runner.
class RunSteps {
public:
    RunSteps(const Call& call, const RunRequest& request) : call_(call), request_(request) {}

    RunOutcome start() {
        HostOptions options = read_start_options(call_);
        Ref sp = call_.get(subprocess);
        if (options.needs_subprocess || !call_.is_own(subprocess, sp)) return start_with_subprocess(sp, options);
        return start_native(options);
    }

    void timed_out() { log(call_, "warning", "git command timed out after %ss: args=%s", {timeout().get(), args().get()}); }
    void not_found() { log(call_, "warning", "git executable not found while running args=%s", {args().get()}); }
    void failed(const Integer& returncode, std::string_view stderr_stripped) {
        Ref rc = int_object(returncode);
        Ref err = str_from_utf8(stderr_stripped);
        log(call_, "debug", "git command failed: args=%s rc=%s stderr=%s", {args().get(), rc.get(), err.get()});
    }

private:
    // The caller's list as given, or one made from the arguments.
    Ref args() {
        if (request_.args_object) return Ref::borrow(request_.args_object);
        if (!args_list_) args_list_ = str_list(request_.args);
        return args_list_;
    }
    Ref timeout() {
        return request_.timeout ? Ref::borrow(request_.timeout) : check(PyLong_FromLong(static_cast<long>(DEFAULT_TIMEOUT)));
    }

    RunOutcome start_native(const HostOptions& options) {
        // Everything the process needs is copied out of Python objects
        // before the interpreter lock is released.
        const std::string cwd = repo_root_text(request_.repo_root);
        std::vector<std::string> argv;
        argv.reserve(request_.args.size());
        for (const std::string& a : request_.args) argv.push_back(fs_bytes(str_from_utf8(a).get(), "args"));
        RunOptions run;
        run.stdin_mode = request_.stdin_mode;
        run.start = options.start;
        run.timeout = request_.seconds;
        run.env = options.env && options.env.get() != Py_None ? environment(options.env.get()) : process_environment();

        // The lock is released for the whole run; a signal that interrupts
        // the wait takes it back briefly so the host's handler can run (and
        // raise, which stops git). Once the interpreter is exiting the lock
        // is not asked for: the run stops, git is killed and reaped, and the
        // thread parks where the lock is taken back, at the end of the block.
        RunOutcome outcome;
        {
            LockReleased unlocked;
            run.on_interrupt = [&unlocked]() {
                if (parks_at_exit()) return true;
                return unlocked.held([] { return PyErr_CheckSignals() != 0; });
            };
            outcome = run_git_process(argv, cwd, run);
        }
        if (outcome.interrupted) throw PyErrSet{};  // the handler's exception
        return outcome;
    }

    // The host's `subprocess.run`, for start options that only it can apply
    // (or a `subprocess` the host replaced).
    RunOutcome start_with_subprocess(const Ref& sp, const HostOptions& options) {
        ListBuilder cmd;
        cmd.add(check(PyUnicode_FromString("git")));
        for (const std::string& a : request_.args) cmd.add(str_from_utf8(a));
        Ref command = cmd.list();
        Ref cwd = check(PyObject_Str(request_.repo_root));
        Ref limit = timeout();
        Ref kwargs = check(Py_BuildValue("{s:O,s:O,s:s,s:s,s:O}", "cwd", cwd.get(), "capture_output", Py_True,
                                         "encoding", "utf-8", "errors", "replace", "timeout", limit.get()));
        check(PyDict_Update(kwargs.get(), options.mapping.get()));
        std::optional<SilentTerminal> terminal;
        if (request_.stdin_mode != StdinMode::Inherit && !PyDict_GetItemString(kwargs.get(), "stdin")) {
            // Where no terminal can be made, git reads the host's standard
            // input, as the plain runner gives it.
            Ref stdin_value;
            if (request_.stdin_mode == StdinMode::Null)
                stdin_value = attr(sp.get(), "DEVNULL");
            else if (terminal.emplace().fd() >= 0)
                stdin_value = check(PyLong_FromLong(terminal->fd()));
            if (stdin_value) check(PyDict_SetItemString(kwargs.get(), "stdin", stdin_value.get()));
        }
        Ref run = attr(sp.get(), "run");
        PyObject* const arg = command.get();
        Ref completed(call_python(run.get(), &arg, 1, kwargs.get()));
        RunOutcome outcome;
        if (!completed) {
            // Keep the run's own exception while looking up what it may be.
            Ref raised(PyErr_GetRaisedException());
            Ref expired;
            try {
                expired = attr(sp.get(), "TimeoutExpired");
            } catch (PyErrSet&) {
                PyErr_Clear();  // a subprocess without it: the run's own error stands
            }
            const bool is_timeout = expired && PyType_Check(expired.get()) &&
                                    PyObject_IsInstance(raised.get(), expired.get()) == 1;
            if (PyErr_Occurred()) PyErr_Clear();
            if (is_timeout) {
                outcome.status = RunStatus::TimedOut;
                return outcome;
            }
            if (PyErr_GivenExceptionMatches(raised.get(), PyExc_FileNotFoundError)) {
                outcome.status = RunStatus::NotFound;
                return outcome;
            }
            PyErr_SetRaisedException(raised.release());
            throw PyErrSet{};
        }
        Ref out = attr(completed.get(), "stdout");
        Ref err = attr(completed.get(), "stderr");
        Ref rc = attr(completed.get(), "returncode");
        if (out.get() != Py_None) outcome.out = str_argument({out.get(), SUBPROCESS_STDOUT});
        if (err.get() != Py_None) outcome.err = str_argument({err.get(), SUBPROCESS_STDERR});
        // Windows gives exit codes up to 4294967295.
        int overflow = 0;
        const long long code = PyLong_Check(rc.get()) ? PyLong_AsLongLongAndOverflow(rc.get(), &overflow) : 0;
        if (!PyLong_Check(rc.get()) || overflow)
            raise(PyExc_TypeError, "subprocess.run returned an exit code that is not a 64-bit integer: %R", rc.get());
        outcome.returncode = code;
        return outcome;
    }

    const Call& call_;
    const RunRequest& request_;
    Ref args_list_;
};

// A host's triple as a result: str outputs and an integer exit code.
RunOutcome result_of_triple(PyObject* triple) {
    Ref seq = host_tuple(triple);
    if (PyTuple_GET_SIZE(seq.get()) != 3)
        raise(PyExc_TypeError, "run_git_command must return (stdout, stderr, returncode), not %zd values",
              PyTuple_GET_SIZE(seq.get()));
    RunOutcome r;
    r.out = str_argument({PyTuple_GET_ITEM(seq.get(), 0), HOST_STDOUT});
    r.err = str_argument({PyTuple_GET_ITEM(seq.get(), 1), HOST_STDERR});
    PyObject* code = PyTuple_GET_ITEM(seq.get(), 2);
    if (!PyLong_Check(code))
        raise(PyExc_TypeError, "run_git_command must return an int exit code, not %.100s", Py_TYPE(code)->tp_name);
    int overflow = 0;
    r.returncode = PyLong_AsLongLongAndOverflow(code, &overflow);
    if (r.returncode.value == -1 && PyErr_Occurred()) throw PyErrSet{};
    // An exit code beyond 64 bits keeps its digits.
    if (overflow) r.returncode.digits = std::make_shared<const std::string>(utf8_of(check(PyObject_Str(code)).get()));
    return r;
}

// The runner `_git_output` sees: `run_git_command` as the namespace holds it.
struct NamespaceRunner {
    const Call& call;
    const RunRequest& base;
    RunOutcome run(std::vector<std::string> args) {
        RunRequest r{base.repo_root, std::move(args), base.args_object, nullptr, StdinMode::Inherit};
        return run_through_namespace(call, r);
    }
};

}  // namespace

RunOutcome run_own(const Call& call, const RunRequest& request) {
    RunSteps steps(call, request);
    return run_with(steps);
}

RunOutcome run_through_namespace(const Call& call, const RunRequest& request) {
    Ref runner = call.get(run_git_command);
    if (call.is_own(run_git_command, runner)) return run_own(call, request);
    Ref args = request.args_object ? Ref::borrow(request.args_object) : str_list(request.args);
    Ref triple = invoke(runner.get(), {request.repo_root, args.get()});
    return result_of_triple(triple.get());
}

std::string checked_own(const Call& call, const RunRequest& request) {
    NamespaceRunner runner{call, request};
    return checked_output(runner, request.args);
}

Ref triple_of(const Call& call, const RunOutcome& result) {
    switch (result.status) {
        case RunStatus::TimedOut:
            return Ref::borrow(call.st->timed_out_triple);
        case RunStatus::NotFound:
            return Ref::borrow(call.st->not_found_triple);
        case RunStatus::Exited:
            break;
    }
    Ref out = str_from_utf8(result.out);
    Ref err = str_from_utf8(result.err);
    Ref rc = int_object(result.returncode);
    return check(PyTuple_Pack(3, out.get(), err.get(), rc.get()));
}

Ref impl(const Call& call, Args<run_git_command> args) {
    RunRequest request{args.repo_root(), str_list_argument(args.args(), true), args.args(), args.timeout()};
    request.seconds = seconds_of(args.timeout());  // a bad limit fails before anything runs
    return triple_of(call, run_own(call, request));
}

Ref impl(const Call& call, Args<_git_output> args) {
    RunRequest request{args.repo_root(), str_list_argument(args.args(), true), args.args()};
    return str_from_utf8(checked_own(call, request));
}

}  // namespace git_utils::binding
