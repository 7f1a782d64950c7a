#include <vlk/memory/log_stream_allocator.hpp>
#include <vlk/memory/mmap.hpp>
#include <vlk/memory/mpsc_slab_allocator.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

namespace {

#if defined(__SANITIZE_THREAD__)  // GCC
#define VLK_UNDER_TSAN 1
#elif defined(__has_feature)  // Clang
#if __has_feature(thread_sanitizer)
#define VLK_UNDER_TSAN 1
#endif
#endif
#if defined(VLK_UNDER_TSAN)
constexpr int kRaceRounds = 150;
#else
constexpr int kRaceRounds = 1000;
#endif

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

// Tears an idle allocator down as a reaper does.
struct tear_down {
    void operator()(allocator* a) const {
        EXPECT_TRUE(a->idle());
        EXPECT_TRUE(a->releaseSlabs());
        EXPECT_FALSE(a->releaseSlabs());
        delete a;
    }
};
using owned_allocator = std::unique_ptr<allocator, tear_down>;

TEST(MpscSlabAllocator, RoundsRequestsToGranulesAndMapsOnlyAboveOneMebibyte) {
    const struct {
        std::uint64_t request, rounded;
    } sizes[] = {{0, 128},          {1, 256},          {127, 256},
                 {128, 256},        {129, 384},        {~0ul, 128},
                 {~0ul - 127, 128}, {~0ul - 254, 128}, {~0ul - 255, ~0ul - 127}};
    for (const auto& c : sizes) {
        EXPECT_EQ(allocator::roundedSize(c.request), c.rounded) << c.request;
    }

    const std::int64_t baseline = liveMappings();
    {
        owned_allocator a(new allocator);
        // allocate(0): a usable 128-byte block; the next one follows it.
        void* zero = a->allocate(0);
        void* next = a->allocate(0);
        EXPECT_EQ(headerOf(zero).size, 128u);
        EXPECT_EQ(static_cast<char*>(next) - static_cast<char*>(zero), 128);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(zero) % 16, 0u);
        std::memset(zero, 0xab, 96);
        EXPECT_EQ(headerOf(next).allocator, a.get());  // the header survived
        EXPECT_EQ(liveMappings(), baseline + 1);

        // Page-rounded exactly 1 MiB: from a slab; one byte or one page
        // more: a mapping of its own, unmapped by its free.
        const struct {
            std::uint64_t request;
            bool large;
            std::uint64_t size;
        } blocks[] = {{requestFor(kMiB), false, kMiB},
                      {requestFor(kMiB) + 1, true, kMiB + 4096},
                      {requestFor(kMiB + 4096), true, kMiB + 4096},
                      {3 * kMiB, true, 3 * kMiB + 4096}};
        for (const auto& b : blocks) {
            const std::int64_t before = liveMappings();
            void* block = a->allocate(b.request);
            EXPECT_EQ(headerOf(block).slab == nullptr, b.large) << b.request;
            EXPECT_EQ(headerOf(block).size, b.size) << b.request;
            std::memset(block, 1, b.request);
            if (b.large) {
                EXPECT_EQ(liveMappings(), before + 1);
                allocator::deallocate(block);
                EXPECT_EQ(liveMappings(), before);
            } else {
                allocator::deallocate(block);
            }
        }
        allocator::deallocate(zero);
        allocator::deallocate(next);
        EXPECT_EQ(a->allocatedBytes(), a->freedBytes());
    }
    EXPECT_EQ(liveMappings(), baseline);
}

TEST(MpscSlabAllocator, ABlockLeavingUnderTheTailRetiresTheSlabAndSlabsDouble) {
    owned_allocator a(new allocator);
    void* first = a->allocate(0);
    const mpsc_slab* slab1 = a->currentSlab();
    ASSERT_NE(slab1, nullptr);
    EXPECT_EQ(slab1->_id, 1u);
    EXPECT_EQ(slab1->_size, 131072u);
    // Leaves exactly 512: still open.
    void* middle = a->allocate(requestFor(131072 - 128 - 512));
    EXPECT_EQ(a->currentSlab(), slab1);
    EXPECT_EQ(slab1->_finalCount.load(), mpsc_slab::open_mark);
    // Leaves 384: retired at once with its three blocks, not recycled.
    void* last = a->allocate(0);
    EXPECT_EQ(a->currentSlab(), nullptr);
    EXPECT_EQ(slab1->_finalCount.load(), 3u);
    EXPECT_EQ(slab1->_liveCount.load(), 3u);

    void* other = a->allocate(0);
    ASSERT_NE(a->currentSlab(), nullptr);
    EXPECT_EQ(a->currentSlab()->_id, 2u);
    EXPECT_EQ(a->currentSlab()->_size, 262144u);
    EXPECT_EQ(a->slabCount(), 2u);

    for (void* block : {first, last}) {
        allocator::deallocate(block);
    }
    EXPECT_EQ(a->recycleCount(), 0u);
    allocator::deallocate(middle);  // the last one
    EXPECT_EQ(a->recycleCount(), 1u);
    EXPECT_EQ(a->cachedSlab(), slab1);
    EXPECT_EQ(slab1->_id, 1u);
    EXPECT_EQ(slab1->_used, 0u);
    EXPECT_EQ(slab1->_finalCount.load(), mpsc_slab::open_mark);
    allocator::deallocate(other);
}

// Walks a slab through retired, cached, current again; then a cached slab
// too small for the request is unmapped.
TEST(MpscSlabAllocator, OneEmptiedSlabIsKeptForTheNextSlabAndATooSmallOneIsUnmapped) {
    const std::int64_t baseline = liveMappings();
    {
        owned_allocator a(new allocator);
        // The first block of a slab is carved on the slow path, which does
        // not look at the tail; the second one retires slab 1.
        void* o = a->allocate(0);
        void* p = a->allocate(requestFor(131072 - 128 - 256));
        const mpsc_slab* slab1 = headerOf(p).slab;
        EXPECT_EQ(a->currentSlab(), nullptr);
        void* q = a->allocate(0);  // slab 2, 262144 bytes
        const mpsc_slab* slab2 = a->currentSlab();
        EXPECT_EQ(liveMappings(), baseline + 2);

        allocator::deallocate(o);
        allocator::deallocate(p);
        EXPECT_EQ(a->cachedSlab(), slab1);
        EXPECT_EQ(liveMappings(), baseline + 2);  // kept mapped

        void* r = a->allocate(requestFor(262144 - 128 - 384));  // retires slab 2
        EXPECT_EQ(a->currentSlab(), nullptr);
        void* s = a->allocate(0);  // takes slab 1 from the cache
        EXPECT_EQ(a->currentSlab(), slab1);
        EXPECT_EQ(slab1->_id, 1u);
        EXPECT_EQ(a->cachedSlabCount(), 0u);
        EXPECT_EQ(liveMappings(), baseline + 2);

        allocator::deallocate(q);
        allocator::deallocate(r);
        EXPECT_EQ(a->cachedSlab(), slab2);
        EXPECT_EQ(a->recycleCount(), 2u);

        // No room in slab 1: it retires (s is live); slab 2 is too small,
        // goes back; slab 3 takes the larger of twice 262144 and the block.
        void* t = a->allocate(400000);
        EXPECT_EQ(a->cachedSlabCount(), 0u);
        EXPECT_EQ(a->currentSlab()->_id, 3u);
        EXPECT_EQ(a->currentSlab()->_size, 524288u);
        EXPECT_EQ(a->slabCount(), 2u);            // slabs 1 and 3
        EXPECT_EQ(liveMappings(), baseline + 2);  // slab 2 out, slab 3 in
        allocator::deallocate(s);
        EXPECT_EQ(a->cachedSlab(), slab1);
        allocator::deallocate(t);
    }
    EXPECT_EQ(liveMappings(), baseline);
}

TEST(MpscSlabAllocator, ReallocateKeepsShrinkingBlocksAndMovesGrowingOnesWithTheirBytes) {
    const std::int64_t baseline = liveMappings();
    {
        owned_allocator a(new allocator);
        owned_allocator b(new allocator);
        void* p = a->allocate(100);  // 256 bytes, 224 usable
        for (std::uint64_t size : {0ul, 50ul, 128ul}) {
            EXPECT_EQ(a->reallocate(p, size), p) << size;
        }
        EXPECT_EQ(headerOf(p).size, 256u);
        EXPECT_EQ(a->allocatedBytes(), 256u);

        auto fill = [](void* block, std::uint64_t bytes) {
            for (std::uint64_t i = 0; i < bytes; ++i) {
                static_cast<unsigned char*>(block)[i] = static_cast<unsigned char>(i * 7 + 3);
            }
        };
        auto holds = [](const void* block, std::uint64_t bytes) {
            for (std::uint64_t i = 0; i < bytes; ++i) {
                if (static_cast<const unsigned char*>(block)[i] !=
                    static_cast<unsigned char>(i * 7 + 3)) {
                    return false;
                }
            }
            return true;
        };
        fill(p, 224);
        // Slab to slab, slab to mapping, mapping to mapping; each old block
        // is freed.
        void* block = p;
        std::uint64_t kept = 224;
        for (std::uint64_t size : {1000ul, 2 * kMiB, 3 * kMiB}) {
            void* moved = a->reallocate(block, size);
            EXPECT_NE(moved, block);
            EXPECT_TRUE(holds(moved, kept)) << size;
            fill(moved, size);
            block = moved;
            kept = size;
        }
        EXPECT_EQ(a->freeCount(), 3u);
        EXPECT_EQ(liveMappings(), baseline + 2);  // a's slab and the 3 MiB block

        // A block of another allocator moves into this one and is freed
        // in its own.
        void* foreign = b->allocate(10);
        fill(foreign, 10);
        void* taken = a->reallocate(foreign, 500);
        EXPECT_EQ(headerOf(taken).allocator, a.get());
        EXPECT_TRUE(holds(taken, 10));
        EXPECT_EQ(b->freeCount(), 1u);
        allocator::deallocate(taken);
        allocator::deallocate(block);
    }
    EXPECT_EQ(liveMappings(), baseline);
}

// The owner retires a slab (no room for its next block) while another
// thread frees the slab's last block. Exactly one of them must recycle it:
// none leaks the slab, both would cache or free it twice.
TEST(MpscSlabAllocatorRace, RetiringOwnerAndLastFreeRecycleTheSlabExactlyOnce) {
    const std::int64_t baseline = liveMappings();
    int ownerRecycled = 0;
    int freerRecycled = 0;
    for (int round = 0; round < kRaceRounds; ++round) {
        owned_allocator a(new allocator);
        void* block = a->allocate(requestFor(131072 - 1024));  // 1024 left: open
        const mpsc_slab* slab = a->currentSlab();
        const std::uint64_t mappedBefore = vlk::mmap_stats::mappedCount();

        std::atomic<int> arrived{0};
        auto meet = [&arrived] {
            arrived.fetch_add(1);
            while (arrived.load() < 2) {
            }
        };
        std::thread freer([&] {
            meet();
            allocator::deallocate(block);
        });
        meet();
        void* next = a->allocate(2000);  // no room: retires the slab
        freer.join();

        ASSERT_EQ(a->recycleCount(), 1u) << "round " << round;
        if (a->currentSlab() == slab) {
            // Recycled at retirement, then taken back from the cache.
            EXPECT_EQ(vlk::mmap_stats::mappedCount(), mappedBefore);
            EXPECT_EQ(a->cachedSlabCount(), 0u);
            ++ownerRecycled;
        } else {
            // Recycled by the free, after a new slab was made.
            EXPECT_EQ(a->cachedSlab(), slab);
            EXPECT_EQ(vlk::mmap_stats::mappedCount(), mappedBefore + 1);
            ++freerRecycled;
        }
        allocator::deallocate(next);
    }
    EXPECT_EQ(liveMappings(), baseline);
    std::printf("recycled by the owner %d times, by the free %d times\n", ownerRecycled,
                freerRecycled);
}

}  // namespace
