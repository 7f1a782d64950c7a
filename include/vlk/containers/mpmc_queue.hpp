// Unbounded multi-producer multi-consumer queue striped over lanes.
//
// A put takes a ticket with one atomic add and never waits for a consumer
// and never fails: a slow consumer costs memory, not producer time. Ticket t
// goes to lane t % lanes, and each lane fills its slots in ticket order, one
// producer and one consumer at a time, through a chain of blocks that are
// mapped, not taken from the heap; each lane keeps up to two emptied blocks
// for reuse, so a steady state maps nothing, whether the consumer leaves a
// block before or after the producer opens the next, and a drained queue
// holds at most three blocks a lane. The only lock is a lane's block
// lock, taken once per block at each end. A get returns false at once when
// every completed put has been taken; a get that claims a ticket whose put
// is still running waits for it. Records of one producer come out in the
// order it put them to any one consumer. put() and get() may run on any
// threads at once; clear() and the destructor must not run with either.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include <vlk/system/host.hpp>
#include <vlk/system/mmap.hpp>
#include <vlk/system/spin_lock.hpp>

namespace vlk::lockfree {

// Moves a record into an empty slot and out of a full one, leaving the slot
// empty (raw bytes) again.
template <typename Value>
struct mpmc_queue_value_traits {
    static void moveIn(void* slot, Value&& value) { new (slot) Value(std::move(value)); }

    static void moveOut(void* slot, Value& target) {
        Value* stored = std::launder(static_cast<Value*>(slot));
        target = std::move(*stored);
        stored->~Value();
    }
};

// Value type, slots per block, lanes, and the producer and consumer modes:
// `MultiProducer` and `MultiConsumer` true let any number of threads put and
// get. Single-producer and single-consumer forms could drop the ticket
// atomics, but they are not built.
template <typename Value, unsigned long EntriesPerBlock, unsigned long Lanes, bool MultiProducer,
          bool MultiConsumer, typename ValueTraits = mpmc_queue_value_traits<Value>>
struct mpmc_queue_traits {
    using value_type = Value;
    using value_traits = ValueTraits;
    static constexpr unsigned long entries_per_block = EntriesPerBlock;
    static constexpr unsigned long lanes = Lanes;
    static constexpr bool multi_producer = MultiProducer;
    static constexpr bool multi_consumer = MultiConsumer;
};

template <typename Traits>
class mpmc_queue {
  public:
    using value_type = typename Traits::value_type;
    using value_traits = typename Traits::value_traits;

    static constexpr std::uint64_t lane_count = Traits::lanes;
    static constexpr std::uint64_t entries_per_block = Traits::entries_per_block;
    static constexpr std::uint64_t last_slot = entries_per_block - 1;

    static_assert(Traits::multi_producer && Traits::multi_consumer,
                  "only the multi-producer multi-consumer form is built");
    static_assert(std::has_single_bit(lane_count) && std::has_single_bit(entries_per_block));
    static_assert(alignof(value_type) <= 128);

    // Where a ticket lands: its lane, the lane's turn (`base`, the ticket
    // with the lane bits cleared) and the slot within the lane's block.
    struct position {
        std::uint64_t lane;
        std::uint64_t base;
        std::uint64_t slot;
    };

    static constexpr position ticketPosition(std::uint64_t ticket) {
        constexpr int laneBits = std::countr_zero(lane_count);
        return {ticket & (lane_count - 1), ticket & ~(lane_count - 1),
                (ticket >> laneBits) & last_slot};
    }

    mpmc_queue() = default;
    mpmc_queue(const mpmc_queue&) = delete;
    mpmc_queue& operator=(const mpmc_queue&) = delete;
    ~mpmc_queue() { clear(); }

    void put(value_type&& value) {
        // Relaxed: the add only hands out distinct tickets; the record is
        // published through the lane's _writeIndex.
        _put(_reserveIndex.fetch_add(1, std::memory_order_relaxed), std::move(value));
    }

    // Moves the oldest unclaimed record into `target`; false when every
    // completed put has been taken.
    bool get(value_type& target) {
        std::uint64_t ticket = _getIndex.load(std::memory_order_relaxed);
        do {
            // Acquire: pairs with the release add of _putIndex in _put().
            if (ticket >= _putIndex.load(std::memory_order_acquire)) {
                return false;
            }
            // Relaxed: the claim only makes the ticket ours; the lane's
            // indices order the work on it. A failure reloads `ticket`.
        } while (!_getIndex.compare_exchange_weak(ticket, ticket + 1, std::memory_order_relaxed,
                                                  std::memory_order_relaxed));
        _take(ticket, target);
        return true;
    }

    // True when every completed put has been taken. A put still running is
    // not counted; a caller that must see it asks again.
    bool empty() const {
        // Acquire: pairs with the release add of _putIndex in _put().
        return _putIndex.load(std::memory_order_acquire) ==
               _getIndex.load(std::memory_order_relaxed);
    }

    // Records put and not yet claimed, as seen at some moment during the
    // call; a put still running is not counted.
    std::uint64_t size() const {
        // The get index first: it never passes the put index, so the
        // difference cannot wrap. Acquire pairs as in empty().
        const std::uint64_t taken = _getIndex.load(std::memory_order_relaxed);
        return _putIndex.load(std::memory_order_acquire) - taken;
    }

    // Drops every queued record, unmaps every block and resets the tickets.
    // No put or get may run meanwhile; that exclusion orders the relaxed
    // accesses here.
    void clear() {
        if (_putIndex.load(std::memory_order_acquire) !=
            _getIndex.load(std::memory_order_relaxed)) {
            value_type scratch{};
            while (_putIndex.load(std::memory_order_acquire) !=
                       _getIndex.load(std::memory_order_relaxed) &&
                   get(scratch)) {
            }
        }
        // Drained, each lane reads in the block it writes: _readBlock is
        // _writeBlock, or both are null.
        for (lane& each : _lanes) {
            if (mem_block* block = each._write._writeBlock.load(std::memory_order_relaxed)) {
                vlk::munmap(block, _blockBytes());
            }
            each._read._readIndex.store(0, std::memory_order_relaxed);
            each._read._readBlock.store(nullptr, std::memory_order_relaxed);
            each._write._writeIndex.store(0, std::memory_order_relaxed);
            each._write._writeBlock.store(nullptr, std::memory_order_relaxed);
            for (std::atomic<mem_block*>& spare : each._write._spareBlocks) {
                if (mem_block* block = spare.load(std::memory_order_relaxed)) {
                    vlk::munmap(block, _blockBytes());
                    spare.store(nullptr, std::memory_order_relaxed);
                }
            }
        }
        _reserveIndex.store(0, std::memory_order_relaxed);
        _putIndex.store(0, std::memory_order_relaxed);
        _getIndex.store(0, std::memory_order_relaxed);
    }

  private:
    // A mapping of its own: the link at its start, the slots from byte 128.
    struct mem_block {
        // Written by the lane's producer that opens the next block and read
        // by the consumer that leaves this one, both under _blockLock; set to
        // null before the block is linked, which the lock publishes.
        std::atomic<mem_block*> next{nullptr};
        alignas(128) std::byte slots[entries_per_block * sizeof(value_type)];
    };

    // Consumer half of a lane, on a 128-byte line of its own.
    struct alignas(128) read_half {
        // The turn of the lane's next consumer: the ticket base it may read.
        // Written only by the consumer whose turn it is (release), read by
        // the consumer of the next ticket in the lane (acquire).
        std::atomic<std::uint64_t> _readIndex{0};
        // The block being read. Changed by the lane's consumer, or by the
        // producer that opens the lane's first block, under _blockLock; read
        // by the consumer after the acquire loads of its turn and its slot.
        std::atomic<mem_block*> _readBlock{nullptr};
    };

    // Producer half of a lane, on the 128-byte line after the consumer half.
    struct alignas(128) write_half {
        // The turn of the lane's next producer: the ticket base it may write.
        // Invariant: _readIndex <= _writeIndex. Written only by the producer
        // whose turn it is (release, after its slot is filled); read by the
        // next producer and by consumers (acquire).
        std::atomic<std::uint64_t> _writeIndex{0};
        // The block being written; null until the lane's first put and after
        // the consumer leaves the last linked block. Changed under _blockLock.
        std::atomic<mem_block*> _writeBlock{nullptr};
        // Emptied blocks for reuse, or null. Each taken and offered by
        // compare-and-swap.
        std::atomic<mem_block*> _spareBlocks[2]{nullptr, nullptr};
        // Guards the links between blocks and the two block pointers as a
        // block passes from one end of the lane to the other.
        lock::spin_lock_impl<unsigned long> _blockLock;
    };

    struct lane {
        read_half _read;
        write_half _write;
    };
    static_assert(sizeof(lane) == 256 && offsetof(lane, _write) == 128);

    static unsigned long _blockBytes() {
        const unsigned long mask = system::pageMask();
        return (sizeof(mem_block) + mask) & ~mask;
    }

    static void* _slot(mem_block* block, std::uint64_t slot) {
        return block->slots + slot * sizeof(value_type);
    }

    void _put(std::uint64_t ticket, value_type&& value) {
        const position at = ticketPosition(ticket);
        lane& where = _lanes[at.lane];
        // The block comes before the wait for the turn, so that a mapping
        // does not hold up the producers behind this one.
        mem_block* opened = at.slot == 0 ? _takeBlock(where._write) : nullptr;
        lock::backoff wait;
        // Acquire: pairs with the release store below by the lane's previous
        // producer, so its slot and block links are visible here.
        while (where._write._writeIndex.load(std::memory_order_acquire) != at.base) {
            wait.round();
        }
        if (opened != nullptr) {
            _link(where, opened);
        }
        // Relaxed: the last change of _writeBlock was made under our own lock
        // or before the release store that our turn acquired.
        mem_block* block = where._write._writeBlock.load(std::memory_order_relaxed);
        value_traits::moveIn(_slot(block, at.slot), std::move(value));
        // Release: the slot is complete before the turn moves on; pairs with
        // the acquire loads of _writeIndex in _put() and _take().
        where._write._writeIndex.store(at.base + lane_count, std::memory_order_release);
        // Release: a consumer whose acquire load sees this count also sees
        // the store above; pairs with the acquire load in get().
        _putIndex.fetch_add(1, std::memory_order_release);
    }

    // A block for a ticket at slot 0: a spare of the lane, or a new mapping.
    mem_block* _takeBlock(write_half& half) {
        mem_block* block = nullptr;
        for (std::atomic<mem_block*>& spare : half._spareBlocks) {
            block = spare.load(std::memory_order_relaxed);
            // Acquire: pairs with the release compare-and-swap in
            // _deallocate(), so the consumer is done with the block before
            // it is refilled.
            if (block != nullptr &&
                spare.compare_exchange_strong(block, nullptr, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                break;
            }
            block = nullptr;
        }
        if (block == nullptr) {
            block = new (system::memory::mmap(_blockBytes())) mem_block;
        }
        // Relaxed: no other thread sees the block before _link() publishes
        // it under the lock.
        block->next.store(nullptr, std::memory_order_relaxed);
        return block;
    }

    // Appends a block to the lane's chain, or starts the chain. The lock's
    // acquire and release order the relaxed accesses inside.
    void _link(lane& where, mem_block* block) {
        where._write._blockLock.lock();
        mem_block* last = where._write._writeBlock.load(std::memory_order_relaxed);
        if (last == nullptr) {
            where._read._readBlock.store(block, std::memory_order_relaxed);
        } else {
            // `last->next` is null: only the producer at slot 0 links, and
            // the lane's turn lets one do so at a time.
            last->next.store(block, std::memory_order_relaxed);
        }
        where._write._writeBlock.store(block, std::memory_order_relaxed);
        where._write._blockLock.unlock();
    }

    void _take(std::uint64_t ticket, value_type& target) {
        const position at = ticketPosition(ticket);
        lane& where = _lanes[at.lane];
        lock::backoff wait;
        // Acquire: pairs with the release stores of _readIndex below by the
        // lane's previous consumer: its slot is empty and its block moves done.
        while (where._read._readIndex.load(std::memory_order_acquire) != at.base) {
            wait.round();
        }
        // _putIndex counts completions in any order, so this ticket's put
        // may still be running. Acquire: pairs with the release store of
        // _writeIndex in _put(); the slot is complete once the word moves.
        if (where._write._writeIndex.load(std::memory_order_acquire) == at.base) {
            lock::spinWhileEqual(&where._write._writeIndex, at.base);
        }
        // Relaxed: ordered by the acquire loads above.
        mem_block* block = where._read._readBlock.load(std::memory_order_relaxed);
        value_traits::moveOut(_slot(block, at.slot), target);
        if (at.slot != last_slot) {
            // Release: pairs with the acquire wait on _readIndex above.
            where._read._readIndex.store(at.base + lane_count, std::memory_order_release);
            return;
        }
        where._write._blockLock.lock();
        mem_block* next = block->next.load(std::memory_order_relaxed);
        where._read._readBlock.store(next, std::memory_order_relaxed);
        if (next == nullptr) {
            // No block is linked yet: the producer at the next slot 0 starts
            // the chain again.
            where._write._writeBlock.store(nullptr, std::memory_order_relaxed);
        }
        where._write._blockLock.unlock();
        // Release: pairs with the acquire wait on _readIndex above.
        where._read._readIndex.store(at.base + lane_count, std::memory_order_release);
        _deallocate(at.lane, block);
    }

    // Keeps an emptied block as a spare of the lane, or unmaps it when the
    // lane has two.
    void _deallocate(unsigned long laneIndex, mem_block* block) {
        for (std::atomic<mem_block*>& spare : _lanes[laneIndex]._write._spareBlocks) {
            mem_block* empty = nullptr;
            // Release: pairs with the acquire compare-and-swap in
            // _takeBlock(); the records moved out of the block happen before
            // a producer refills it.
            if (spare.load(std::memory_order_relaxed) == nullptr &&
                spare.compare_exchange_strong(empty, block, std::memory_order_release,
                                              std::memory_order_relaxed)) {
                return;
            }
        }
        vlk::munmap(block, _blockBytes());
    }

    // Tickets: next for a producer, completed puts, next for a consumer.
    // Each on a line of its own, as different threads write them.
    alignas(128) std::atomic<std::uint64_t> _reserveIndex{0};
    alignas(128) std::atomic<std::uint64_t> _putIndex{0};
    alignas(128) std::atomic<std::uint64_t> _getIndex{0};
    // Each lane on a 256-byte stride: its consumer half, then 128 bytes
    // behind it its producer half.
    alignas(128) lane _lanes[lane_count];
};

}  // namespace vlk::lockfree
