#include <vlk/system/allocate.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <vlk/system/init_once.hpp>

#include "../concurrency.hpp"

// Under AddressSanitizer and ThreadSanitizer a failed allocation must come
// back as null, as it does from glibc, for the out-of-memory path to be
// reached.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

TEST(AlignedAllocate, ResultIsAlignedAndKeepsTheRawPointer) {
    for (unsigned long size : {0ul, 1ul, 127ul, 128ul, 4096ul, 1ul << 20}) {
        void* block = vlk::memory::aligned::allocate<128>(size);
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        EXPECT_EQ(address % 128, 0u) << size;
        const auto raw = reinterpret_cast<std::uintptr_t>(vlk::memory::aligned::rawPointer(block));
        EXPECT_GT(address, raw);
        EXPECT_LE(address, raw + 128);
        std::memset(block, 0xAB, size);  // the whole size is usable
        vlk::memory::aligned::deallocate(block);
    }
    auto* zeroed = static_cast<unsigned char*>(vlk::memory::aligned::callocate<128>(300));
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(zeroed[i], 0) << i;
    }
    vlk::memory::aligned::deallocate(zeroed);
}

TEST(AlignedAllocate, ExhaustedHeapEndsTheProcess) {
    const char* message =
        "VELK encountered a fatal condition and is exiting: allocate failed: out of memory\\.";
    EXPECT_EXIT(vlk::memory::aligned::allocate<128>(~0ul - 1024), testing::ExitedWithCode(255),
                message);
    // A size whose alignment slack would wrap around is refused, not shrunk.
    EXPECT_EXIT(vlk::memory::aligned::allocate<128>(~0ul - 64), testing::ExitedWithCode(255),
                message);
}

struct built {
    static inline std::atomic<int> constructed{0};
    static inline std::atomic<int> destroyed{0};
    built() { constructed.fetch_add(1); }
    ~built() { destroyed.fetch_add(1); }
    alignas(128) char line[128];
};

TEST(InitOnce, BuildsOnceUnderRaceAndRebuildsAfterShutdown) {
    vlk::system::init_once<built> guard;
    EXPECT_EQ(guard.get(), nullptr);
    EXPECT_EQ(guard.shutdown(), 0);  // nothing to tear down: the state word

    std::vector<built*> seen(8);
    vlk_test::onThreads(8, [&](unsigned i) { seen[i] = guard.init(); });
    EXPECT_EQ(built::constructed.load(), 1);
    for (built* p : seen) {
        EXPECT_EQ(p, seen[0]);
    }
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(seen[0]) % 128, 0u);
    EXPECT_EQ(guard.state(), 2);

    EXPECT_EQ(guard.shutdown(), 1);
    EXPECT_EQ(built::destroyed.load(), 1);
    EXPECT_EQ(guard.state(), 0);
    EXPECT_EQ(guard.get(), nullptr);

    EXPECT_NE(guard.init(), nullptr);
    EXPECT_EQ(built::constructed.load(), 2);
}

// An abandoning guard's destructor, the one that runs at exit, empties the
// guard without destroying or freeing the object. The guard lives in static
// storage, so the object stays reachable for the leak checker.
struct kept {
    static inline int destroyed = 0;
    ~kept() { ++destroyed; }
    char mark = 'k';
};

TEST(InitOnce, AbandoningDestructorLeavesTheObjectIntact) {
    using abandoning = vlk::system::init_once<kept, vlk::system::exit_policy::abandon>;
    alignas(abandoning) static unsigned char storage[sizeof(abandoning)];
    auto* guard = new (storage) abandoning();
    kept* object = guard->init();
    guard->~abandoning();
    EXPECT_EQ(kept::destroyed, 0);
    EXPECT_EQ(object->mark, 'k');  // under AddressSanitizer, also not freed
}

}  // namespace
