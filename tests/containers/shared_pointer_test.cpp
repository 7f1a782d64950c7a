#include <vlk/containers/shared_pointer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

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
using pointer = shared_pointer<int, noting_policy>;

TEST(SharedPointer, LastReleaseFreesTheCountBeforeDeletingTheObjectOnceOnAnyThread) {
    noting_policy::deletions = 0;
    const long allocations = g_allocations.load();
    pointer empty, copy(empty), moved(std::move(copy));
    moved = empty;
    empty.destroy();
    EXPECT_EQ(g_allocations.load(), allocations);  // an empty pointer has no count
    pointer first(new int(1));
    {
        pointer second(first);
        second.destroy();
    }  // a released holder holds no count: its destructor releases nothing more
    EXPECT_EQ(first.useCount(), 1);
    const long frees = g_frees.load();
    first.destroy();
    first.destroy();
    EXPECT_EQ(noting_policy::deletions, 1);
    EXPECT_EQ(noting_policy::freesAtDeletion, frees + 1);  // the count went first
    // Copies made and released on many threads at once.
    pointer owner(new int(1));
    vlk_test::onThreads(4, [&](unsigned) {
        for (int i = 0; i < 50000; ++i) {
            pointer copy(owner);
            pointer moved(std::move(copy));
            copy = moved;
        }
    });
    EXPECT_EQ(owner.useCount(), 1);
    EXPECT_EQ(noting_policy::deletions, 1);
    owner.destroy();
    EXPECT_EQ(noting_policy::deletions, 2);
}

}  // namespace
