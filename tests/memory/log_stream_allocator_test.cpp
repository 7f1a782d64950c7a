#include <vlk/containers/mpmc_queue.hpp>
#include <vlk/memory/internal/log_stream_allocator_impl.hpp>
#include <vlk/memory/log_stream_allocator.hpp>
#include <vlk/system/mmap.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "../concurrency.hpp"

namespace {

constexpr std::uint64_t kBlocks = 40000 * vlk_test::stress_scale;

using vlk::log_stream_allocator;
using block_queue =
    vlk::lockfree::mpmc_queue<vlk::lockfree::mpmc_queue_traits<void*, 1024, 8, true, true>>;

std::int64_t liveMappings() {
    return static_cast<std::int64_t>(vlk::mmap_stats::mappedCount() -
                                     vlk::mmap_stats::unmappedCount());
}

// Sizes of the mix; every 997th block is large, with a mapping of its own.
std::uint64_t sizeOf(std::uint64_t i) {
    static constexpr std::uint64_t sizes[] = {0, 1, 40, 127, 128, 129, 300, 1000, 4000};
    return i % 997 == 0 ? 1200000 + i % 5000 : sizes[i % std::size(sizes)];
}

class LogStreamAllocator : public ::testing::Test {
  protected:
    void SetUp() override {
        log_stream_allocator::init();
        _baseline = liveMappings();
    }
    void TearDown() override {
        log_stream_allocator::reap();
        EXPECT_EQ(log_stream_allocator::retiredCount(), 0u);
        EXPECT_EQ(liveMappings(), _baseline) << "a slab or large block leaked";
    }
    std::int64_t _baseline = 0;
};

// One thread allocates, another checks each block's first and last byte and
// frees it; at most 4096 blocks are in flight. The producer's end retires
// its allocator, and the reap in TearDown must then unmap everything.
TEST_F(LogStreamAllocator, BlocksFreedOnAnotherThreadAreAllReturnedAndSlabsRecycled) {
    block_queue queue;
    std::atomic<std::uint64_t> consumed{0};
    const log_stream_allocator::slab_allocator* producerAllocator = nullptr;
    std::thread producer([&] {
        for (std::uint64_t i = 0; i < kBlocks; ++i) {
            while (i - consumed.load(std::memory_order_acquire) > 4096) {
                std::this_thread::yield();
            }
            auto* block = static_cast<unsigned char*>(log_stream_allocator::allocate(sizeOf(i)));
            std::memcpy(block, &i, sizeof i);
            block[sizeOf(i) < 96 ? 95 : sizeOf(i) - 1] = static_cast<unsigned char>(i);
            queue.put(block);
        }
        producerAllocator = log_stream_allocator::threadAllocator();
    });
    std::uint64_t bad = 0;
    for (std::uint64_t i = 0; i < kBlocks; ++i) {
        void* taken = nullptr;
        while (!queue.get(taken)) {
            std::this_thread::yield();
        }
        auto* block = static_cast<unsigned char*>(taken);
        std::uint64_t seen = 0;
        std::memcpy(&seen, block, sizeof seen);
        bad += seen != i || block[sizeOf(i) < 96 ? 95 : sizeOf(i) - 1] != (i & 0xff);
        log_stream_allocator::deallocate(block);
        consumed.store(i + 1, std::memory_order_release);
    }
    producer.join();
    EXPECT_EQ(bad, 0u);
    ASSERT_EQ(log_stream_allocator::retiredCount(), 1u);  // by the key at thread end
    EXPECT_EQ(producerAllocator->allocatedBytes(), producerAllocator->freedBytes());
    EXPECT_GT(producerAllocator->recycleCount(), 0u);
    EXPECT_LE(producerAllocator->slabCount(), 2u);  // the open one and the cached one
}

// First terminate() reaps and takes the process-wide part down, after which
// retiring is a no-op; init() builds it again for what follows. Frees of an
// ended thread's blocks count in its retired allocator, and reap destroys it
// only once nothing is in flight. threadTerminate retires early; the next
// allocation makes a new allocator, which the key retires.
TEST_F(LogStreamAllocator, AfterARestartEndedThreadsAllocatorsAreReapedOnlyWhenAllIsFreed) {
    std::thread([] { log_stream_allocator::deallocate(log_stream_allocator::allocate(1)); }).join();
    log_stream_allocator::terminate();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 0u);
    EXPECT_EQ(liveMappings(), _baseline);
    log_stream_allocator::threadTerminate();
    log_stream_allocator::init();
    void* blocks[3] = {};
    std::thread worker([&] {
        blocks[0] = log_stream_allocator::allocate(100);
        log_stream_allocator::threadTerminate();
        blocks[1] = log_stream_allocator::allocate(2000000);
        blocks[2] = log_stream_allocator::reallocate(log_stream_allocator::allocate(10), 200);
    });
    worker.join();
    // Retired allocators after each reap: the early one and the key's; the
    // free of block 0 counts in the first one, which is then idle and goes.
    const std::uint64_t expected[] = {2, 1, 1, 0};
    for (int step = 0; step < 4; ++step) {
        log_stream_allocator::reap();
        EXPECT_EQ(log_stream_allocator::retiredCount(), expected[step]) << step;
        if (step < 3) {
            log_stream_allocator::deallocate(blocks[step]);
        }
    }
}

}  // namespace
