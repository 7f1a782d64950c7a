// The logger's machinery behind velk_logger: the implementation object with
// its queue, per-thread records and targets. Only the logging layer and its
// tests include this.
#pragma once

#include <semaphore.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <utility>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/catalogue/error_manager.hpp>
#include <vlk/containers/mpmc_queue.hpp>
#include <vlk/containers/shared_pointer.hpp>
#include <vlk/containers/worklist.hpp>
#include <vlk/logging/log_stream.hpp>
#include <vlk/logging/target_config.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/system/mutex_lock.hpp>
#include <vlk/system/thread.hpp>

namespace vlk {

namespace _velk_logger_detail {

// One thread's part of every record line it sends: its log id and, for each
// row of log_level_cstrings, the fixed middle " [<id>] <level>: ". Kept
// until the logger is destroyed, since queued messages point at it.
struct velk_logger_tsd_data {
    std::uint64_t logId = 0;
    std::string levelText[9];
};

// One queue slot, and the logging thread's working copy of one.
struct fast_log_message {
    velk_logger_tsd_data* tsd = nullptr;
    timeval time{};
    log_stream_buffer buffer;
    error_id id;
};

// A pointer per thread in a plain thread-local variable, made on first use
// by the creator, which receives the variable's address. Only the form
// without a pthread key is built.
template <typename T, bool UseKey>
class per_thread_global;

template <typename T>
class per_thread_global<T, false> {
  public:
    using creator_type = std::function<T*(T**)>;

    explicit per_thread_global(creator_type creator) : _creator(std::move(creator)) {}

    T* get() {
        T* data = _pT;
        return data != nullptr ? data : _creator(&_pT);
    }

    static inline constinit thread_local T* _pT = nullptr;

  private:
    creator_type _creator;
};

// Fills a slot and stamps it: the time is taken inside the lane's turn, so
// the records of one lane are in time order.
struct log_queue_value_traits {
    static void moveIn(void* slot, fast_log_message&& message) {
        auto* stored = new (slot) fast_log_message(std::move(message));
        ::gettimeofday(&stored->time, nullptr);
    }
    static void moveOut(void* slot, fast_log_message& target) {
        auto* stored = std::launder(static_cast<fast_log_message*>(slot));
        target = std::move(*stored);
        stored->~fast_log_message();
    }
};

class alignas(128) _velk_logger_impl {
  public:
    using log_queue = lockfree::mpmc_queue<
        lockfree::mpmc_queue_traits<fast_log_message, 1024, 8, true, true, log_queue_value_traits>>;

    _velk_logger_impl();
    ~_velk_logger_impl();
    _velk_logger_impl(const _velk_logger_impl&) = delete;
    _velk_logger_impl& operator=(const _velk_logger_impl&) = delete;

    void init();
    bool start();
    void flush();
    bool _flush(unsigned long milliseconds);
    void rotate();
    void shutdown();
    bool shutdown(unsigned long milliseconds);
    void terminate();

    bool willLog(const error_id& id) const {
        // Relaxed: the mask is one word, written by start() on the
        // configuring thread; any value it held is a valid filter.
        if ((id.level & _activeLevels.load(std::memory_order_relaxed)) != 0) {
            return true;
        }
        return !_includeErrors.empty() && _includeErrors.contains(id);
    }
    bool isFatalError(const error_id& id) const {
        return !_fatalErrors.empty() && _fatalErrors.contains(id);
    }

    void log(const error_id& id, const std::string& text);
    void log_with_move(const error_id& id, log_stream_buffer&& text) {
        if (_limited() && !_admit(text.capacity)) [[unlikely]] {
            text.reset();
            return;
        }
        _enqueue(id, std::move(text));
    }
    // A stream's text: under a limit, a record to drop never takes memory.
    void log_text(const error_id& id, message_text& text) {
        if (_limited() && !_admit(text.sizedCapacity())) [[unlikely]] {
            return;
        }
        _enqueue(id, text.take());
    }
    void _enqueue(const error_id& id, log_stream_buffer&& text) {
        fast_log_message message;
        message.tsd = _tsd.get();
        message.buffer = std::move(text);
        message.id = id;
        _logQueue.put(std::move(message));
        // Seq_cst: the producer's half of the pair that loses no wake-up;
        // see _wakeIfAsleep().
        if ((_messageCount.fetch_add(1, std::memory_order_seq_cst) + 1) % 128 == 0) {
            _wakeIfAsleep();
        }
    }

    // The 128th message's wake, paid only when the logging thread sleeps.
    //
    // No lost wake-up. A producer makes its seq_cst add to `_messageCount`
    // (after its put is complete), then this seq_cst load of `_asleep`. The
    // logging thread, before it sleeps, makes a seq_cst store of 1 to
    // `_asleep`, then a seq_cst load of `_messageCount` that it compares
    // with the records it has taken (_sleepUntilWoken()). All four are in
    // the one total order of seq_cst operations: if this load reads 0, it
    // comes before that store, so the add comes before the logging thread's
    // load, which then sees the message and drains instead of sleeping.
    // Otherwise this load reads 1 and the post goes out. A stale 1 costs one
    // spare post and one empty pass, never a message; a message whose count
    // is not a multiple of 128 waits for the 100 ms tick at the latest, which
    // also covers any post that the system would fail.
    void _wakeIfAsleep() {
        if (_asleep.load(std::memory_order_seq_cst) != 0) {
            ::sem_post(&_wakeup);
        }
    }

    // Relaxed: a setting made before logging starts; see setQueueLimit().
    bool _limited() const { return _queueLimit.load(std::memory_order_relaxed) != 0; }

    // What a queued record holds: its text's block and its slot.
    static std::int64_t _recordBytes(std::uint64_t capacity) {
        const std::uint64_t block = capacity == 0 ? 0 : log_stream_allocator::blockSize(capacity);
        return static_cast<std::int64_t>(block + sizeof(fast_log_message));
    }

    // Counts a record of text `capacity` into the queued bytes, or counts
    // it as dropped. Relaxed throughout: a bound on memory, which publishes
    // nothing.
    bool _admit(std::uint64_t capacity) {
        const std::int64_t bytes = _recordBytes(capacity);
        const auto limit = static_cast<std::int64_t>(_queueLimit.load(std::memory_order_relaxed));
        if (_queuedBytes.load(std::memory_order_relaxed) + bytes > limit) {
            _droppedCount.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        _queuedBytes.fetch_add(bytes, std::memory_order_relaxed);
        return true;
    }

    void addTarget(target_config& config);
    void addTargetFactory(const std::string& name, velk_logger::target_factory const& factory);
    void getLoggersInfo(base::worklist<file_logging_info>& files,
                        base::worklist<console_logging_info>& consoles,
                        base::worklist<syslog_logging_info>& syslogs);
    static void imbueBackTrace(log_stream& stream);

    velk_logger_tsd_data* threadData() { return _tsd.get(); }
    // Stores the level mask and keeps velk_logger's filter word equal to it
    // and to whether `_includeErrors` names rows.
    void _setActiveLevels(std::uint32_t levels);

    // 0 before init(), 1 while it runs, 2 after.
    std::atomic<std::uint32_t> _initState{0};
    // 1 while no logging thread runs; start() takes it to 0 and shutdown()
    // back to 1, each by compare-and-swap so that one caller wins.
    std::atomic<std::uint32_t> _stopped{1};
    // Set by the logging thread as it returns, cleared by start(). Release
    // there, acquire in the timed shutdown: seen set, the join is immediate.
    std::atomic<bool> _threadEnded{false};
    // A timed shutdown stopped the thread but did not see it end; only the
    // thread that shuts down reads and writes it.
    bool _joinPending = false;
    // Messages queued; one in 128 posts the semaphore, if the logging
    // thread sleeps. Raised seq_cst by producers (see _wakeIfAsleep()).
    std::atomic<std::uint64_t> _messageCount{0};
    thread _loggingThread;
    std::string _hostname;
    std::string _userId;
    std::string _programName;
    alignas(128) per_thread_global<velk_logger_tsd_data, false> _tsd;
    alignas(128) sem_t _wakeup;
    // 1 while the logging thread sleeps on `_wakeup` or does not run, 0
    // while it drains; producers read it on every 128th message, the
    // logging thread writes it twice a sleep. See _wakeIfAsleep().
    std::atomic<std::uint32_t> _asleep{1};
    // Raised at the end of every pass of the logging thread. Release there,
    // acquire in the waiters: a waiter that sees it move sees what the pass
    // did to the targets.
    std::atomic<std::uint64_t> _flushGeneration{0};
    // Sleeps that ended at the tick rather than by a post; a statistic for
    // tests and diagnostics, relaxed.
    std::atomic<std::uint64_t> _tickWakes{0};
    // Non-zero: the targets are to rotate at the next pass.
    std::atomic<std::uint64_t> _rotateRequested{0};
    // The queued-bytes limit, 0 for none; then the bytes queued under it
    // (signed: records queued before the limit was set leave it below 0)
    // and the records dropped since the last notice. All relaxed: see
    // _admit().
    alignas(128) std::atomic<std::uint64_t> _queueLimit{0};
    std::atomic<std::int64_t> _queuedBytes{0};
    std::atomic<std::uint64_t> _droppedCount{0};
    alignas(128) lock::mutex_lock _tsdLock;  // guards _tsdList
    base::worklist<velk_logger_tsd_data*> _tsdList;
    alignas(128) log_queue _logQueue;
    // The targets' include and fatal sets merged. Written only while no
    // logging thread runs and before other threads log.
    error_set _includeErrors;
    error_set _fatalErrors;
    base::worklist<base::shared_pointer<velk_logger::logger>> _targets;
    // The same targets, as the logging thread walks them.
    base::worklist<velk_logger::logger*> _targetList;
    // Where the logging thread composes each record line; never shrinks.
    log_stream _lineBuffer;
    // Records taken from the queue; only the thread that drains writes and
    // reads it (the logging thread, or terminate() once it has stopped).
    std::uint64_t _takenCount = 0;
    std::map<std::string, velk_logger::target_factory> _targetFactories;
    // The mask willLog reads: all levels until start(), then the union of
    // the targets' levels.
    std::atomic<std::uint32_t> _activeLevels{0xFF};
    std::uint32_t _configuredLevels = 0;

    // Log ids handed out; the first thread gets 1.
    static inline std::atomic<std::uint32_t> _threadCounter{0};

  private:
    velk_logger_tsd_data* _createData(velk_logger_tsd_data** slot);
    void _loggingThreadEntryPoint();
    void _processLogQueue();
    bool _lingerForWork();
    void _sleepUntilWoken();
    void _drainQueue();
    void _composeLine(const fast_log_message& message);
    void _releaseQueued(const fast_log_message& message);
    void _releaseTargets();
    // After the thread has been told to stop: join it, shut the targets
    // down and release them.
    void _joinAndRelease();
    void _waitForPass(std::uint64_t generation);
};

}  // namespace _velk_logger_detail

}  // namespace vlk
