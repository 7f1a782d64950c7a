// Short-term waiting: the back-off rule and the spin lock.
//
// Every loop that waits for another thread's word runs one back-off round
// between two looks: 1, 2, 4, 8 and 16 pause instructions, then a
// sched_yield at each further round. `spin_lock_impl` is a one-word lock for
// critical sections of a few instructions; it keeps errno, so it may be taken
// between a failing system call and the code that reads errno. Neither has a
// time limit.
#pragma once

#include <sched.h>

#include <atomic>
#include <cerrno>

namespace vlk::lock {

class backoff {
  public:
    void round() {
        if (_pauses <= 16) {
            for (unsigned int i = 0; i < _pauses; ++i) {
                __builtin_ia32_pause();
            }
            _pauses *= 2;
        } else {
            ::sched_yield();
        }
    }

  private:
    unsigned int _pauses = 1;
};

// Waits with back-off until `*address` differs from `value`. Acquire: what
// the thread that changed the word wrote before its release store is
// visible on return.
template <typename Word>
[[gnu::noinline]] void spinWhileEqual(const std::atomic<Word>* address, Word value) {
    backoff wait;
    while (address->load(std::memory_order_acquire) == value) {
        wait.round();
    }
}

template <typename Word>
class spin_lock_impl {
  public:
    constexpr spin_lock_impl() = default;
    spin_lock_impl(const spin_lock_impl&) = delete;
    spin_lock_impl& operator=(const spin_lock_impl&) = delete;

    void lock() {
        if (tryLock()) {
            return;
        }
        int savedErrno = errno;  // sched_yield in the back-off may change it
        backoff wait;
        while (!tryLock()) {
            wait.round();
        }
        errno = savedErrno;
    }

    // Release: publishes the critical section to the next lock()'s acquire.
    void unlock() { _word.store(0, std::memory_order_release); }

    bool tryLock() {
        Word expected = 0;
        // Acquire: pairs with the release store of unlock().
        return _word.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                             std::memory_order_relaxed);
    }

    bool isLocked() const { return _word.load(std::memory_order_relaxed) != 0; }

  private:
    std::atomic<Word> _word{0};  // 0 free, 1 held
};

}  // namespace vlk::lock
