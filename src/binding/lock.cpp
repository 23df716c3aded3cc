// Taking the interpreter lock back after a stretch without it (a git run, a
// large scan), and calling into Python code, in ways that survive the
// interpreter's exit.
//
// While the interpreter finalises, CPython 3.10 to 3.13 end a thread that
// asks for the lock back: take_gil calls PyThread_exit_thread. On glibc that
// is pthread_exit, a forced unwind through every frame of the thread. Our C++
// frames would run their destructors on the way, which drop Python references
// without a thread state (a daemon thread polling git crashed the exiting
// program that way), and a build whose C++ runtime brings an unwinder of its
// own (zig's libc++ and libunwind) faults in the personality routine before
// any destructor runs. CPython 3.14 parks such a thread for good instead
// (PyThread_hang_thread); so do we, on every version:
//  - Once finalisation has begun the lock is not asked for at all: the thread
//    parks at once. A git run's interrupt hook asks first (see run.cpp), so
//    that the core still stops and reaps git before its thread parks. The
//    thread that finalises the interpreter (a finaliser of the host's that
//    calls the library at exit) takes the lock back as usual: it is known by
//    the interpreter finalising already when it gave the lock up, since no
//    other thread can hold the lock by then.
//  - Finalisation may also begin while the thread waits for the lock, or
//    while Python code that we called runs: the host's steps, its logger, its
//    subprocess.run, a record class it replaced. That code gives the lock up
//    (time.sleep, a file written, a process waited for, or the interpreter
//    handing the lock to another thread between two bytecodes) and asks for
//    it back inside CPython, below our frames. On glibc both the request and
//    every such call are made under a cancellation buffer of their own, the
//    one C code registers with pthread_cleanup_push (run_guarded, the one
//    place that knows glibc's interface for it): glibc's unwinder jumps back
//    to it as soon as the unwinding would leave the frames beneath it
//    (libpython's and the host's, none of them ours), before any frame of
//    ours is looked at, and the thread parks there. Elsewhere (macOS, musl,
//    Windows) ending a thread unwinds nothing.
// A parked thread holds no lock and touches nothing; the process ends as the
// exiting thread decides, exactly as with a daemon thread that CPython ends.
//
// What this does not cover: Python code that runs under our frames without
// an explicit call, through the protocols of the host's objects and of the
// arguments (__fspath__, __str__, __index__, __len__, __contains__, __eq__
// and __hash__ of a key, a mapping's keys() and items(), an attribute that
// is a property), and a __del__ or weakref callback run by a Py_DECREF (or,
// before 3.12, by a collection that an allocation starts). A thread ended
// inside one of those still unwinds through our frames.
#include "common.hpp"  // Python.h first, as it asks

#include <chrono>
#include <thread>

#if defined(__GLIBC__)
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
// Declared by <pthread.h> for C and for C++ built without exceptions only.
extern "C" void __pthread_register_cancel(__pthread_unwind_buf_t* buf) __cleanup_fct_attribute;
extern "C" void __pthread_unregister_cancel(__pthread_unwind_buf_t* buf) __cleanup_fct_attribute;
#elif !defined(_WIN32)
#include <signal.h>
#endif

namespace git_utils::binding {
namespace {

// Whether the interpreter was finalising when this thread last gave the lock
// up: then it is the thread that finalises it.
thread_local bool finalizing_thread = false;

bool interpreter_finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

// Never returns: the thread sleeps for as long as the process lives, with
// every signal held so that none meant for the exiting process lands here.
[[noreturn]] void park() {
#ifndef _WIN32
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
#endif
    for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
}

// What run_guarded does between registering its buffer and taking it away.
struct Work {
    enum Kind : unsigned char { TakeLock, Function, Method, Apply } kind;
    void* target;                  // the thread state; the callable; the method's name; the argument
    PyObject* const* args = nullptr;  // Method: args[0] is the object
    std::size_t nargs = 0;
    PyObject* kwargs = nullptr;    // Function: a dict, or null
    PyObject* (*apply)(PyObject*) = nullptr;
};

// Room for the arguments of one call, with the slot in front that
// PY_VECTORCALL_ARGUMENTS_OFFSET lets the callee borrow (a bound method puts
// its object there instead of copying the arguments).
constexpr std::size_t kMaxArgs = 8;

// Does `work` so that a forced unwind that ends the thread inside it stops in
// this frame, below every frame of ours, and the thread parks. Each call
// costs a sigsetjmp that saves no signal mask and two stores to the thread's
// descriptor (register and unregister); the thread's own buffer chain nests,
// so host code that calls the library again registers its own on top.
[[gnu::noinline]] PyObject* run_guarded(const Work& work) {
    PyObject* stack[1 + kMaxArgs];
    if (work.nargs > kMaxArgs) {
        PyErr_SetString(PyExc_SystemError, "git_utils: too many arguments for one call");
        return nullptr;
    }
    for (std::size_t i = 0; i < work.nargs; ++i) stack[1 + i] = work.args[i];
    const std::size_t nargsf = work.nargs | PY_VECTORCALL_ARGUMENTS_OFFSET;
#if defined(__GLIBC__)
    // As pthread_cleanup_push does: the jump back lands here, the thread
    // parks, and nothing after the call runs (no local is read again).
    __pthread_unwind_buf_t buffer;
    if (__sigsetjmp(reinterpret_cast<struct __jmp_buf_tag*>(buffer.__cancel_jmp_buf), 0) != 0) park();
    __pthread_register_cancel(&buffer);
#endif
    PyObject* result = nullptr;
    switch (work.kind) {
        case Work::TakeLock:
            PyEval_RestoreThread(static_cast<PyThreadState*>(work.target));
            break;
        case Work::Function:
            result = PyObject_VectorcallDict(static_cast<PyObject*>(work.target), stack + 1, nargsf, work.kwargs);
            break;
        case Work::Method:
            result = PyObject_VectorcallMethod(static_cast<PyObject*>(work.target), stack + 1, nargsf, nullptr);
            break;
        case Work::Apply:
            result = work.apply(static_cast<PyObject*>(work.target));
            break;
    }
#if defined(__GLIBC__)
    __pthread_unregister_cancel(&buffer);
#endif
    return result;
}

}  // namespace

PyThreadState* give_lock_up() {
    finalizing_thread = interpreter_finalizing();
    return PyEval_SaveThread();
}

bool parks_at_exit() { return !finalizing_thread && interpreter_finalizing(); }

void take_lock_back(PyThreadState* saved) {
    if (parks_at_exit()) park();
    run_guarded(Work{Work::TakeLock, saved});
}

PyObject* call_python(PyObject* callable, PyObject* const* args, std::size_t nargs, PyObject* kwargs) {
    return run_guarded(Work{Work::Function, callable, args, nargs, kwargs});
}

PyObject* call_python_method(PyObject* name, PyObject* const* args, std::size_t nargs) {
    return run_guarded(Work{Work::Method, name, args, nargs});
}

PyObject* apply_python(PyObject* (*fn)(PyObject*), PyObject* obj) {
    return run_guarded(Work{Work::Apply, obj, nullptr, 0, nullptr, fn});
}

}  // namespace git_utils::binding
