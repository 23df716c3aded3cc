// Taking the interpreter lock back after a stretch without it (a git run, a
// large scan), in a way that survives the interpreter's exit.
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
//  - Finalisation may also begin while the thread waits for the lock. On
//    glibc the request is made under a cancellation buffer of its own, the
//    one C code registers with pthread_cleanup_push: glibc's unwinder jumps
//    back to it as soon as the unwinding would leave libpython's frames (C
//    frames without cleanups), before any frame of ours is looked at, and the
//    thread parks there. Elsewhere (macOS, musl, Windows) ending a thread
//    unwinds nothing.
// A parked thread holds no lock and touches nothing; the process ends as the
// exiting thread decides, exactly as with a daemon thread that CPython ends.
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

}  // namespace

PyThreadState* give_lock_up() {
    finalizing_thread = interpreter_finalizing();
    return PyEval_SaveThread();
}

bool parks_at_exit() { return !finalizing_thread && interpreter_finalizing(); }

void take_lock_back(PyThreadState* saved) {
    if (parks_at_exit()) park();
#if defined(__GLIBC__)
    __pthread_unwind_buf_t exit_buffer;
    if (__sigsetjmp(reinterpret_cast<struct __jmp_buf_tag*>(exit_buffer.__cancel_jmp_buf), 0) != 0) park();
    __pthread_register_cancel(&exit_buffer);
    PyEval_RestoreThread(saved);
    __pthread_unregister_cancel(&exit_buffer);
#else
    PyEval_RestoreThread(saved);
#endif
}

}  // namespace git_utils::binding
