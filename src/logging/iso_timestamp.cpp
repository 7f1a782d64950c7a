#include <vlk/logging/iso_timestamp.hpp>

#include <pthread.h>

#include <cstdint>
#include <cstring>
#include <ctime>

namespace vlk {

namespace _iso_timestamp_detail {

const char* const _pCharRep = "0123456789";

// clang-format off
const char* const _numReps[61] = {
    "00", "01", "02", "03", "04", "05", "06", "07", "08", "09",
    "10", "11", "12", "13", "14", "15", "16", "17", "18", "19",
    "20", "21", "22", "23", "24", "25", "26", "27", "28", "29",
    "30", "31", "32", "33", "34", "35", "36", "37", "38", "39",
    "40", "41", "42", "43", "44", "45", "46", "47", "48", "49",
    "50", "51", "52", "53", "54", "55", "56", "57", "58", "59",
    "60",
};
// clang-format on

namespace {

// The text of one thread's last second. It belongs to that thread alone, so
// it needs no lock; `second` 0 with an empty prefix is the state before the
// first call.
struct _thread_cache {
    std::int64_t second = 0;
    std::uint64_t prefixLength = 0;
    char prefix[48] = {};
    std::int64_t gmtOffset = 0;
    char offsetText[8] = {};  // 6 in use: sign, hours, ":", minutes
};

// The fast path reads the thread-local pointer; the key exists only so that
// its destructor frees the record when the thread ends.
thread_local _thread_cache* t_cache = nullptr;
pthread_key_t g_cacheKey;
pthread_once_t g_cacheKeyOnce = PTHREAD_ONCE_INIT;

void deleteCache(void* record) {
    delete static_cast<_thread_cache*>(record);
    // A destructor of another key that still formats a timestamp must not
    // reach the freed record; it gets a new one, and glibc's later destructor
    // rounds free that.
    t_cache = nullptr;
}

void createCacheKey() {
    pthread_key_create(&g_cacheKey, deleteCache);
}

_thread_cache* threadCache() {
    if (t_cache == nullptr) [[unlikely]] {
        pthread_once(&g_cacheKeyOnce, createCacheKey);
        t_cache = new _thread_cache;
        pthread_setspecific(g_cacheKey, t_cache);
    }
    return t_cache;
}

// Broken-down time as the prefixes need it; `year` counts from 1900, `month`
// from 0, as in struct tm.
struct fields {
    int year, month, day, hour, minute, second;
};

bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Calendar fields of a second count since 1970, without the C library and
// therefore without the TZ setting. Years and days are stepped through
// rather than divided: this runs once per second per thread, and stepping
// keeps the leap rule in one obvious place. The count must not be negative.
fields splitSeconds(std::int32_t count) {
    int year = 1970;
    for (;;) {
        const std::int32_t yearLength = isLeapYear(year) ? 31622400 : 31536000;
        if (count < yearLength) {
            break;
        }
        count -= yearLength;
        ++year;
    }
    int dayOfYear = 0, hour = 0, minute = 0;
    for (; count >= 86400; count -= 86400) {
        ++dayOfYear;
    }
    for (; count >= 3600; count -= 3600) {
        ++hour;
    }
    for (; count >= 60; count -= 60) {
        ++minute;
    }
    static constexpr int k_monthEnds[12] = {31,  59,  90,  120, 151, 181,
                                            212, 243, 273, 304, 334, 365};
    const int leapDay = isLeapYear(year) ? 1 : 0;
    const int day = dayOfYear + 1;
    int month = 0, monthStart = 0;
    while (month < 11 && day > k_monthEnds[month] + (month == 0 ? 0 : leapDay)) {
        monthStart = k_monthEnds[month] + (month == 0 ? 0 : leapDay);
        ++month;
    }
    return {year - 1900, month, day - monthStart, hour, minute, static_cast<int>(count)};
}

// The digit tables cover the years 1900 to 2099 and fields up to 60.
bool isWritable(const fields& f) {
    return f.year >= 0 && f.year < 200;
}

char* put2(char* out, int value) {
    std::memcpy(out, _numReps[value], 2);
    return out + 2;
}

char* putYear(char* out, int yearsSince1900) {
    const int rest = yearsSince1900 < 100 ? yearsSince1900 : yearsSince1900 - 100;
    out = put2(out, yearsSince1900 < 100 ? 19 : 20);
    *out++ = _pCharRep[rest / 10];
    *out++ = _pCharRep[rest % 10];
    return out;
}

// Writes `count` digits of `value`, the lowest last; higher digits are lost.
char* putDigits(char* out, unsigned long value, int count) {
    for (int i = count - 1; i >= 0; --i) {
        out[i] = _pCharRep[value % 10];
        value /= 10;
    }
    return out + count;
}

// "YYYYMMDDTHHMMSS." (16 bytes).
char* putBasicPrefix(char* out, const fields& f) {
    out = putYear(out, f.year);
    out = put2(put2(out, f.month + 1), f.day);
    *out++ = 'T';
    out = put2(put2(put2(out, f.hour), f.minute), f.second);
    *out++ = '.';
    return out;
}

// "YYYYMMDD-HH:MM:SS." (18 bytes).
char* putSendingPrefix(char* out, const fields& f) {
    out = putYear(out, f.year);
    out = put2(put2(out, f.month + 1), f.day);
    *out++ = '-';
    out = put2(out, f.hour);
    *out++ = ':';
    out = put2(out, f.minute);
    *out++ = ':';
    out = put2(out, f.second);
    *out++ = '.';
    return out;
}

// "YYYY-MM-DDTHH:MM:SS." (20 bytes).
char* putExtendedPrefix(char* out, const fields& f) {
    out = putYear(out, f.year);
    *out++ = '-';
    out = put2(out, f.month + 1);
    *out++ = '-';
    out = put2(out, f.day);
    *out++ = 'T';
    out = put2(out, f.hour);
    *out++ = ':';
    out = put2(out, f.minute);
    *out++ = ':';
    out = put2(out, f.second);
    *out++ = '.';
    return out;
}

// "+HH:MM" or "-HH:MM"; seconds of the offset are dropped. Hours go through
// single digits so that no offset can index past a table.
void putOffset(char* out, long offset) {
    const unsigned long magnitude =
        offset < 0 ? -static_cast<unsigned long>(offset) : static_cast<unsigned long>(offset);
    out[0] = offset < 0 ? '-' : '+';
    putDigits(out + 1, magnitude / 3600, 2);
    out[3] = ':';
    put2(out + 4, static_cast<int>(magnitude / 60 % 60));
}

// Looks up the cached prefix of second `s` of a UTC form, or makes it with
// `putPrefix`. Returns the record, or null when `s` cannot be written; the
// record is then left as it was.
template <char* (*putPrefix)(char*, const fields&)>
_thread_cache* utcPrefix(long s) {
    _thread_cache* cache = threadCache();
    if (s == cache->second) {
        return cache;
    }
    // The calendar runs on 32 signed bits; a count past 2^31 - 1 would wrap
    // to fields outside the digit tables, or to a wrong year.
    if (s < k_unixEpochSeconds || s - k_unixEpochSeconds > INT32_MAX) {
        return nullptr;
    }
    const fields f = splitSeconds(static_cast<std::int32_t>(s - k_unixEpochSeconds));
    cache->second = s;
    cache->prefixLength = static_cast<std::uint64_t>(putPrefix(cache->prefix, f) - cache->prefix);
    return cache;
}

}  // namespace

}  // namespace _iso_timestamp_detail

using namespace _iso_timestamp_detail;

unsigned long iso_timestamp::serialize(char* buffer, unsigned long size, long value) {
    if (size < 23) {
        return 0;
    }
    if (value == -1) {
        buffer[0] = '0';
        return 1;
    }
    if (value <= 0) {
        return 0;
    }
    const _thread_cache* cache = utcPrefix<putBasicPrefix>(value / 1000000);
    if (cache == nullptr || cache->prefixLength + 7 > size) {
        return 0;
    }
    std::memcpy(buffer, cache->prefix, cache->prefixLength);
    char* out = putDigits(buffer + cache->prefixLength, value % 1000000, 6);
    *out = 'Z';
    return cache->prefixLength + 7;
}

unsigned long iso_timestamp::serializeSendingTime(char* buffer, unsigned long size, long value) {
    if (size < 23 || value < 1) {
        return 0;
    }
    // The longest prefix of any form is 20 bytes, so 23 always suffices.
    const _thread_cache* cache = utcPrefix<putSendingPrefix>(value / 1000000);
    if (cache == nullptr) {
        return 0;
    }
    std::memcpy(buffer, cache->prefix, cache->prefixLength);
    putDigits(buffer + cache->prefixLength, value % 1000000 / 1000, 3);
    return cache->prefixLength + 3;
}

std::string iso_timestamp::asString(long value) {
    // Room for the longest prefix another form may have left, so that the
    // string is what serialize() gives with any buffer large enough.
    char buffer[32];
    return std::string(buffer, serialize(buffer, sizeof buffer, value));
}

unsigned long iso_timestamp::serialize_utc_with_offset(char* buffer, unsigned long size,
                                                       const timeval& time) {
    if (size < 32) {
        return 0;
    }
    long s;
    if (__builtin_add_overflow(time.tv_sec, time.tv_usec / 1000000, &s)) {
        return 0;
    }
    const auto micros = static_cast<unsigned long>(time.tv_usec);
    _thread_cache* cache = threadCache();
    if (s == cache->second) [[likely]] {
        std::memcpy(buffer, cache->prefix, cache->prefixLength);
        char* out = putDigits(buffer + cache->prefixLength, micros, 6);
        *out++ = '0';
        if (cache->gmtOffset != 0) {
            std::memcpy(out, cache->offsetText, 6);
            out += 6;
        }
        return static_cast<unsigned long>(out - buffer);
    }
    const time_t seconds = s;
    tm local;
    if (localtime_r(&seconds, &local) == nullptr) {
        return 0;
    }
    const fields f{local.tm_year, local.tm_mon, local.tm_mday,
                   local.tm_hour, local.tm_min, local.tm_sec};
    if (!isWritable(f)) {
        return 0;
    }
    cache->second = s;
    cache->prefixLength = 20;
    putExtendedPrefix(cache->prefix, f);
    std::memcpy(buffer, cache->prefix, 20);
    char* out = putDigits(buffer + 20, micros, 6);
    *out++ = '0';
    cache->gmtOffset = local.tm_gmtoff;
    if (local.tm_gmtoff == 0) {
        return 27;
    }
    putOffset(cache->offsetText, local.tm_gmtoff);
    std::memcpy(out, cache->offsetText, 6);
    return 33;
}

}  // namespace vlk
