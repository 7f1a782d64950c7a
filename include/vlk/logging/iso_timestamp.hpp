// Timestamps as text: three UTC forms of a microsecond timestamp value and
// the local-time form that starts every log record.
//
// A timestamp value counts microseconds since the epoch of the Julian day
// count, 210866803200 s before 1970-01-01 00:00:00 UTC; 0 means "no time" and
// -1 is a marker. Every form keeps, per thread, the text up to and including
// the "." of the last second it wrote, so that within one second a call costs
// one copy of that prefix and six table look-ups: no lock, no allocation, no
// clock. The calendar work (UTC forms, own arithmetic, independent of TZ) or
// localtime_r (local form) runs once per thread per second. The per-thread
// record is made with `new` on first use and deleted at thread exit.
//
// The record is keyed by the second alone and shared by all four forms: two
// forms called for the same second on one thread take over each other's
// prefix. None of the forms writes a terminating NUL. All are safe from any
// thread; they share only constant tables.
//
// Limits: the UTC forms work on a second count cut to 32 signed bits and
// return 0 from 2038-01-19 03:14:08 UTC on; every form writes the year as
// "19" or "20" and two digits and returns 0 for a year outside 1900-2099.
#pragma once

#include <sys/time.h>

#include <string>

namespace vlk {

namespace _iso_timestamp_detail {

// "0123456789": digit d is _pCharRep[d].
extern const char* const _pCharRep;
// "00" to "60", not NUL-terminated in use: the two digits of 0 to 60, the
// leap second included.
extern const char* const _numReps[61];

// Seconds between the Julian day count's epoch and 1970-01-01 00:00:00 UTC.
inline constexpr long k_unixEpochSeconds = 210866803200L;

}  // namespace _iso_timestamp_detail

class iso_timestamp {
  public:
    // "20260102T030405.123456Z": UTC to the microsecond, 23 bytes, when
    // `size` >= 23. The value -1 writes "0" and returns 1; 0, any other
    // negative value and a value before 1970 return 0 and write nothing.
    // A prefix taken over from another form makes the text longer than 23;
    // when it would not fit in `size`, nothing is written and 0 returned.
    static unsigned long serialize(char* buffer, unsigned long size, long value);

    // "20260102-03:04:05.123": UTC to the millisecond (truncated), 21 bytes.
    // Needs `size` >= 23; a value below 1 or before 1970 returns 0.
    static unsigned long serializeSendingTime(char* buffer, unsigned long size, long value);

    // The text of serialize() as a string: empty where serialize returns 0.
    static std::string asString(long value);

    // "2026-01-02T03:04:05.1234560+01:00" in local time (localtime_r, so the
    // process's TZ), 33 bytes, or 27 when the offset is 0. Needs `size` >= 32
    // but may write 33 bytes: the caller owns at least 33. The fraction is
    // the six low decimal digits of tv_usec and a constant "0"; tv_usec's
    // whole seconds are added to tv_sec. The offset is cached with the
    // prefix, so a change of zone shows from the next second on.
    static unsigned long serialize_utc_with_offset(char* buffer, unsigned long size,
                                                   const timeval& time);
};

}  // namespace vlk
