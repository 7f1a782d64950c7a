// The long-term lock of the toolkit: one adaptive pthread mutex.
//
// An adaptive mutex spins briefly before it sleeps, which suits sections that
// are short but may contend. `mutex_lock` has `lock`, `unlock` and
// `try_lock`, so it works with `std::lock_guard` and `std::unique_lock`. Not
// recursive: a thread that locks it twice deadlocks. Neither copyable nor
// movable, since the pthread object must stay where it was initialised.
// Construction allocates nothing.
#pragma once

#include <pthread.h>

namespace vlk::lock {

class mutex_lock {
  public:
    mutex_lock() noexcept {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~mutex_lock() { pthread_mutex_destroy(&_mutex); }

    mutex_lock(const mutex_lock&) = delete;
    mutex_lock& operator=(const mutex_lock&) = delete;

    void lock() noexcept { pthread_mutex_lock(&_mutex); }
    void unlock() noexcept { pthread_mutex_unlock(&_mutex); }
    // True when the lock was free and is now held by the caller.
    bool try_lock() noexcept { return pthread_mutex_trylock(&_mutex) == 0; }

    pthread_mutex_t* native_handle() noexcept { return &_mutex; }

  private:
    pthread_mutex_t _mutex;
};

}  // namespace vlk::lock
