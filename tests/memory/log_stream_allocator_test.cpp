#include <vlk/memory/log_stream_allocator.hpp>
#include <vlk/memory/mmap.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

#if defined(__SANITIZE_THREAD__)  // GCC
#define VLK_UNDER_TSAN 1
#elif defined(__has_feature)  // Clang
#if __has_feature(thread_sanitizer)
#define VLK_UNDER_TSAN 1
#endif
#endif
#if defined(VLK_UNDER_TSAN)
constexpr std::uint64_t kBlocks = 40000;
#else
constexpr std::uint64_t kBlocks = 400000;
#endif

using vlk::log_stream_allocator;
using slab_allocator = log_stream_allocator::slab_allocator;

std::int64_t liveMappings() {
    return static_cast<std::int64_t>(vlk::mmap_stats::mappedCount() -
                                     vlk::mmap_stats::unmappedCount());
}

// Bounded single-producer single-consumer ring: the test's stand-in for the
// logger's queue.
class block_ring {
  public:
    void push(void* block) {
        const std::uint64_t tail = _tail.load(std::memory_order_relaxed);
        while (tail - _head.load(std::memory_order_acquire) == _slots.size()) {
            std::this_thread::yield();
        }
        _slots[tail % _slots.size()] = block;
        _tail.store(tail + 1, std::memory_order_release);  // pairs with pop's acquire
    }
    void* pop() {
        const std::uint64_t head = _head.load(std::memory_order_relaxed);
        while (_tail.load(std::memory_order_acquire) == head) {
            std::this_thread::yield();
        }
        void* block = _slots[head % _slots.size()];
        _head.store(head + 1, std::memory_order_release);  // pairs with push's acquire
        return block;
    }

  private:
    std::array<void*, 4096> _slots{};
    alignas(128) std::atomic<std::uint64_t> _head{0};
    alignas(128) std::atomic<std::uint64_t> _tail{0};
};

// Sizes of the stress mix; every 997th block is a large, mapped one.
std::uint64_t sizeOf(std::uint64_t i) {
    static constexpr std::uint64_t sizes[] = {0, 1, 40, 100, 127, 128, 129, 300, 1000, 4000};
    return i % 997 == 0 ? 1200000 + i % 5000 : sizes[i % std::size(sizes)];
}

// Stamps the first bytes and the last byte of a block with its number.
void stamp(void* block, std::uint64_t i, std::uint64_t size) {
    std::memcpy(block, &i, sizeof i);
    static_cast<unsigned char*>(block)[size < 96 ? 95 : size - 1] = static_cast<unsigned char>(i);
}
bool stamped(const void* block, std::uint64_t i, std::uint64_t size) {
    std::uint64_t seen;
    std::memcpy(&seen, block, sizeof seen);
    return seen == i && static_cast<const unsigned char*>(block)[size < 96 ? 95 : size - 1] ==
                            static_cast<unsigned char>(i);
}

class LogStreamAllocator : public ::testing::Test {
  protected:
    void SetUp() override {
        log_stream_allocator::init();
        log_stream_allocator::reap();
        ASSERT_EQ(log_stream_allocator::retiredCount(), 0u);
        _baseline = liveMappings();
    }
    void TearDown() override {
        log_stream_allocator::reap();
        EXPECT_EQ(log_stream_allocator::retiredCount(), 0u);
        EXPECT_EQ(liveMappings(), _baseline) << "a slab or large block leaked";
    }
    std::int64_t _baseline = 0;
};

// One thread allocates, another checks and frees; the producer ends first,
// so the last slabs are recycled or reaped by the consumer's side.
TEST_F(LogStreamAllocator, BlocksFreedOnAnotherThreadAreAllReturnedAndSlabsRecycled) {
    block_ring ring;
    const slab_allocator* producerAllocator = nullptr;
    std::atomic<bool> producerDone{false};
    std::thread producer([&] {
        for (std::uint64_t i = 0; i < kBlocks; ++i) {
            void* block = log_stream_allocator::allocate(sizeOf(i));
            stamp(block, i, sizeOf(i));
            ring.push(block);
        }
        producerAllocator = log_stream_allocator::threadAllocator();
        producerDone.store(true);
    });
    std::uint64_t bad = 0;
    std::thread consumer([&] {
        for (std::uint64_t i = 0; i < kBlocks; ++i) {
            void* block = ring.pop();
            bad += stamped(block, i, sizeOf(i)) ? 0 : 1;
            log_stream_allocator::deallocate(block);
        }
    });
    producer.join();
    consumer.join();
    EXPECT_EQ(bad, 0u);
    ASSERT_EQ(log_stream_allocator::retiredCount(), 1u);  // by the key at thread end
    // Retired, not yet reaped: its counters can still be read.
    EXPECT_EQ(producerAllocator->allocationCount(), kBlocks);
    EXPECT_EQ(producerAllocator->freeCount(), kBlocks);
    EXPECT_EQ(producerAllocator->allocatedBytes(), producerAllocator->freedBytes());
    EXPECT_GT(producerAllocator->recycleCount(), 0u);
    EXPECT_LE(producerAllocator->slabCount(), 2u);  // the open one and the cached one
}

// A thread that ends leaves its allocator retired; frees from other threads
// are counted there, and reap destroys it only once nothing is in flight.
// threadTerminate retires early and the next allocation makes a new one.
TEST_F(LogStreamAllocator, EndedThreadsAllocatorsAreReapedOnlyWhenAllBlocksAreFreed) {
    void* small = nullptr;
    void* large = nullptr;
    void* afterTerminate = nullptr;
    const slab_allocator* first = nullptr;
    const slab_allocator* second = nullptr;
    std::thread worker([&] {
        small = log_stream_allocator::allocate(100);
        first = log_stream_allocator::threadAllocator();
        log_stream_allocator::threadTerminate();
        EXPECT_EQ(log_stream_allocator::threadAllocator(), nullptr);
        log_stream_allocator::threadTerminate();  // nothing to retire
        large = log_stream_allocator::allocate(2000000);
        afterTerminate = log_stream_allocator::reallocate(log_stream_allocator::allocate(10), 20);
        second = log_stream_allocator::threadAllocator();
    });
    worker.join();
    EXPECT_NE(first, second);
    // One by threadTerminate, one by the key; the key's value for the
    // first allocator was replaced, so it was not retired twice.
    EXPECT_EQ(log_stream_allocator::retiredCount(), 2u);

    log_stream_allocator::reap();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 2u);
    log_stream_allocator::deallocate(small);
    EXPECT_EQ(first->freeCount(), 1u);
    log_stream_allocator::reap();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 1u);  // first gone
    log_stream_allocator::deallocate(large);
    log_stream_allocator::reap();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 1u);  // afterTerminate in flight
    log_stream_allocator::deallocate(afterTerminate);
    log_stream_allocator::reap();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 0u);
}

// terminate() reaps and takes the process-wide part down; retiring is then
// a no-op and init() builds it again.
TEST_F(LogStreamAllocator, TerminateReapsAndInitStartsAgain) {
    void* block = nullptr;
    std::thread worker([&] { block = log_stream_allocator::allocate(1); });
    worker.join();
    log_stream_allocator::deallocate(block);
    EXPECT_EQ(log_stream_allocator::retiredCount(), 1u);
    log_stream_allocator::terminate();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 0u);
    EXPECT_EQ(liveMappings(), _baseline);
    log_stream_allocator::threadTerminate();  // not ready: nothing happens
    log_stream_allocator::init();
    std::thread again([&] { log_stream_allocator::deallocate(log_stream_allocator::allocate(1)); });
    again.join();
    EXPECT_EQ(log_stream_allocator::retiredCount(), 1u);
}

}  // namespace
