// The toolkit's threads.
//
// `vlk::thread` is a copyable, reference-counted handle on a `vlk::thread_impl`,
// which wraps one POSIX thread. Three things set it apart from a bare
// pthread_create:
//   - start() returns only once the new thread runs, so tid() and self() are
//     valid as soon as it returns true;
//   - each thread runs with an alternate signal stack of 8192 bytes held in its
//     own thread_impl, so a handler for a stack overflow still has a stack;
//   - nothing escapes a thread's body: an escaped exception goes to the
//     escaped-exception reporter (fatal.hpp), and the process-wide thread
//     terminate function runs last on every thread however its body ended.
//
// start, join and detach may be called from any thread; they exclude each
// other through one adaptive mutex. Destroying the last handle neither joins
// nor stops the thread but frees the object the thread uses: the owner joins
// first, or keeps a handle for as long as a detached thread runs. A body that
// returns leaves the thread "running" until it is joined; a detached thread
// stays so for ever. The only exception thrown is start()'s vlk::exception
// when pthread_create fails, after which the object can be started again.
//
// The default stack size and the terminate function are plain process-wide
// settings without a lock: set them before the first thread starts.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include <vlk/system/mutex_lock.hpp>

namespace vlk {

class thread_impl {
  public:
    using function_type = std::function<void()>;

    // Values of `_state`; each is one bit so that a state can be tested alone.
    static constexpr std::uint32_t idle = 1;      // no thread; may be started
    static constexpr std::uint32_t starting = 2;  // created, not yet reported
    static constexpr std::uint32_t running = 4;   // the body has been entered
    static constexpr std::uint32_t joining = 8;   // pthread_join under way

    static constexpr std::size_t alternate_stack_size = 8192;
    // Smallest stack given to start(function, stackSize).
    static constexpr std::uint64_t minimum_stack_size = 16384;

    thread_impl() = default;
    explicit thread_impl(function_type function) : _function(std::move(function)) {}
    thread_impl(const thread_impl&) = delete;
    thread_impl& operator=(const thread_impl&) = delete;

    // Start with the stored body; false without a body or unless idle.
    bool start();
    bool start(const pthread_attr_t& attributes);
    // Replace the body first, even when the start then fails. A stack size of
    // 0 means the default stack size; if that is 0 too, the system's default
    // attributes are used; otherwise the size is raised to at least 16384.
    bool start(function_type function, std::uint64_t stackSize);
    bool start(function_type function, const pthread_attr_t& attributes);

    // Returns once the thread has ended, at once when idle or detached.
    void join();
    // Detaches a running thread; join then returns at once.
    void detach();

    pthread_t self() const { return _self; }
    pid_t tid() const { return _tid; }
    bool isRunning() const { return _state.load(std::memory_order_acquire) == running; }

    // The stack size of freshly initialised thread attributes.
    static std::uint64_t getstacksize();

    // Makes `_alternateStack` the calling thread's signal stack.
    void installAlternativeSignalStack() const;

    // The new thread's side of start: installs the alternate stack, reports
    // running, calls the body, reports what escapes it, calls the terminate
    // function. The caller's previous signal stack is put back at the end.
    void run();

  private:
    bool _start(const pthread_attr_t* attributes);
    // Returns when `state` is no longer starting.
    void _wait();
    // One bounded wait for `_startSignal` to move past `expected` (the value
    // with its low bit set); updates `expected` to what it saw.
    void _waitForSignal(std::uint32_t& expected, long timeoutNanoseconds);
    void _signalStarted();
    void _enterBody();
    static void* _entry(void* self);

    lock::mutex_lock _mutex;
    // One of the four states above. Transitions are compare-and-swaps with
    // acquire-release order; see the source for which pairs with which.
    std::atomic<std::uint32_t> _state{idle};
    // Threads created from this object, and threads that have reported
    // running. _start waits until they are equal; runCount's release
    // increment publishes `_self` and `_tid`.
    std::atomic<std::uint32_t> _startCount{0};
    std::atomic<std::uint32_t> _runCount{0};
    // 0, or 1 once detached; only set, under `_mutex`.
    std::atomic<std::uint32_t> _detached{0};
    pthread_t _handle{};
    pthread_t _self{};
    function_type _function;
    // What the new thread runs: a copy of `_function` made by _start before
    // the thread exists. start(function, ...) replaces `_function` without
    // a lock, even while a thread runs, and must not destroy the callable
    // that thread is executing.
    function_type _body;
    pid_t _tid = 0;
    // Futex word: bit 0 says somebody waits, bits 1-31 are a sequence the new
    // thread advances by 2 once it runs.
    std::atomic<std::uint32_t> _startSignal{0};
    // Written only by the kernel while a signal handler runs on it.
    alignas(16) mutable char _alternateStack[alternate_stack_size];
};

class thread {
  public:
    using function_type = thread_impl::function_type;

    // A handle with no body yet; start() fails until one is given.
    thread();
    explicit thread(function_type function);
    thread(const thread& other) noexcept;
    thread& operator=(const thread& other) noexcept;
    // The source is left without an object: start fails, self and tid are 0.
    thread(thread&& other) noexcept;
    thread& operator=(thread&& other) noexcept;
    ~thread();

    bool start() { return _impl != nullptr && _impl->start(); }
    bool start(const pthread_attr_t& attributes) {
        return _impl != nullptr && _impl->start(attributes);
    }
    bool start(function_type function, std::uint64_t stackSize) {
        return _impl != nullptr && _impl->start(std::move(function), stackSize);
    }
    bool start(function_type function, const pthread_attr_t& attributes) {
        return _impl != nullptr && _impl->start(std::move(function), attributes);
    }
    void join() {
        if (_impl != nullptr) {
            _impl->join();
        }
    }
    void detach() {
        if (_impl != nullptr) {
            _impl->detach();
        }
    }

    pthread_t self() const { return _impl != nullptr ? _impl->self() : pthread_t{}; }
    pid_t tid() const { return _impl != nullptr ? _impl->tid() : 0; }
    bool isRunning() const { return _impl != nullptr && _impl->isRunning(); }

    static std::uint64_t getstacksize() { return thread_impl::getstacksize(); }

  private:
    void _release() noexcept;

    // Shared by all copies; the last one to drop it frees both blocks.
    // Increments are relaxed (the copier already holds a reference); the
    // decrement is acquire-release so the freeing handle sees every use.
    std::atomic<std::uint32_t>* _references;
    thread_impl* _impl;
};

}  // namespace vlk

namespace vlk::system::thread {

// Records the default stack size of start(function, 0) and, where the libc
// offers pthread_setattr_default_np, makes it the default of threads not
// started by this class as well.
void defaultStackSize(std::uint64_t size);
std::uint64_t defaultStackSize();

// The function every toolkit thread calls as it ends; empty until set.
void setThreadTerminateFunction(std::function<void()> function);
// Calls the terminate function if one is set.
void thread_terminate();

}  // namespace vlk::system::thread
