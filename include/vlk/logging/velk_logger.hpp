// The logger: the server's one way of saying anything.
//
// Any thread logs a catalogue row with its values and returns at once: the
// text is built on the caller's thread into a buffer from
// `log_stream_allocator` and moved into an unbounded lock-free queue. One
// logging thread pops the queue, composes each record line and hands it to
// every target, each of which filters for itself. No caller ever waits for a
// file, a disk or a lock, and no message is dropped for lack of room.
//
// Order of life: init() (from here every level is queued), addTarget() for
// each target, start() (the level mask becomes the targets' union, the
// thread starts and delivers what was queued), running, shutdown() (a last
// drain, the thread is joined, targets shut down and released), terminate()
// (what is still queued goes to a standard-error fallback at "error" and
// above; the logger is destroyed, then the allocator). Configuration calls
// take no lock and belong before start() or after shutdown().
//
// A call costs one thread-local load, a queue ticket, a turn, one
// gettimeofday and two atomic increments. The thread is woken by a
// semaphore once in 128 messages and otherwise every 100 ms, which bounds
// the delay of delivery. flush() and rotate() wait for one full pass of the
// logging thread and never return while no logging thread runs.
//
// A stream (see error_stream.hpp) is formatted only after the process-wide
// filter has let its row through; a row that any target names in
// "FatalErrors" ends the process after its record had its chance to go out.
// All operations are static and safe from any thread unless said otherwise.
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
#include <vlk/logging/error_stream.hpp>
#include <vlk/logging/log_stream.hpp>
#include <vlk/logging/target_config.hpp>
#include <vlk/system/init_once.hpp>
#include <vlk/system/mutex_lock.hpp>
#include <vlk/system/thread.hpp>

namespace vlk {

struct file_logging_info;
struct console_logging_info;
struct syslog_logging_info;

namespace _velk_logger_detail {
class _velk_logger_impl;
}

class velk_logger {
  public:
    class logger;  // the base of targets, in target.hpp
    using target_factory = base::shared_pointer<logger> (*)(target_config&);

    // Starts the allocator, then builds the logger; repeated calls do nothing.
    static void init();
    // Starts the logging thread unless it runs; false before init().
    static bool start();
    // Builds a target by its "Protocol" and keeps it if its init() succeeds.
    static void addTarget(target_config& config);
    // Registers a factory; a name already registered keeps its first one.
    static void addTargetFactory(const std::string& name, target_factory const& factory);

    // Whether some target may want the row: its level is active or a target
    // names it. False before init().
    static bool willLog(const error_id& id);
    // Whether a target declared the row fatal.
    static bool isFatalError(const error_id& id);

    // Queues `text` as the body of a record of `id`, unfiltered. Needs init().
    static void log(const error_id& id, const std::string& text);
    // Queues the buffer as the body; `text` is left empty. Needs init().
    static void log_with_move(const error_id& id, log_stream_buffer&& text);

    // The stream's pieces and a line feed, if willLog agrees; then, for a
    // fatal row, the process ends.
    template <typename Stream>
    static void log(const Stream& stream);
    // The same with the caller's stack appended and up to five seconds for
    // the logging thread to take it.
    template <typename Stream>
    static void logWithBacktrace(const Stream& stream);
    // Logs the stream, waits for a pass of the logging thread and ends the
    // process: exit status 255, or abort() when VELK_ABORT is set to
    // something that is not a leading part of "backtrace" (which adds the
    // stack to the record). Without a logger the message goes to standard
    // error.
    template <typename Stream>
    [[noreturn]] static void abort(const Stream& stream);
    // Appends the caller's stack, one demangled function name a line.
    static void imbueBackTrace(log_stream& stream);

    // Wait for one pass of the logging thread: without limit, or for at
    // most `milliseconds`. Never call them on the logging thread.
    static void flush();
    static void flush(unsigned long milliseconds);
    // Asks every target to rotate and waits for one pass.
    static void rotate();

    // A flag for whoever asks; the logger itself never reads it.
    static void initiateShutdown();
    static bool isShutdownInitiated();
    // Delivers what is queued, joins the thread, shuts the targets down and
    // releases them. Nothing before start().
    static void shutdown();
    // Writes what is still queued to standard error ("error" and above),
    // destroys the logger and ends the allocator. Nothing may log afterwards.
    static void terminate();

    // The allocator's per-thread end and reclamation.
    static void threadTerminate();
    static void reap();

    // The calling thread's id in record lines, from 1 up, never reused.
    static std::uint64_t threadLogId();
    // Empty unless the embedding server fills them.
    static const std::string& hostname();
    static const std::string& userId();
    static const std::string& programName();

    // Appends one record for each target that describes itself.
    static void getLoggersInfo(base::worklist<file_logging_info>& files,
                               base::worklist<console_logging_info>& consoles,
                               base::worklist<syslog_logging_info>& syslogs);

    // The implementation, or null before init() and after terminate().
    static _velk_logger_detail::_velk_logger_impl* _implementation() {
        // Acquire: pairs with the release store at the end of construction,
        // so the object is complete when seen.
        return _impl.load(std::memory_order_acquire);
    }

  private:
    friend class _velk_logger_detail::_velk_logger_impl;

    // The record of row 00-0041 for a row declared fatal; never returns.
    [[noreturn]] static void _declaredFatal();
    // How abort ends: 0 exit after log, 1 exit after logWithBacktrace, 2
    // abort() after log.
    static int _abortMode();
    // Without a logger: the message and a line feed on standard error.
    static void _writeToStandardError(const char* text, std::uint64_t length);
    [[noreturn]] static void _end(int mode);

    static system::init_once<_velk_logger_detail::_velk_logger_impl> _instance;
    static inline std::atomic<_velk_logger_detail::_velk_logger_impl*> _impl{nullptr};
    static inline std::atomic<std::uint8_t> _shutdownInitiated{0};
};

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
    void _flush(unsigned long milliseconds);
    void rotate();
    void shutdown();
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
        fast_log_message message;
        message.tsd = _tsd.get();
        message.buffer = std::move(text);
        message.id = id;
        _logQueue.put(std::move(message));
        // Relaxed: a count for the wake-up rule only; the queue publishes
        // the message itself.
        if ((_messageCount.fetch_add(1, std::memory_order_relaxed) + 1) % 128 == 0) {
            ::sem_post(&_wakeup);
        }
    }

    void addTarget(target_config& config);
    void addTargetFactory(const std::string& name, velk_logger::target_factory const& factory);
    void getLoggersInfo(base::worklist<file_logging_info>& files,
                        base::worklist<console_logging_info>& consoles,
                        base::worklist<syslog_logging_info>& syslogs);
    static void imbueBackTrace(log_stream& stream);

    velk_logger_tsd_data* threadData() { return _tsd.get(); }

    // 0 before init(), 1 while it runs, 2 after.
    std::atomic<std::uint32_t> _initState{0};
    // 1 while no logging thread runs; start() takes it to 0 and shutdown()
    // back to 1, each by compare-and-swap so that one caller wins.
    std::atomic<std::uint32_t> _stopped{1};
    // Messages queued; one in 128 posts the semaphore.
    std::atomic<std::uint64_t> _messageCount{0};
    thread _loggingThread;
    std::string _hostname;
    std::string _userId;
    std::string _programName;
    alignas(128) per_thread_global<velk_logger_tsd_data, false> _tsd;
    alignas(128) sem_t _wakeup;
    // Raised at the end of every pass of the logging thread. Release there,
    // acquire in the waiters: a waiter that sees it move sees what the pass
    // did to the targets.
    std::atomic<std::uint64_t> _flushGeneration{0};
    // Non-zero: the targets are to rotate at the next pass.
    std::atomic<std::uint64_t> _rotateRequested{0};
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
    void _processLogQueue(fast_log_message& message);
    void _drainQueue(fast_log_message& message);
    void _composeLine(const fast_log_message& message);
    void _releaseTargets();
    void _waitForPass(std::uint64_t generation);
};

// A fixed stack buffer that takes what fits and drops the rest; for the
// message of an abort when no logger can carry it.
class fixed_text {
  public:
    void append(const char* text, std::uint64_t count) {
        const std::uint64_t room = sizeof _text - _length;
        count = count < room ? count : room;
        for (std::uint64_t i = 0; i < count; ++i) {
            _text[_length + i] = text[i];
        }
        _length += count;
    }
    char* reserve(std::uint64_t count) {
        return _length + count <= sizeof _text ? _text + _length : _scratch;
    }
    void advance(std::uint64_t count) {
        if (_length + count <= sizeof _text) {
            _length += count;
        }
    }
    const char* data() const { return _text; }
    std::uint64_t length() const { return _length; }

  private:
    char _text[4096];
    char _scratch[32];
    std::uint64_t _length = 0;
};

}  // namespace _velk_logger_detail

inline bool velk_logger::willLog(const error_id& id) {
    const auto* impl = _implementation();
    return impl != nullptr && impl->willLog(id);
}

template <typename Stream>
void velk_logger::log(const Stream& stream) {
    auto* impl = _implementation();
    // The filter comes before any formatting: an unwanted message costs this.
    if (impl == nullptr || !impl->willLog(stream.id())) {
        return;
    }
    log_stream text(log_stream_buffer::withCapacity(1024));
    stream.appendTo(text);
    text.append('\n');
    impl->log_with_move(stream.id(), std::move(text));
    if (impl->isFatalError(stream.id())) {
        _declaredFatal();
    }
}

template <typename Stream>
void velk_logger::logWithBacktrace(const Stream& stream) {
    auto* impl = _implementation();
    if (impl == nullptr || !impl->willLog(stream.id())) {
        return;
    }
    log_stream text(log_stream_buffer::withCapacity(4096));
    stream.appendTo(text);
    text.append("\nBACKTRACE:\n", 12);
    imbueBackTrace(text);
    impl->log_with_move(stream.id(), std::move(text));
    flush(5000);
    if (impl->isFatalError(stream.id())) {
        _declaredFatal();
    }
}

template <typename Stream>
void velk_logger::abort(const Stream& stream) {
    const int mode = _abortMode();
    if (_implementation() == nullptr) {
        _velk_logger_detail::fixed_text text;
        stream.appendTo(text);
        _writeToStandardError(text.data(), text.length());
        _end(mode);
    }
    if (mode == 1) {
        logWithBacktrace(stream);
    } else {
        log(stream);
    }
    flush();
    _end(mode);
}

}  // namespace vlk
