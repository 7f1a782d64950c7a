// Every form is checked against the C library's rendering (gmtime_r or
// localtime_r, strftime, snprintf). The per-thread record starts empty on a
// new thread, so each run that depends on its state gets a thread of its own.
#include <vlk/logging/iso_timestamp.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../concurrency.hpp"

namespace {

using vlk::iso_timestamp;

struct instant {
    long sec, usec;  // since 1970
};

long valueOf(instant t) {
    return (t.sec + vlk::_iso_timestamp_detail::k_unixEpochSeconds) * 1000000 + t.usec;
}

long civil(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    tm t{};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
    return timegm(&t);
}

enum form { basic, sending, local };

std::string actual(form f, instant t, unsigned long size = 0) {
    char out[64];
    const timeval tv{t.sec, t.usec};
    const unsigned long n =
        f == basic     ? iso_timestamp::serialize(out, size ? size : 23, valueOf(t))
        : f == sending ? iso_timestamp::serializeSendingTime(out, 23, valueOf(t))
                       : iso_timestamp::serialize_utc_with_offset(out, size ? size : 32, tv);
    return std::string(out, n);
}

std::string expected(form f, instant t) {
    static const char* const dates[] = {"%Y%m%dT%H%M%S", "%Y%m%d-%H:%M:%S", "%Y-%m-%dT%H:%M:%S"};
    tm c;
    f == local ? localtime_r(&t.sec, &c) : gmtime_r(&t.sec, &c);
    char date[64], rest[64];
    std::string text(date, strftime(date, sizeof date, dates[f], &c));
    std::snprintf(rest, sizeof rest,
                  f == basic   ? ".%06ldZ"
                  : f == local ? ".%06ld0"
                               : ".%03ld",
                  f == sending ? t.usec / 1000 : t.usec);
    text += rest;
    if (f == local && c.tm_gmtoff != 0) {
        strftime(rest, sizeof rest, "%z", &c);  // "+0530"
        text += std::string(rest, 3) + ":" + (rest + 3);
    }
    return text;
}

struct scoped_zone {
    explicit scoped_zone(const char* zone) { setenv("TZ", zone, 1), tzset(); }
    ~scoped_zone() { unsetenv("TZ"), tzset(); }
};

// Month ends, leap days, year ends, zone transitions and a fixed
// pseudo-random spread, all within [from, to - 1).
std::vector<instant> instantsBetween(long from, long to) {
    std::vector<instant> all = {
        {civil(1972, 2, 29, 23, 59, 59), 1}, {civil(1970, 1, 1), 0},
        {civil(2000, 2, 29, 12), 500000},    {civil(2038, 1, 19, 3, 14, 6), 999},
        {civil(2024, 3, 10, 6, 59, 59), 10}, {civil(2024, 4, 6, 14, 59, 59), 30},
        {civil(2024, 10, 5, 15, 29, 59), 40}};
    for (int year : {1900, 1972, 2000, 2023, 2099}) {
        for (int month = 1; month <= 12; ++month) {
            all.push_back({civil(year, month + 1, 1) - 1, month * 1000});
        }
    }
    std::erase_if(all, [&](instant t) { return t.sec < from || t.sec + 1 >= to; });
    std::mt19937_64 random(20260102);
    for (int i = 0; i < 400; ++i) {
        all.push_back({std::uniform_int_distribution<long>(from, to - 2)(random),
                       std::uniform_int_distribution<long>(0, 999999)(random)});
    }
    return all;
}

// Each instant (a miss), its second again (a hit), the next second (a miss)
// and that second again.
void expectFormMatches(form f, const std::vector<instant>& instants) {
    for (const instant t : instants) {
        for (const instant u : {t, instant{t.sec, 999999 - t.usec}, instant{t.sec + 1, 0},
                                instant{t.sec + 1, 314159}}) {
            ASSERT_EQ(actual(f, u), expected(f, u)) << u.sec << " s " << u.usec << " us";
            if (f == basic) {
                ASSERT_EQ(iso_timestamp::asString(valueOf(u)), expected(f, u));
            }
        }
    }
}

// The UTC forms from 1970 to 2038, which no zone may change; the local form
// from 1900 to 2099 in every kind of zone. The three forms run at once, each
// on a thread of its own, whose text no other thread may change.
TEST(IsoTimestamp, FormsMatchTheCLibraryInEveryZoneOnConcurrentThreads) {
    const auto utc = instantsBetween(0, civil(2038, 1, 19, 3, 14, 8));
    const auto inLocalRange = instantsBetween(civil(1900, 1, 2), civil(2099, 12, 31));
    for (const char* name : {"UTC0", "America/New_York", "Asia/Kolkata", "XST+05:30",
                             "Australia/Lord_Howe", "Europe/London"}) {
        const scoped_zone zone(name);  // set before the threads start
        vlk_test::onThreads(3, [&](unsigned f) {
            SCOPED_TRACE(name);
            expectFormMatches(form(f), f == local ? inLocalRange : utc);
        });
    }
    // 2016-12-31 23:59:60 in a zone that counts leap seconds; computed first,
    // as timegm counts them too under that zone.
    const instant leap{civil(2017, 1, 1) + 26, 5};
    const scoped_zone zone("right/UTC");
    tm t;
    ASSERT_EQ(localtime_r(&leap.sec, &t)->tm_sec, 60);
    std::thread([&] { EXPECT_EQ(actual(local, leap), expected(local, leap)); }).join();
}

TEST(IsoTimestamp, SpecialValuesSizesAndRangeLimits) {
    const instant t{civil(2026, 1, 2), 999};
    EXPECT_EQ(actual(basic, t, 22), "");
    for (long value : {0L, -1L, -2L, -valueOf(t)}) {
        char out[24];
        EXPECT_EQ(iso_timestamp::serializeSendingTime(out, 23, value), 0u) << value;
        EXPECT_EQ(iso_timestamp::asString(value), value == -1 ? "0" : "") << value;
    }
    EXPECT_EQ(actual(basic, {civil(2038, 1, 19, 3, 14, 8), 0}), "");  // past 32 bits
    const scoped_zone zone("Asia/Kolkata");
    EXPECT_EQ(actual(local, {civil(2099, 12, 31, 18, 30), 0}), "");  // 2100 there
    EXPECT_EQ(actual(local, t, 31), "");
    EXPECT_EQ(actual(local, {t.sec, 1234567}), expected(local, {t.sec + 1, 234567}));
    std::thread([] {
        // Until the first miss the record holds second 0 and no prefix; a
        // value before 1970 is no miss.
        EXPECT_EQ(iso_timestamp::asString(1000000), "");
        EXPECT_EQ(iso_timestamp::asString(123456), "123456Z");
        EXPECT_EQ(actual(local, {0, 1234}), "0012340");
    }).join();
}

// The per-thread prefix serves every form, and a zone change, until the
// next second.
TEST(IsoTimestamp, ThePrefixOfASecondIsSharedByFormsAndOutlivesAZoneChange) {
    const instant t{civil(2026, 1, 2, 3, 4, 5), 123456};
    std::thread([&] {
        EXPECT_EQ(actual(sending, t), "20260102-03:04:05.123");
        EXPECT_EQ(actual(basic, t, 25), "20260102-03:04:05.123456Z");
        EXPECT_EQ(actual(basic, t, 24), "");  // would not fit
    }).join();
    std::thread([&] {
        std::string kolkata;
        {
            const scoped_zone zone("Asia/Kolkata");
            kolkata = actual(local, {t.sec, 1});
        }
        const scoped_zone zone("XST+05:30");
        EXPECT_EQ(actual(local, {t.sec, 2}), kolkata.substr(0, 25) + "2" + kolkata.substr(26));
        EXPECT_EQ(actual(local, {t.sec + 1, 3}), expected(local, {t.sec + 1, 3}));
        EXPECT_EQ(actual(local, {t.sec + 1, 3}).substr(27), "-05:30");
    }).join();
}

}  // namespace
