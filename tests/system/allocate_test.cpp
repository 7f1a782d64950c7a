#include <vlk/system/allocate.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>

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

namespace aligned = vlk::memory::aligned;

TEST(AlignedAllocate, ResultIsAlignedAndKeepsTheRawPointer) {
    for (unsigned long size : {0ul, 1ul, 127ul, 128ul, 4096ul, 1ul << 20}) {
        void* block = aligned::allocate<128>(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 128, 0u) << size;
        std::memset(block, 0xAB, size);  // the whole size is usable
        aligned::deallocate(block);
    }
    auto* zeroed = static_cast<unsigned char*>(aligned::callocate<128>(300));
    EXPECT_EQ(std::count(zeroed, zeroed + 300, 0), 300);
    aligned::deallocate(zeroed);
}

// The second size's alignment slack would wrap around: it is refused, not
// shrunk.
TEST(AlignedAllocate, ExhaustedHeapEndsTheProcess) {
    const char* message =
        "VELK encountered a fatal condition and is exiting: allocate failed: out of memory\\.";
    for (unsigned long size : {~0ul - 1024, ~0ul - 64}) {
        EXPECT_EXIT(aligned::allocate<128>(size), testing::ExitedWithCode(255), message) << size;
    }
}

struct built {
    static inline std::atomic<int> constructed{0}, destroyed{0};
    built() { constructed.fetch_add(1); }
    ~built() { destroyed.fetch_add(1); }
    char line[128];  // no alignment of its own: the guard gives it 128
};

TEST(InitOnce, BuildsOnceUnderRaceAndRebuildsAfterShutdown) {
    vlk::system::init_once<built> guard;
    EXPECT_EQ(guard.get(), nullptr);
    EXPECT_EQ(guard.shutdown(), 0);  // nothing to tear down
    std::array<built*, 8> seen{};
    vlk_test::onThreads(8, [&](unsigned i) { seen[i] = guard.init(); });
    EXPECT_EQ(std::count(seen.begin(), seen.end(), guard.get()), 8);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(seen[0]) % 128, 0u);
    EXPECT_EQ(guard.shutdown(), 1);
    EXPECT_EQ(guard.get(), nullptr);
    EXPECT_NE(guard.init(), nullptr);
    EXPECT_EQ(std::pair(built::constructed.load(), built::destroyed.load()), std::pair(2, 1));
}

}  // namespace
