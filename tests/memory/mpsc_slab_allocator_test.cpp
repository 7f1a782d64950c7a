#include <vlk/memory/internal/log_stream_allocator_impl.hpp>
#include <vlk/memory/log_stream_allocator.hpp>
#include <vlk/system/mmap.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "../concurrency.hpp"

namespace {

constexpr int kRaceRounds = 300 * vlk_test::stress_scale;

using allocator = vlk::log_stream_allocator::slab_allocator;
using vlk::memory::mpsc_slab;
constexpr std::uint64_t kMiB = 1048576;

std::int64_t liveMappings() {
    return static_cast<std::int64_t>(vlk::mmap_stats::mappedCount() -
                                     vlk::mmap_stats::unmappedCount());
}
// A request whose rounded size is exactly `rounded`.
constexpr std::uint64_t requestFor(std::uint64_t rounded) {
    return rounded - 128;
}
const allocator::header& headerOf(void* block) {
    return *allocator::headerOf(block);
}
void free(std::initializer_list<void*> blocks) {
    for (void* block : blocks) {
        allocator::deallocate(block);
    }
}

// Owns an allocator; tears it down as a reaper does and checks that no
// mapping outlived it.
struct owned_allocator : std::unique_ptr<allocator> {
    owned_allocator() : std::unique_ptr<allocator>(new allocator) {}
    ~owned_allocator() {
        EXPECT_TRUE(get()->idle());
        EXPECT_TRUE(get()->releaseSlabs());
        EXPECT_FALSE(get()->releaseSlabs());
        reset();
        EXPECT_EQ(liveMappings(), baseline);
    }
    std::int64_t baseline = liveMappings();
};

TEST(MpscSlabAllocator, RoundsRequestsToGranulesAndMapsOnlyAboveOneMebibyte) {
    const std::uint64_t rounding[][2] = {
        // clang-format off
        {0, 128}, {1, 256}, {128, 256}, {129, 384},
        {~0ul, 128}, {~0ul - 254, 128}, {~0ul - 255, ~0ul - 127},  // 128 + size wraps
        // clang-format on
    };
    for (const auto& [request, rounded] : rounding) {
        EXPECT_EQ(allocator::roundedSize(request), rounded) << request;
    }
    owned_allocator a;
    // Page-rounded to exactly 1 MiB: from a slab; any more: mapped alone,
    // and unmapped by its free.
    const struct {
        std::uint64_t request, size;
        bool large;
    } blocks[] = {{requestFor(kMiB), kMiB, false}, {requestFor(kMiB) + 1, kMiB + 4096, true}};
    for (const auto& b : blocks) {
        const std::int64_t before = liveMappings();
        void* block = a->allocate(b.request);
        std::memset(block, 1, b.request);
        EXPECT_EQ(headerOf(block).size, b.size);
        EXPECT_EQ(liveMappings(), before + 1);  // the large block, or the 1 MiB slab
        allocator::deallocate(block);
        EXPECT_EQ(liveMappings(), before + (b.large ? 0 : 1));
    }
}

// A slab goes open -> retired (by the tail rule, or by no room) -> cached ->
// current again; a cached slab too small for the request is unmapped.
TEST(MpscSlabAllocator, SlabsRetireRecycleIntoTheCacheAndDoubleInSize) {
    owned_allocator a;
    void* o = a->allocate(0);  // a first block takes the slow path, no tail test
    const mpsc_slab* slab1 = a->currentSlab();
    EXPECT_EQ(slab1->_size, 131072u);
    void* p = a->allocate(requestFor(131072 - 128 - 512));  // exactly 512 left: open
    void* q = a->allocate(0);  // 384 left: retired at once, so r needs a new slab
    void* r = a->allocate(0);
    const mpsc_slab* slab2 = a->currentSlab();
    EXPECT_EQ(slab2->_size, 262144u);
    free({o, p});
    EXPECT_EQ(a->recycleCount(), 0u);  // q, in slab 1 too, is still live
    free({q});                         // the last block: cached, still mapped
    EXPECT_EQ(a->cachedSlab(), slab1);
    EXPECT_EQ(liveMappings(), a.baseline + 2);

    void* s = a->allocate(requestFor(262144 - 128 - 384));  // retires slab 2
    void* t = a->allocate(0);                               // served by the cached slab 1
    EXPECT_EQ(a->currentSlab(), slab1);
    free({r, s});
    EXPECT_EQ(a->cachedSlab(), slab2);
    // No room in slab 1 (t stays live); slab 2 is too small and unmapped;
    // slab 3 is twice the last size.
    void* u = a->allocate(400000);
    EXPECT_EQ(a->currentSlab()->_size, 524288u);
    EXPECT_EQ(a->cachedSlabCount(), 0u);
    EXPECT_EQ(liveMappings(), a.baseline + 2);
    free({t, u});
    EXPECT_EQ(a->cachedSlab(), slab1);
}

TEST(MpscSlabAllocator, ReallocateKeepsShrinkingBlocksAndMovesGrowingOnesWithTheirBytes) {
    owned_allocator a;
    auto b = std::make_unique<allocator>();
    void* block = b->allocate(100);  // 256 bytes, 224 usable
    for (std::uint64_t size : {0ul, 50ul, 128ul}) {
        EXPECT_EQ(b->reallocate(block, size), block) << size;
    }
    EXPECT_EQ(b->allocatedBytes(), 256u);
    // Another allocator's block, then slab to mapping, mapping to mapping.
    std::uint64_t kept = 224;
    for (std::uint64_t size : {1000ul, 2 * kMiB, 3 * kMiB}) {
        std::vector<unsigned char> bytes(kept);
        std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(size / 7));
        std::memcpy(block, bytes.data(), kept);
        void* moved = a->reallocate(block, size);
        EXPECT_NE(moved, block);
        EXPECT_EQ(headerOf(moved).allocator, a.get());
        EXPECT_EQ(std::memcmp(moved, bytes.data(), kept), 0) << size;
        block = moved;
        kept = size;
    }
    EXPECT_TRUE(b->idle());
    EXPECT_TRUE(b->releaseSlabs());
    b.reset();
    EXPECT_EQ(a->freeCount(), 2u);
    free({block});
}

// The owner retires a slab (no room for its next block) while another
// thread frees the slab's last block, both released by one spin barrier per
// round. Exactly one of them must recycle it: neither would leak the slab,
// both would cache or free it twice.
TEST(MpscSlabAllocatorRace, RetiringOwnerAndLastFreeRecycleTheSlabExactlyOnce) {
    std::atomic<int> arrived{0};
    auto meet = [&arrived](int round) {
        arrived.fetch_add(1);
        while (arrived.load() < 2 * (round + 1)) {
        }
    };
    std::atomic<void*> handoff{nullptr};
    std::thread freer([&] {
        for (int round = 0; round < kRaceRounds; ++round) {
            void* block;
            while ((block = handoff.exchange(nullptr)) == nullptr) {
            }
            meet(round);
            allocator::deallocate(block);
        }
    });
    for (int round = 0; round < kRaceRounds; ++round) {
        owned_allocator a;
        void* block = a->allocate(requestFor(131072 - 1024));  // 1024 left: open
        const mpsc_slab* slab = a->currentSlab();
        const std::uint64_t mapped = vlk::mmap_stats::mappedCount();
        handoff.store(block);
        meet(round);
        void* next = a->allocate(2000);  // no room: retires the slab
        while (a->freeCount() == 0) {
        }
        ASSERT_EQ(a->recycleCount(), 1u) << "round " << round;
        // Recycled at retirement and taken back at once, or recycled by the
        // free after a new slab was mapped.
        const bool owner = a->currentSlab() == slab;
        EXPECT_EQ(a->cachedSlab(), owner ? nullptr : slab);
        EXPECT_EQ(vlk::mmap_stats::mappedCount(), mapped + (owner ? 0 : 1));
        allocator::deallocate(next);
    }
    freer.join();
}

}  // namespace
