#include <vlk/system/thread.hpp>

#include <cxxabi.h>
#include <dlfcn.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include <vlk/system/exception.hpp>
#include <vlk/system/fatal.hpp>
#include <vlk/system/host.hpp>

namespace vlk::system::_thread_detail {
namespace {

// Both are set before threads start and only read afterwards.
std::uint64_t g_defaultStackSize = 0;
std::function<void()>& terminateFunction() {
    static std::function<void()> function;
    return function;
}

long futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value,
           const timespec* timeout) {
    static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));
    return ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word),
                     operation | static_cast<int>(futex::g_private_bits), value, timeout, nullptr,
                     0);
}

}  // namespace

}  // namespace vlk::system::_thread_detail

namespace vlk::system::thread {

void defaultStackSize(std::uint64_t size) {
    _thread_detail::g_defaultStackSize = size;
    using setter = int (*)(const pthread_attr_t*);
    auto setDefault = reinterpret_cast<setter>(::dlsym(RTLD_DEFAULT, "pthread_setattr_default_np"));
    if (setDefault == nullptr) {
        return;
    }
    // A size the libc refuses leaves the attributes, and so its default, as
    // they were.
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    setDefault(&attributes);
    pthread_attr_destroy(&attributes);
}

std::uint64_t defaultStackSize() {
    return _thread_detail::g_defaultStackSize;
}

void setThreadTerminateFunction(std::function<void()> function) {
    _thread_detail::terminateFunction() = std::move(function);
}

void thread_terminate() {
    if (const auto& function = _thread_detail::terminateFunction()) {
        function();
    }
}

}  // namespace vlk::system::thread

namespace vlk {

namespace {

constexpr long startWaitNanoseconds = 10'000'000;
constexpr long stateWaitNanoseconds = 1'000'000;

// Puts back the signal stack a thread had before run(): the alternate stack
// lives in the thread_impl, which may be freed once the thread has ended,
// and a sanitizer runtime unmaps whatever signal stack is current when a
// thread exits. Also keeps a caller of run() on its own thread sound.
class signal_stack_scope {
  public:
    explicit signal_stack_scope(const thread_impl& impl) {
        if (::sigaltstack(nullptr, &_previous) != 0) {
            _previous.ss_flags = SS_DISABLE;
        }
        impl.installAlternativeSignalStack();
    }
    ~signal_stack_scope() { ::sigaltstack(&_previous, nullptr); }
    signal_stack_scope(const signal_stack_scope&) = delete;
    signal_stack_scope& operator=(const signal_stack_scope&) = delete;

  private:
    stack_t _previous{};
};

// Reports what escaped a body; should the reporter itself throw, the
// terminate function still runs before that exception goes on.
void report(std::string_view what) {
    try {
        system::reportEscapedException(what);
    } catch (...) {
        system::thread::thread_terminate();
        throw;
    }
}

}  // namespace

bool thread_impl::start() {
    return _start(nullptr);
}

bool thread_impl::start(const pthread_attr_t& attributes) {
    return _start(&attributes);
}

bool thread_impl::start(function_type function, std::uint64_t stackSize) {
    _function = std::move(function);
    if (stackSize == 0) {
        stackSize = system::thread::defaultStackSize();
        if (stackSize == 0) {
            return _start(nullptr);
        }
    }
    if (stackSize < minimum_stack_size) {
        stackSize = minimum_stack_size;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    struct destroy_attributes {
        pthread_attr_t* attributes;
        ~destroy_attributes() { pthread_attr_destroy(attributes); }
    } destroy{&attributes};
    return _start(&attributes);
}

bool thread_impl::start(function_type function, const pthread_attr_t& attributes) {
    _function = std::move(function);
    return _start(&attributes);
}

bool thread_impl::_start(const pthread_attr_t* attributes) {
    if (!_function) {
        return false;
    }
    std::uint32_t expected = idle;
    // Acquire: sees the previous thread's end as published by join's release
    // store of idle.
    if (!_state.compare_exchange_strong(expected, starting, std::memory_order_acq_rel)) {
        return false;
    }
    std::lock_guard guard(_mutex);
    try {
        _body = _function;
    } catch (...) {
        _state.store(idle, std::memory_order_release);
        throw;
    }
    std::uint32_t signal = _startSignal.load(std::memory_order_relaxed) | 1;
    int result = ::pthread_create(&_handle, attributes, &thread_impl::_entry, this);
    if (result != 0) {
        _state.store(idle, std::memory_order_release);
        throw vlk::exception("thread_impl::start - pthread_create failed: " +
                             error::strerror(result));
    }
    std::uint32_t started = _startCount.fetch_add(1, std::memory_order_relaxed) + 1;
    // Acquire: pairs with the release increment in _signalStarted, so `_self`
    // and `_tid` are visible once the counts agree.
    while (_runCount.load(std::memory_order_acquire) != started) {
        _waitForSignal(signal, startWaitNanoseconds);
    }
    return true;
}

void thread_impl::_waitForSignal(std::uint32_t& expected, long timeoutNanoseconds) {
    std::uint32_t seen = _startSignal.load(std::memory_order_acquire) | 1;
    if (seen != expected) {
        expected = seen;
        return;
    }
    for (;;) {
        // Announce the waiter before sleeping; the new thread wakes only when
        // it sees this bit in the value it advances.
        _startSignal.fetch_or(1, std::memory_order_acq_rel);
        seen = _startSignal.load(std::memory_order_acquire) | 1;
        if (seen != expected) {
            expected = seen;
            return;
        }
        // The timeout bounds a lost wake-up: the caller looks at its
        // condition again in any case.
        timespec timeout{0, timeoutNanoseconds};
        long result = system::_thread_detail::futex(_startSignal, FUTEX_WAIT, seen, &timeout);
        if (result == 0 || (result == -1 && errno != EINTR)) {
            return;
        }
    }
}

void thread_impl::_signalStarted() {
    // Release: publishes `_self` and `_tid`; pairs with the acquire load in
    // _start.
    _runCount.fetch_add(1, std::memory_order_release);
    std::uint32_t old = _startSignal.fetch_add(2, std::memory_order_acq_rel);
    if ((old & 1) != 0) {
        _startSignal.fetch_and(~std::uint32_t{1}, std::memory_order_relaxed);
        system::_thread_detail::futex(_startSignal, FUTEX_WAKE, INT_MAX, nullptr);
    }
}

void thread_impl::_wait() {
    std::uint32_t signal = _startSignal.load(std::memory_order_relaxed) | 1;
    while (_state.load(std::memory_order_acquire) == starting) {
        _waitForSignal(signal, stateWaitNanoseconds);
    }
}

void thread_impl::installAlternativeSignalStack() const {
    stack_t stack{};
    stack.ss_sp = _alternateStack;
    stack.ss_size = alternate_stack_size;
    stack.ss_flags = 0;
    ::sigaltstack(&stack, nullptr);
}

void* thread_impl::_entry(void* self) {
    static_cast<thread_impl*>(self)->run();
    return nullptr;
}

void thread_impl::_enterBody() {
    _self = ::pthread_self();
    _tid = system::threadId();
    // Taken over before start() returns, so that the next start finds
    // `_body` free; the captures die on this thread when the body ends.
    function_type body = std::move(_body);
    _signalStarted();
    body();  // an empty body throws std::bad_function_call
}

// The forced unwinding of pthread_exit carries no C++ object, so the
// reference its handler binds is null; the handler never touches it.
__attribute__((no_sanitize("null"))) void thread_impl::run() {
    signal_stack_scope signalStack(*this);
    std::uint32_t expected = starting;
    // Acquire-release: pairs with the acquire loads of `_state` in join,
    // detach and _wait.
    if (_state.compare_exchange_strong(expected, running, std::memory_order_acq_rel)) {
        try {
            _enterBody();
        } catch (abi::__forced_unwind&) {
            // pthread_exit or cancellation: the unwinding must go on, but the
            // thread still ends through the terminate function.
            system::thread::thread_terminate();
            throw;
        } catch (const vlk::exception& error) {
            report(error.why());
        } catch (const std::exception& error) {
            report(error.what());
        } catch (...) {
            report("unknown");
        }
    }
    system::thread::thread_terminate();
}

void thread_impl::join() {
    std::uint32_t state = _state.load(std::memory_order_acquire);
    if (state == idle || _detached.load(std::memory_order_acquire) != 0) {
        return;
    }
    if (state == starting) {
        _wait();
    }
    while (_state.load(std::memory_order_acquire) != idle) {
        std::lock_guard guard(_mutex);
        if (_detached.load(std::memory_order_relaxed) != 0) {
            return;
        }
        std::uint32_t expected = running;
        // A second joiner fails here once it gets the lock and finds the
        // thread joined (idle) and leaves through the loop condition.
        if (!_state.compare_exchange_strong(expected, joining, std::memory_order_acq_rel)) {
            continue;
        }
        int result = ::pthread_join(_handle, nullptr);
        if (result == 0) {
            // Release: pairs with the acquire compare-and-swap in _start.
            _state.store(idle, std::memory_order_release);
            return;
        }
        if (result == ESRCH) {
            return;
        }
        // Any other error leaves `joining`, and the loop spins until the
        // state changes.
    }
}

void thread_impl::detach() {
    std::uint32_t state = _state.load(std::memory_order_acquire);
    if (state == idle) {
        return;
    }
    if (state == starting) {
        _wait();
    }
    std::lock_guard guard(_mutex);
    std::uint32_t notDetached = 0;
    if (_state.load(std::memory_order_acquire) == running &&
        _detached.compare_exchange_strong(notDetached, 1, std::memory_order_acq_rel)) {
        ::pthread_detach(_handle);
    }
}

std::uint64_t thread_impl::getstacksize() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    std::size_t size = 0;
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size;
}

thread::thread() : _references(new std::atomic<std::uint32_t>(1)), _impl(new thread_impl) {}

thread::thread(function_type function)
    : _references(new std::atomic<std::uint32_t>(1)), _impl(new thread_impl(std::move(function))) {}

thread::thread(const thread& other) noexcept : _references(other._references), _impl(other._impl) {
    if (_references != nullptr) {
        _references->fetch_add(1, std::memory_order_relaxed);
    }
}

thread& thread::operator=(const thread& other) noexcept {
    if (other._references != nullptr) {
        other._references->fetch_add(1, std::memory_order_relaxed);
    }
    _release();
    _references = other._references;
    _impl = other._impl;
    return *this;
}

thread::thread(thread&& other) noexcept : _references(other._references), _impl(other._impl) {
    other._references = nullptr;
    other._impl = nullptr;
}

thread& thread::operator=(thread&& other) noexcept {
    if (this != &other) {
        _release();
        _references = other._references;
        _impl = other._impl;
        other._references = nullptr;
        other._impl = nullptr;
    }
    return *this;
}

thread::~thread() {
    _release();
}

void thread::_release() noexcept {
    if (_references != nullptr && _references->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete _references;
        delete _impl;
    }
}

}  // namespace vlk
