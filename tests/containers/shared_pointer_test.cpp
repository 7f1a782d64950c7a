#include <vlk/containers/shared_pointer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

// The test binary's own operator new and delete count every call and, while
// recording, log which block goes back, so the order of a release shows.
namespace {

struct event {
    enum { freed, destroyed } kind;
    std::uintptr_t address;
};

std::atomic<long> g_allocations{0};
std::atomic<long> g_frees{0};
std::atomic<bool> g_recording{false};
event g_events[8];
std::atomic<int> g_eventCount{0};

void record(event e) {
    if (g_recording.load()) {
        const int index = g_eventCount.fetch_add(1);
        if (index < 8) {
            g_events[index] = e;
        }
    }
}

// Logs the address as a number: the block is gone once std::free returns.
[[gnu::noinline]] void releaseBlock(void* block) noexcept {
    if (block != nullptr) {
        g_frees.fetch_add(1);
        record({event::freed, reinterpret_cast<std::uintptr_t>(block)});
    }
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
    g_allocations.fetch_add(1);
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    releaseBlock(block);
}
void operator delete(void* block, std::size_t) noexcept {
    releaseBlock(block);
}

namespace {

using vlk::base::shared_pointer;

struct target_base {
    virtual ~target_base() = default;
};

struct target : target_base {
    explicit target(std::atomic<int>& deaths) : _deaths(deaths) {}
    ~target() override {
        _deaths.fetch_add(1);
        record({event::destroyed, reinterpret_cast<std::uintptr_t>(this)});
    }
    std::atomic<int>& _deaths;
};

TEST(SharedPointer, EmptyPointerReleasesToNothingWithoutTheAllocator) {
    const long allocations = g_allocations.load(), frees = g_frees.load();
    {
        shared_pointer<target_base> empty;
        shared_pointer<target_base> copy(empty);
        shared_pointer<target_base> moved(std::move(copy));
        moved = empty;
        empty.destroy();
        EXPECT_EQ(moved.useCount(), 0);
        EXPECT_EQ(moved.get(), nullptr);
    }
    EXPECT_EQ(g_allocations.load(), allocations);
    EXPECT_EQ(g_frees.load(), frees);
}

TEST(SharedPointer, LastReleaseFreesTheCountThenDeletesTheObjectOnce) {
    std::atomic<int> deaths{0};
    auto* object = new target(deaths);
    shared_pointer<target_base> first(object);  // deleted through the base
    {
        shared_pointer<target_base> second(first);
        EXPECT_EQ(first.useCount(), 2);
        second.destroy();
        EXPECT_EQ(second.useCount(), 0);
        EXPECT_EQ(first.useCount(), 1);
    }  // the destructor of a released holder releases nothing more
    EXPECT_EQ(deaths.load(), 0);

    g_eventCount.store(0);
    g_recording.store(true);
    first.destroy();
    first.destroy();
    g_recording.store(false);
    EXPECT_EQ(deaths.load(), 1);
    ASSERT_EQ(g_eventCount.load(), 3);
    EXPECT_EQ(g_events[0].kind, event::freed);  // the count block first
    EXPECT_NE(g_events[0].address, reinterpret_cast<std::uintptr_t>(object));
    EXPECT_EQ(g_events[1].kind, event::destroyed);
    EXPECT_EQ(g_events[2].kind, event::freed);
    EXPECT_EQ(g_events[2].address, reinterpret_cast<std::uintptr_t>(object));
    EXPECT_EQ(first.useCount(), 0);
}

TEST(SharedPointer, CopiesReleasedOnManyThreadsDeleteOnce) {
    std::atomic<int> deaths{0};
    shared_pointer<target_base> owner(new target(deaths));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50000; ++i) {
                shared_pointer<target_base> copy(owner);
                shared_pointer<target_base> moved(std::move(copy));
                copy = moved;
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(owner.useCount(), 1);
    EXPECT_EQ(deaths.load(), 0);
    owner.destroy();
    EXPECT_EQ(deaths.load(), 1);
}

}  // namespace
