#include <vlk/memory/log_stream_allocator.hpp>

#include <mutex>

#include <vlk/memory/internal/log_stream_allocator_impl.hpp>
#include <vlk/system/init_once.hpp>

template class vlk::memory::mpsc_slab_allocator<
    vlk::_log_stream_allocator_detail::log_stream_allocator_traits>;

namespace vlk {
namespace _log_stream_allocator_detail {
namespace {

// Constant-initialised, so it is ready before any static initialiser runs;
// its destructor at exit tears the process-wide part down.
constinit system::init_once<log_stream_allocator_impl> g_holder;

}  // namespace

log_stream_allocator_impl::log_stream_allocator_impl() {
    ::pthread_key_create(&_key, &log_stream_allocator::_retireFromKey);
}

log_stream_allocator_impl::~log_stream_allocator_impl() {
    std::lock_guard guard(_retiredLock);
    _reapLocked();
}

bool log_stream_allocator_impl::retire(slab_allocator* allocator) {
    std::lock_guard guard(_retiredLock);
    if (!_retired.insert(allocator).second) {
        return false;
    }
    _retiredCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void log_stream_allocator_impl::reap() {
    if (_retiredCount.load(std::memory_order_relaxed) == 0) {
        return;
    }
    std::lock_guard guard(_retiredLock);
    _reapLocked();
}

void log_stream_allocator_impl::_reapLocked() {
    for (auto it = _retired.begin(); it != _retired.end();) {
        slab_allocator* allocator = *it;
        // Its owner ended before it entered the set under this lock, so its
        // allocation count is final; idle() also waits out the frees.
        if (!allocator->idle()) {
            ++it;
            continue;
        }
        if (allocator->releaseSlabs()) {
            delete allocator;
        }
        it = _retired.erase(it);
        _retiredCount.fetch_sub(1, std::memory_order_relaxed);
    }
}

}  // namespace _log_stream_allocator_detail

using _log_stream_allocator_detail::g_holder;

void log_stream_allocator::init() {
    g_holder.init();
}

void log_stream_allocator::terminate() {
    g_holder.shutdown();
}

void log_stream_allocator::threadTerminate() {
    if (g_holder.state() != g_holder.ready) {
        return;
    }
    if (_allocator != nullptr && g_holder.get()->retire(_allocator)) {
        _allocator = nullptr;
    }
}

// Destructor of the key, at the end of a thread. A value that is not the
// thread's current allocator was retired by threadTerminate() already.
void log_stream_allocator::_retireFromKey(void* value) {
    if (value != _allocator || g_holder.state() != g_holder.ready) {
        return;
    }
    if (_allocator != nullptr && g_holder.get()->retire(_allocator)) {
        _allocator = nullptr;
    }
}

void log_stream_allocator::reap() {
    if (g_holder.state() == g_holder.ready) {
        g_holder.get()->reap();
    }
}

std::uint64_t log_stream_allocator::retiredCount() {
    return g_holder.state() == g_holder.ready ? g_holder.get()->retiredCount() : 0;
}

std::uint64_t log_stream_allocator::blockSize(std::uint64_t size) {
    return slab_allocator::roundedSize(size);
}

void* log_stream_allocator::allocate(unsigned long size) {
    slab_allocator* allocator = _allocator;
    if (allocator == nullptr) [[unlikely]] {
        allocator = _createAllocator();
    }
    return allocator->allocate(size);
}

void log_stream_allocator::deallocate(void* block) {
    slab_allocator::deallocate(block);
}

void* log_stream_allocator::reallocate(void* block, unsigned long size) {
    slab_allocator* allocator = _allocator;
    if (allocator == nullptr) {
        allocator = _createAllocator();
    }
    return allocator->reallocate(block, size);
}

log_stream_allocator::slab_allocator* log_stream_allocator::_createAllocator() {
    const pthread_key_t key = g_holder.init()->key();
    auto* allocator = new slab_allocator;
    _allocator = allocator;
    ::pthread_setspecific(key, allocator);
    return allocator;
}

}  // namespace vlk
