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
// gettimeofday and two atomic increments; a stream's text is built on the
// caller's stack and copied once into a buffer of its own size. The thread
// is woken by a semaphore once in 128 messages and otherwise every 100 ms,
// which bounds the delay of delivery; the post is made only while the
// thread sleeps, and after each pass it polls for 50 us before it does, so
// a steady stream of calls makes no system call at all. flush() and rotate() wait for one full pass
// of the logging thread and never return while no logging thread runs.
//
// A stream (see error_stream.hpp) is formatted only after the process-wide
// filter has let its row through; a row that any target names in
// "FatalErrors" ends the process after its record had its chance to go out.
// All operations are static and safe from any thread unless said otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/containers/shared_pointer.hpp>
#include <vlk/containers/worklist.hpp>
#include <vlk/logging/error_stream.hpp>
#include <vlk/logging/log_stream.hpp>
#include <vlk/logging/target_config.hpp>

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
    // The problems of one target's configuration, each a sentence that
    // names its key: no or an unknown "Protocol", keys the protocol does not
    // read, values that do not parse, level names that are not exact, row
    // patterns that do not compile or name no row. Empty when all is well.
    // Stricter than addTarget, which reads what it can and says nothing (it
    // takes "Level = errant" for error and "Level = loud" for no level).
    // Keys of a protocol registered by the program are not judged. Rows are
    // looked up in the catalogue, so error_manager::init() comes first.
    static std::vector<std::string> checkTargetConfig(const target_config& config);

    // Bounds what the queue holds, counted as each record's text block (its
    // capacity with the allocator's header and rounding) plus its slot: a
    // record that would go past `bytes` is dropped, and the
    // next record delivered is preceded by a line that says how many were.
    // 0, the default, queues without bound and drops nothing. Needs init();
    // set it before anything is logged, since records queued earlier are not
    // counted. The bound may be passed by one record per producing thread.
    static void setQueueLimit(std::uint64_t bytes);

    // Whether some target may want the row: its level is active or a target
    // names it. False before init().
    static bool willLog(const error_id& id) {
        // Relaxed: one word, kept equal to the implementation's filter by the
        // configuring thread; any value it held is a valid filter.
        const std::uint32_t filter = _filter.load(std::memory_order_relaxed);
        if ((id.level & filter) != 0) {
            return true;
        }
        return (filter & k_namedRows) != 0 && _isNamedRow(id);
    }
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
    // most `milliseconds`, true if a pass ended in time. Never call them on
    // the logging thread.
    static void flush();
    static bool flush(unsigned long milliseconds);
    // Asks every target to rotate and waits for one pass.
    static void rotate();

    // A flag for whoever asks; the logger itself never reads it.
    static void initiateShutdown();
    static bool isShutdownInitiated();
    // Delivers what is queued, joins the thread, shuts the targets down and
    // releases them. Nothing before start().
    static void shutdown();
    // The same, but waits at most `milliseconds` for the logging thread's
    // last pass, which a stalled target (a full pipe nobody reads) can hold
    // up for ever. False when the thread has not ended in time: it and the
    // targets are left as they are, and a later shutdown() or terminate()
    // waits for it without limit. A process that cannot wait ends with
    // _exit, since static destruction would tear down the logger under the
    // running thread. True when the logger is stopped.
    static bool shutdown(unsigned long milliseconds);
    // Records queued and not yet taken by the logging thread.
    static std::uint64_t queuedCount();
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

    // The bit of `_filter` above the level bits: some target names rows.
    static constexpr std::uint32_t k_namedRows = 1u << 8;
    // Whether a target names the row; out of line, behind the level test.
    static bool _isNamedRow(const error_id& id);
    // Queues a formatted record, waits up to `flushMilliseconds` for the
    // logging thread when not 0, then ends the process if a target declared
    // the row fatal. Drops the record when there is no logger.
    static void _enqueue(const error_id& id, log_stream_buffer&& text,
                         unsigned long flushMilliseconds);
    // The same for text formatted on the caller's stack: it takes a block of
    // its own size, and none at all when a queue limit drops the record.
    static void _enqueue(const error_id& id, message_text& text);

    // The record of row 00-0041 for a row declared fatal; never returns.
    [[noreturn]] static void _declaredFatal();
    // How abort ends: 0 exit after log, 1 exit after logWithBacktrace, 2
    // abort() after log.
    static int _abortMode();
    // Without a logger: the message and a line feed on standard error.
    static void _writeToStandardError(const char* text, std::uint64_t length);
    [[noreturn]] static void _end(int mode);

    static inline std::atomic<_velk_logger_detail::_velk_logger_impl*> _impl{nullptr};
    // The active levels, and k_namedRows when a target names rows; 0 while
    // there is no logger. Written by the implementation only.
    static inline std::atomic<std::uint32_t> _filter{0};
    static inline std::atomic<std::uint8_t> _shutdownInitiated{0};
    // Set on a thread that has entered abort(), which never returns.
    static inline thread_local bool _endingProcess = false;
};

namespace _velk_logger_detail {

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

template <typename Stream>
void velk_logger::log(const Stream& stream) {
    // The filter comes before any formatting: an unwanted message costs this.
    if (!willLog(stream.id())) {
        return;
    }
    message_text text;
    stream.appendTo(text);
    text.append('\n');
    _enqueue(stream.id(), text);
}

template <typename Stream>
void velk_logger::logWithBacktrace(const Stream& stream) {
    if (!willLog(stream.id())) {
        return;
    }
    log_stream text(log_stream_buffer::withCapacity(4096));
    stream.appendTo(text);
    text.append("\nBACKTRACE:\n", 12);
    imbueBackTrace(text);
    _enqueue(stream.id(), std::move(text), 5000);
}

template <typename Stream>
void velk_logger::abort(const Stream& stream) {
    // The record below may itself be a fatal row (00-0041 listed in
    // "FatalErrors"), and so may the first record of a thread: this thread
    // is already on its way out, so they are logged and not obeyed again.
    _endingProcess = true;
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
    // The first pass may have begun before the record went in; the second
    // began after it, so the record has reached the targets.
    flush();
    flush();
    _end(mode);
}

}  // namespace vlk
