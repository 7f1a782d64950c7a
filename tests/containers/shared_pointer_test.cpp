#include <vlk/containers/shared_pointer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "../concurrency.hpp"

// This binary's operator new and delete count their calls.
namespace {
std::atomic<long> g_allocations{0};
std::atomic<long> g_frees{0};

// Out of line, so that the compiler does not track the freed block into the
// code that called delete.
[[gnu::noinline]] void countAndFree(void* block) noexcept {
    g_frees.fetch_add(block != nullptr);
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
    countAndFree(block);
}
void operator delete(void* block, std::size_t) noexcept {
    countAndFree(block);
}

namespace {

using vlk::base::shared_pointer;

// Deletes, and notes how many blocks were freed by then and how often.
struct noting_policy {
    static inline long freesAtDeletion = 0;
    static inline int deletions = 0;
    template <typename T>
    static void destroy(T* object) {
        freesAtDeletion = g_frees.load();
        ++deletions;
        delete object;
    }
};

struct base {
    virtual ~base() = default;
};
struct derived : base {
    explicit derived(bool& destroyed) : _destroyed(destroyed) {}
    ~derived() override { _destroyed = true; }
    bool& _destroyed;
};

TEST(SharedPointer, EmptyPointerReleasesToNothingWithoutTheAllocator) {
    const long allocations = g_allocations.load(), frees = g_frees.load();
    {
        shared_pointer<base> empty;
        shared_pointer<base> copy(empty);
        shared_pointer<base> moved(std::move(copy));
        moved = empty;
        empty.destroy();
        EXPECT_EQ(moved.useCount(), 0);
    }
    EXPECT_EQ(g_allocations.load(), allocations);
    EXPECT_EQ(g_frees.load(), frees);
}

TEST(SharedPointer, LastReleaseFreesTheCountBeforeDeletingTheObjectOnce) {
    bool destroyed = false;
    shared_pointer<base, noting_policy> first(new derived(destroyed));
    {
        shared_pointer<base, noting_policy> second(first);
        EXPECT_EQ(first.useCount(), 2);
        second.destroy();
        EXPECT_EQ(second.useCount(), 0);
    }  // a released holder's destructor releases nothing more
    EXPECT_EQ(first.useCount(), 1);
    EXPECT_EQ(noting_policy::deletions, 0);

    const long frees = g_frees.load();
    first.destroy();
    first.destroy();
    EXPECT_EQ(noting_policy::deletions, 1);
    EXPECT_EQ(noting_policy::freesAtDeletion, frees + 1);  // the count went first
    EXPECT_TRUE(destroyed);                                // through the virtual destructor
    EXPECT_EQ(first.useCount(), 0);
}

TEST(SharedPointer, CopiesReleasedOnManyThreadsDeleteOnce) {
    bool destroyed = false;
    shared_pointer<base> owner(new derived(destroyed));
    vlk_test::onThreads(4, [&](unsigned) {
        for (int i = 0; i < 50000; ++i) {
            shared_pointer<base> copy(owner);
            shared_pointer<base> moved(std::move(copy));
            copy = moved;
        }
    });
    EXPECT_EQ(owner.useCount(), 1);
    EXPECT_FALSE(destroyed);
    owner.destroy();
    EXPECT_TRUE(destroyed);
}

}  // namespace
