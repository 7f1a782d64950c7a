#include <vlk/logging/velk_logger.hpp>

#include <cxxabi.h>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/console_logger.hpp>
#include <vlk/logging/file_logger.hpp>
#include <vlk/logging/gzip_logger.hpp>
#include <vlk/logging/internal/velk_logger_impl.hpp>
#include <vlk/logging/iso_timestamp.hpp>
#include <vlk/logging/syslog_logger.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/system/fatal.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/init_once.hpp>

namespace vlk {

namespace {
constinit system::init_once<_velk_logger_detail::_velk_logger_impl> g_instance;
}  // namespace

namespace _velk_logger_detail {
namespace {

constexpr long k_nanosecondsPerSecond = 1'000'000'000;
constexpr long k_tickNanoseconds = 100'000'000;  // the logging thread's longest sleep
constexpr long k_pollNanoseconds = 1'000'000;    // a waiter's sleep between looks
constexpr double k_lingerNanoseconds = 50'000;   // how long an idle thread polls

void sleepOnePoll() {
    timespec wanted{0, k_pollNanoseconds};
    timespec left{};
    while (::nanosleep(&wanted, &left) == -1) {
        wanted = left;
    }
}

double secondsBetween(const timespec& from, const timespec& to) {
    const long nanoseconds =
        (to.tv_sec - from.tv_sec) * k_nanosecondsPerSecond + (to.tv_nsec - from.tv_nsec);
    return static_cast<double>(nanoseconds) * 1e-9;
}

// The index of the level's name in log_level_cstrings: its lowest set bit
// plus one, so a row with two bits reads as the lower one; 0 counts as bit 0.
unsigned levelIndex(std::uint8_t level) {
    return level == 0 ? 1 : static_cast<unsigned>(std::countr_zero(level)) + 1;
}

}  // namespace

_velk_logger_impl::_velk_logger_impl()
    : _tsd([this](velk_logger_tsd_data** slot) { return _createData(slot); }),
      _lineBuffer(log_stream_buffer::withCapacity(1024)) {
    ::sem_init(&_wakeup, 0, 0);
    std::uint32_t expected = 0;
    // Acquire/release: a loser that sees 2 sees what init() did.
    if (_initState.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
        init();
        _initState.store(2, std::memory_order_release);
    } else {
        while (_initState.load(std::memory_order_acquire) == 1) {
        }
    }
    // Release: pairs with the acquire load in velk_logger::_implementation();
    // the object is complete before any thread can reach it.
    velk_logger::_impl.store(this, std::memory_order_release);
}

void _velk_logger_impl::init() {
    _messageCount.store(0, std::memory_order_relaxed);
    _flushGeneration.store(0, std::memory_order_relaxed);
    _configuredLevels = 0;
    _setActiveLevels(0xFF);
    addTargetFactory("file", file_logger::factory);
    addTargetFactory("gzip", gzip_logger::factory);
    addTargetFactory("stdout", console_logger::factory);
    addTargetFactory("stderr", console_logger::factory);
    addTargetFactory("syslog", syslog_logger::factory);
}

_velk_logger_impl::~_velk_logger_impl() {
    // Relaxed: callers that still pass the filter find `_impl` null below.
    velk_logger::_filter.store(0, std::memory_order_relaxed);
    // Release: a late caller sees null and logs nothing, instead of reaching
    // the memory freed here.
    velk_logger::_impl.store(nullptr, std::memory_order_release);
    {
        std::lock_guard guard(_tsdLock);
        for (velk_logger_tsd_data* data : _tsdList) {
            delete data;
        }
        _tsdList.count = 0;
    }
    // Other threads' pointers to the records just freed stay as they are:
    // they must not log again. The destroying thread may, after a new init().
    per_thread_global<velk_logger_tsd_data, false>::_pT = nullptr;
    // Whatever is still queued is dropped unwritten; the blocks go back.
    _logQueue.clear();
    _targetFactories.clear();
    _lineBuffer.reset();
    _releaseTargets();
    _fatalErrors.terminate();
    _includeErrors.terminate();
    ::sem_destroy(&_wakeup);
}

velk_logger_tsd_data* _velk_logger_impl::_createData(velk_logger_tsd_data** slot) {
    const auto tid = static_cast<pid_t>(::syscall(SYS_gettid));
    const pthread_t self = ::pthread_self();

    auto* data = new velk_logger_tsd_data;
    // Relaxed: the counter only has to hand out distinct ids.
    data->logId = _threadCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    const std::string common = " [" + std::to_string(data->logId) + "] ";
    for (unsigned i = 0; i < 9; ++i) {
        const base::cstring& name = log_level_cstrings[i];
        data->levelText[i] = common;
        data->levelText[i].append(name.data, name.length).append(": ");
    }
    // Set before the log call below, which must find it and not come here.
    *slot = data;
    {
        std::lock_guard guard(_tsdLock);
        _tsdList.append(data);
    }
    if (system::processId() != tid) {
        const auto& row = errors::E000027;
        const int processId = system::processId();
        const int threadId = tid;
        const unsigned long handle = self;
        velk_logger::log(
            velk_error_stream7<std::string, int, std::string, int, std::string, unsigned long,
                               std::string>(row, row.fragments[0], processId, row.fragments[1],
                                            threadId, row.fragments[2], handle, row.fragments[3]));
    }
    return data;
}

void _velk_logger_impl::log(const error_id& id, const std::string& text) {
    if (_limited() && !_admit(message_text::capacityFor(text.size()))) {
        return;
    }
    // A first append sizes the buffer exactly as wanted: 128 bytes, or the
    // length rounded up to 128; an empty text leaves it without memory.
    log_stream buffer;
    buffer.append(text.data(), text.size());
    _enqueue(id, std::move(buffer));
}

bool _velk_logger_impl::start() {
    std::uint32_t expected = 1;
    if (!_stopped.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) {
        return true;
    }
    _setActiveLevels(_configuredLevels);
    _threadEnded.store(false, std::memory_order_relaxed);  // the thread start orders it
    _loggingThread.start([this] { _loggingThreadEntryPoint(); }, 0);
    return true;
}

void _velk_logger_impl::_loggingThreadEntryPoint() {
    for (;;) {
        _processLogQueue();
        if (!_lingerForWork()) {
            _sleepUntilWoken();
        }

        // Acquire: pairs with the release store in rotate(). Taken before
        // the targets rotate, so a request made meanwhile is not lost.
        if (_rotateRequested.exchange(0, std::memory_order_acquire) != 0) {
            for (velk_logger::logger* target : _targetList) {
                target->rotate();
            }
        }
        // Acquire: pairs with the compare-and-swap in shutdown().
        if (_stopped.load(std::memory_order_acquire) != 0) {
            _processLogQueue();
            // Relaxed: posts that come now reach nobody either way.
            _asleep.store(1, std::memory_order_relaxed);
            // Release: pairs with the acquire load in shutdown(milliseconds).
            _threadEnded.store(true, std::memory_order_release);
            return;
        }
    }
}

// After a pass, the thread stays awake for a little while: a burst that is
// still going on finds it polling, and its 128th message then costs its
// producer no system call. True when work or a post came meanwhile.
bool _velk_logger_impl::_lingerForWork() {
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        for (int i = 0; i < 64; ++i) {
            if (!_logQueue.empty()) {
                return true;
            }
            __builtin_ia32_pause();
        }
        // A flush, rotate or shutdown posts: take the post and go on.
        if (::sem_trywait(&_wakeup) == 0) {
            return true;
        }
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        if (secondsBetween(start, now) * 1e9 >= k_lingerNanoseconds) {
            return false;
        }
    }
}

// Sleeps on the semaphore for at most one tick, unless a message came after
// the thread said it sleeps; see _wakeIfAsleep() for the argument.
void _velk_logger_impl::_sleepUntilWoken() {
    // Seq_cst, store then load: the logging thread's half of the pair with
    // the producers' add to _messageCount and load of _asleep.
    _asleep.store(1, std::memory_order_seq_cst);
    if (_messageCount.load(std::memory_order_seq_cst) == _takenCount) {
        timespec deadline{};
        ::clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += k_tickNanoseconds;
        if (deadline.tv_nsec >= k_nanosecondsPerSecond) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= k_nanosecondsPerSecond;
        }
        // Woken or timed out alike, the thread goes on; any other failure
        // counts as a timeout.
        int result = 0;
        while ((result = ::sem_timedwait(&_wakeup, &deadline)) == -1 && errno == EINTR) {
        }
        if (result == -1) {
            // Relaxed: a statistic.
            _tickWakes.fetch_add(1, std::memory_order_relaxed);
        }
    }
    // Relaxed: producers that still read 1 post once in vain, which the
    // next sleep absorbs as one empty pass.
    _asleep.store(0, std::memory_order_relaxed);
}

void _velk_logger_impl::_processLogQueue() {
    while (!_logQueue.empty()) {
        _drainQueue();
        const bool more = !_logQueue.empty();
        // A burst costs one flush: targets flush between drains, not records.
        for (velk_logger::logger* target : _targetList) {
            target->flush();
        }
        if (!more) {
            break;
        }
    }
    // Release: pairs with the acquire loads of the waiters in flush() and
    // rotate(); what this pass gave the targets is visible to them.
    _flushGeneration.fetch_add(1, std::memory_order_release);
}

// Records are taken a few at a time, and the text of each is asked into the
// cache as it is taken: a producer wrote it on another core, or long ago when
// the queue is backed up, and reading it cold in _composeLine() was the
// largest single cost of a record here. Order is kept: the batch is written
// in the order it was taken.
void _velk_logger_impl::_drainQueue() {
    constexpr int k_batch = 16;
    constexpr std::uint64_t k_prefetchBytes = 256;
    fast_log_message batch[k_batch];
    for (;;) {
        int taken = 0;
        while (taken < k_batch && _logQueue.get(batch[taken])) {
            const log_stream_buffer& text = batch[taken].buffer;
            const std::uint64_t ahead = std::min(text.length, k_prefetchBytes);
            for (std::uint64_t at = 0; at < ahead; at += 64) {
                __builtin_prefetch(text.data + at);
            }
            ++taken;
        }
        if (taken == 0) {
            return;
        }
        _takenCount += static_cast<std::uint64_t>(taken);
        for (int i = 0; i < taken; ++i) {
            fast_log_message& message = batch[i];
            if (_queueLimit.load(std::memory_order_relaxed) != 0) [[unlikely]] {
                _releaseQueued(message);
            }
            _composeLine(message);
            message.buffer.reset();
            for (velk_logger::logger* target : _targetList) {
                target->log(message.id, _lineBuffer.data, _lineBuffer.length);
            }
        }
    }
}

// Takes the record out of the queued bytes and, after drops, hands the
// targets one line that says how many, under the record's own identifier so
// that it passes the filters of the targets that take the record.
void _velk_logger_impl::_releaseQueued(const fast_log_message& message) {
    _queuedBytes.fetch_sub(_recordBytes(message.buffer.capacity), std::memory_order_relaxed);
    if (_droppedCount.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const std::uint64_t dropped = _droppedCount.exchange(0, std::memory_order_relaxed);
    _lineBuffer.length = 0;
    char* at = _lineBuffer.reserve(33);
    _lineBuffer.advance(iso_timestamp::serialize_utc_with_offset(at, 32, message.time));
    const std::string text =
        " logger: " + std::to_string(dropped) + " records dropped at the queue limit of " +
        std::to_string(_queueLimit.load(std::memory_order_relaxed)) + " bytes\n";
    _lineBuffer.append(text.data(), text.size());
    for (velk_logger::logger* target : _targetList) {
        target->log(message.id, _lineBuffer.data, _lineBuffer.length);
    }
}

// timestamp, " [<id>] <level>: ", identifier, " ", body.
void _velk_logger_impl::_composeLine(const fast_log_message& message) {
    _lineBuffer.length = 0;
    // The local-time form may write 33 bytes although it is given 32.
    char* at = _lineBuffer.reserve(33);
    _lineBuffer.advance(iso_timestamp::serialize_utc_with_offset(at, 32, message.time));
    const std::string& middle = message.tsd->levelText[levelIndex(message.id.level)];
    _lineBuffer.append(middle.data(), middle.size());
    at = _lineBuffer.reserve(error_id_buffer_size);
    _lineBuffer.advance(renderErrorId(message.id, at));
    _lineBuffer.append(' ');
    _lineBuffer.append(message.buffer.data, message.buffer.length);
}

void _velk_logger_impl::_waitForPass(std::uint64_t generation) {
    // Acquire: pairs with the release increment at the end of a pass.
    while (_flushGeneration.load(std::memory_order_acquire) == generation) {
        sleepOnePoll();
    }
}

void _velk_logger_impl::flush() {
    const std::uint64_t generation = _flushGeneration.load(std::memory_order_acquire);
    ::sem_post(&_wakeup);
    _waitForPass(generation);
}

bool _velk_logger_impl::_flush(unsigned long milliseconds) {
    const std::uint64_t generation = _flushGeneration.load(std::memory_order_acquire);
    ::sem_post(&_wakeup);
    timespec start{};
    ::clock_gettime(CLOCK_REALTIME, &start);
    const double limit = static_cast<double>(milliseconds) * 0.001;
    while (_flushGeneration.load(std::memory_order_acquire) == generation) {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (secondsBetween(start, now) >= limit) {
            return false;
        }
        sleepOnePoll();
    }
    return true;
}

void _velk_logger_impl::rotate() {
    const std::uint64_t generation = _flushGeneration.load(std::memory_order_acquire);
    // Release: pairs with the acquire exchange on the logging thread.
    _rotateRequested.store(1, std::memory_order_release);
    ::sem_post(&_wakeup);
    _waitForPass(generation);
}

void _velk_logger_impl::shutdown() {
    std::uint32_t expected = 0;
    if (_stopped.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
        ::sem_post(&_wakeup);
    } else if (!_joinPending) {
        return;
    }
    _joinAndRelease();
}

bool _velk_logger_impl::shutdown(unsigned long milliseconds) {
    std::uint32_t expected = 0;
    if (_stopped.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
        ::sem_post(&_wakeup);
    } else if (!_joinPending) {
        return true;
    }
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    const double limit = static_cast<double>(milliseconds) * 0.001;
    // Acquire: pairs with the release store as the logging thread returns.
    while (!_threadEnded.load(std::memory_order_acquire)) {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        if (secondsBetween(start, now) >= limit) {
            _joinPending = true;
            return false;
        }
        sleepOnePoll();
    }
    _joinAndRelease();
    return true;
}

void _velk_logger_impl::_joinAndRelease() {
    _joinPending = false;
    _loggingThread.join();
    for (velk_logger::logger* target : _targetList) {
        target->shutdown();
    }
    _releaseTargets();
}

void _velk_logger_impl::_releaseTargets() {
    for (velk_logger::logger*& target : _targetList) {
        target = nullptr;
    }
    _targetList.count = 0;
    // The last reference destroys the target.
    for (auto& target : _targets) {
        target = base::shared_pointer<velk_logger::logger>();
    }
    _targets.count = 0;
}

// Messages without a reader are not lost silently: those at "error" and
// above go to standard error.
void _velk_logger_impl::terminate() {
    if (_logQueue.empty()) {
        return;
    }
    _releaseTargets();
    const auto found = _targetFactories.find("stderr");
    if (found == _targetFactories.end()) {
        return;
    }
    target_config config;
    config["Protocol"] = friendly_value("stderr");
    config["Level"] = friendly_value("error");
    base::shared_pointer<velk_logger::logger> fallback = found->second(config);
    if (fallback.get() != nullptr && fallback->init()) {
        _targets.append(fallback);
        _targetList.append(fallback.get());
    }
    _processLogQueue();
}

void _velk_logger_impl::addTargetFactory(const std::string& name,
                                         velk_logger::target_factory const& factory) {
    _targetFactories.emplace(name, factory);
}

void _velk_logger_impl::addTarget(target_config& config) {
    const auto protocol = config.find("Protocol");
    if (protocol == config.end()) {
        return;
    }
    static const std::string none;
    const auto factory = _targetFactories.find(protocol->second.valueOr(none));
    if (factory == _targetFactories.end()) {
        return;
    }
    base::shared_pointer<velk_logger::logger> target = factory->second(config);
    if (target.get() == nullptr || !target->init()) {
        return;
    }
    _targets.append(target);
    _targetList.append(target.get());
    _configuredLevels |= target->_levels;
    for (const auto& entry : target->_includeErrors) {
        _includeErrors.insert(entry.key);
    }
    for (const auto& entry : target->_fatalErrors) {
        _fatalErrors.insert(entry.key);
    }
    _setActiveLevels(_activeLevels.load(std::memory_order_relaxed));
}

void _velk_logger_impl::_setActiveLevels(std::uint32_t levels) {
    // Relaxed, both: each is one word that any thread may read at any time,
    // and every value either held is a valid filter (see willLog).
    _activeLevels.store(levels, std::memory_order_relaxed);
    const std::uint32_t named = _includeErrors.empty() ? 0 : velk_logger::k_namedRows;
    velk_logger::_filter.store(levels | named, std::memory_order_relaxed);
}

void _velk_logger_impl::getLoggersInfo(base::worklist<file_logging_info>& files,
                                       base::worklist<console_logging_info>& consoles,
                                       base::worklist<syslog_logging_info>& syslogs) {
    for (velk_logger::logger* target : _targetList) {
        file_logging_info file;
        if (target->getFileLoggerInfo(file)) {
            files.append(std::move(file));
            continue;
        }
        console_logging_info console;
        if (target->getConsoleLoggerInfo(console)) {
            consoles.append(std::move(console));
            continue;
        }
        syslog_logging_info syslog;
        if (target->getSyslogLoggerInfo(syslog)) {
            syslogs.append(std::move(syslog));
        }
    }
}

void _velk_logger_impl::imbueBackTrace(log_stream& stream) {
    velk_logger::imbueBackTrace(stream);
}

}  // namespace _velk_logger_detail

using _velk_logger_detail::_velk_logger_impl;

namespace {

// The bottom layer's fatal ends, logged as their catalogue rows while the
// logger exists. Installed by init(), replaced by the defaults in terminate().
void logAbort(const std::string& message) {
    const auto& row = errors::E000041;
    velk_logger::abort(velk_error_stream3<std::string, std::string, std::string>(
        row, row.fragments[0], message, row.fragments[1]));
}

void logMappingFailure(const system::mapping_failure& failure) {
    const auto& row = errors::E000046;
    const auto& pieces = row.fragments;
    velk_logger::abort(
        velk_error_stream9<std::string, std::string, std::string, unsigned long, std::string,
                           unsigned long, std::string, unsigned long, std::string>(
            row, pieces[0], failure.errorText, pieces[1], failure.mapped, pieces[2],
            failure.unmapped, pieces[3], failure.active, pieces[4]));
}

void logEscapedException(std::string_view what) {
    const auto& row = errors::E300004;
    velk_logger::log(
        velk_error_stream2<std::string, std::string>(row, row.fragments[0], std::string(what)));
}

}  // namespace

void velk_logger::init() {
    log_stream_allocator::init();
    g_instance.init();
    system::setFatalReporters({logAbort, logMappingFailure, logEscapedException});
}

bool velk_logger::start() {
    _velk_logger_impl* impl = _implementation();
    return impl != nullptr && impl->start();
}

void velk_logger::addTarget(target_config& config) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->addTarget(config);
    }
}

void velk_logger::addTargetFactory(const std::string& name, target_factory const& factory) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->addTargetFactory(name, factory);
    }
}

void velk_logger::setQueueLimit(std::uint64_t bytes) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->_queueLimit.store(bytes, std::memory_order_relaxed);
    }
}

bool velk_logger::isFatalError(const error_id& id) {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr && impl->isFatalError(id);
}

void velk_logger::log(const error_id& id, const std::string& text) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->log(id, text);
    }
}

void velk_logger::log_with_move(const error_id& id, log_stream_buffer&& text) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->log_with_move(id, std::move(text));
    }
}

// Frames 0 and 1 are this function and its caller. A frame reads
// "object(name+offset) [address]"; a found name is written demangled and
// without offset and address, anything else as it stands.
void velk_logger::imbueBackTrace(log_stream& stream) {
    void* frames[30];
    const int count = ::backtrace(frames, 30);
    char** symbols = ::backtrace_symbols(frames, count);
    if (count > 0 && symbols != nullptr) {
        std::size_t nameLength = 1024;
        auto* name = static_cast<char*>(std::malloc(nameLength));
        for (int i = 2; i < count; ++i) {
            char* text = symbols[i];
            char* open = std::strrchr(text, '(');
            char* plus = std::strrchr(text, '+');
            if (*text == '\0' || open == nullptr || plus == nullptr) {
                stream.append(text, std::strlen(text));
            } else {
                *plus = '\0';
                int status = 0;
                char* demangled = abi::__cxa_demangle(open + 1, name, &nameLength, &status);
                if (demangled != nullptr && status == 0) {
                    // The call may have moved the buffer to make it larger.
                    name = demangled;
                    stream.append(name, std::strlen(name));
                } else {
                    stream.append(open + 1, std::strlen(open + 1));
                }
            }
            stream.append('\n');
        }
        std::free(name);
    }
    std::free(symbols);
}

bool velk_logger::_isNamedRow(const error_id& id) {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr && impl->willLog(id);
}

void velk_logger::_enqueue(const error_id& id, log_stream_buffer&& text,
                           unsigned long flushMilliseconds) {
    _velk_logger_impl* impl = _implementation();
    if (impl == nullptr) {
        return;
    }
    impl->log_with_move(id, std::move(text));
    if (flushMilliseconds != 0) {
        flush(flushMilliseconds);
    }
    if (impl->isFatalError(id) && !_endingProcess) {
        _declaredFatal();
    }
}

void velk_logger::_enqueue(const error_id& id, message_text& text) {
    _velk_logger_impl* impl = _implementation();
    if (impl == nullptr) {
        return;
    }
    impl->log_text(id, text);
    if (impl->isFatalError(id) && !_endingProcess) {
        _declaredFatal();
    }
}

void velk_logger::flush() {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->flush();
    }
}

bool velk_logger::flush(unsigned long milliseconds) {
    _velk_logger_impl* impl = _implementation();
    return impl != nullptr && impl->_flush(milliseconds);
}

void velk_logger::rotate() {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->rotate();
    }
}

void velk_logger::initiateShutdown() {
    std::uint8_t expected = 0;
    _shutdownInitiated.compare_exchange_strong(expected, 1, std::memory_order_relaxed);
}

bool velk_logger::isShutdownInitiated() {
    return _shutdownInitiated.load(std::memory_order_relaxed) != 0;
}

void velk_logger::shutdown() {
    if (g_instance.state() == system::init_once<_velk_logger_impl>::ready) {
        g_instance.get()->shutdown();
    }
}

bool velk_logger::shutdown(unsigned long milliseconds) {
    if (g_instance.state() == system::init_once<_velk_logger_impl>::ready) {
        return g_instance.get()->shutdown(milliseconds);
    }
    return true;
}

std::uint64_t velk_logger::queuedCount() {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr ? impl->_logQueue.size() : 0;
}

void velk_logger::terminate() {
    system::setFatalReporters(system::defaultFatalReporters());
    if (g_instance.state() == system::init_once<_velk_logger_impl>::ready) {
        _velk_logger_impl* impl = g_instance.get();
        // A logging thread still running would use the object destroyed
        // below: it delivers and stops first.
        impl->shutdown();
        impl->terminate();
        g_instance.shutdown();
    }
    log_stream_allocator::terminate();
}

void velk_logger::threadTerminate() {
    log_stream_allocator::threadTerminate();
}

void velk_logger::reap() {
    log_stream_allocator::reap();
}

std::uint64_t velk_logger::threadLogId() {
    _velk_logger_impl* impl = _implementation();
    return impl != nullptr ? impl->threadData()->logId : 0;
}

namespace {
const std::string& emptyText() {
    static const std::string text;
    return text;
}
}  // namespace

const std::string& velk_logger::hostname() {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr ? impl->_hostname : emptyText();
}

const std::string& velk_logger::userId() {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr ? impl->_userId : emptyText();
}

const std::string& velk_logger::programName() {
    const _velk_logger_impl* impl = _implementation();
    return impl != nullptr ? impl->_programName : emptyText();
}

void velk_logger::getLoggersInfo(base::worklist<file_logging_info>& files,
                                 base::worklist<console_logging_info>& consoles,
                                 base::worklist<syslog_logging_info>& syslogs) {
    if (_velk_logger_impl* impl = _implementation()) {
        impl->getLoggersInfo(files, consoles, syslogs);
    }
}

void velk_logger::_declaredFatal() {
    static const char reason[31] = "error logged is declared fatal";
    const auto& row = errors::E000041;
    abort(velk_error_stream3<std::string, char[31], std::string>(row, row.fragments[0], reason,
                                                                 row.fragments[1]));
}

int velk_logger::_abortMode() {
    return static_cast<int>(system::endMode());
}

void velk_logger::_writeToStandardError(const char* text, std::uint64_t length) {
    system::writeToStandardError(text, length);
}

void velk_logger::_end(int mode) {
    system::endProcess(static_cast<system::end_mode>(mode));
}

}  // namespace vlk
