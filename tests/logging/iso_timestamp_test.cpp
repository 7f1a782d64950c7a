// Every form is checked against the C library's own rendering (gmtime_r or
// localtime_r, strftime, snprintf). The per-thread record starts empty on a
// new thread, so each run that depends on its state gets a thread of its own.
#include <vlk/logging/iso_timestamp.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using vlk::iso_timestamp;
constexpr long k_epoch = vlk::_iso_timestamp_detail::k_unixEpochSeconds;

struct instant {
    long sec, usec;  // since 1970
};

long valueOf(instant t) {
    return (t.sec + k_epoch) * 1000000 + t.usec;
}

long civil(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    tm t{};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
    return timegm(&t);
}

std::string text(const char* format, const tm& t) {
    char date[64];
    return std::string(date, strftime(date, sizeof date, format, &t));
}

std::string expectedBasic(instant t) {
    tm u;
    gmtime_r(&t.sec, &u);
    char fraction[32];
    std::snprintf(fraction, sizeof fraction, ".%06ldZ", t.usec);
    return text("%Y%m%dT%H%M%S", u) + fraction;
}

std::string expectedSending(instant t) {
    tm u;
    gmtime_r(&t.sec, &u);
    char fraction[32];
    std::snprintf(fraction, sizeof fraction, ".%03ld", t.usec / 1000);
    return text("%Y%m%d-%H:%M:%S", u) + fraction;
}

std::string expectedLocal(instant t) {
    tm local;
    localtime_r(&t.sec, &local);
    char fraction[32];
    std::snprintf(fraction, sizeof fraction, ".%06ld0", t.usec);
    std::string result = text("%Y-%m-%dT%H:%M:%S", local) + fraction;
    if (local.tm_gmtoff != 0) {
        const std::string zone = text("%z", local);  // "+0530"
        result += zone.substr(0, 3) + ":" + zone.substr(3);
    }
    return result;
}

std::string basic(instant t, unsigned long size = 23) {
    char buffer[64];
    return std::string(buffer, iso_timestamp::serialize(buffer, size, valueOf(t)));
}
std::string sending(instant t) {
    char buffer[64];
    return std::string(buffer, iso_timestamp::serializeSendingTime(buffer, 23, valueOf(t)));
}
std::string local(instant t, unsigned long size = 32) {
    char buffer[64];
    const timeval tv{t.sec, t.usec};
    return std::string(buffer, iso_timestamp::serialize_utc_with_offset(buffer, size, tv));
}

void onFreshThread(const std::function<void()>& body) {
    std::thread(body).join();
}

struct scoped_zone {
    explicit scoped_zone(const char* zone) { setenv("TZ", zone, 1), tzset(); }
    ~scoped_zone() { unsetenv("TZ"), tzset(); }
};

// Edge instants and a fixed pseudo-random spread over [from, to).
std::vector<instant> instantsBetween(long from, long to) {
    std::vector<instant> result = {
        {civil(1972, 2, 29, 23, 59, 59), 1},       {civil(1970, 1, 1), 0},
        {civil(1972, 12, 31, 23, 59, 59), 999999}, {civil(2000, 2, 29, 12), 500000},
        {civil(2000, 12, 31, 23, 59, 59), 7},      {civil(1900, 1, 1, 12), 42},
        {civil(2038, 1, 19, 3, 14, 6), 999},       {civil(2099, 12, 31), 123456},
        {civil(2024, 3, 10, 6, 59, 59), 10},       {civil(2024, 11, 3, 5, 59, 59), 20},
        {civil(2024, 4, 6, 14, 59, 59), 30},       {civil(2024, 10, 5, 15, 29, 59), 40}};
    for (int year : {1900, 2023, 2024, 2100}) {
        for (int month = 1; month <= 12; ++month) {
            result.push_back({civil(year, month + 1, 1) - 1, month * 1000});
        }
    }
    std::erase_if(result, [&](instant t) { return t.sec < from || t.sec + 1 >= to; });
    std::mt19937_64 random(20260102);
    for (int i = 0; i < 400; ++i) {
        result.push_back({std::uniform_int_distribution<long>(from, to - 2)(random),
                          std::uniform_int_distribution<long>(0, 999999)(random)});
    }
    return result;
}

using form = std::function<std::string(instant)>;

// Each instant, then its second again (a hit), the next second (a miss) and
// that second again.
void expectFormMatches(const std::vector<instant>& instants, const form& actual,
                       const form& expected) {
    for (const instant t : instants) {
        for (const instant u : {t, instant{t.sec, 999999 - t.usec}, instant{t.sec + 1, 0},
                                instant{t.sec + 1, 314159}}) {
            ASSERT_EQ(actual(u), expected(u)) << u.sec << " s " << u.usec << " us";
        }
    }
}

TEST(IsoTimestamp, UtcFormsMatchGmtimeFrom1970To2038) {
    const auto instants = instantsBetween(0, civil(2038, 1, 19, 3, 14, 8));
    const form basicForm = [](instant t) { return basic(t); };
    const form asString = [](instant t) { return iso_timestamp::asString(valueOf(t)); };
    const scoped_zone zone("Asia/Kolkata");  // must not matter
    for (const auto& [actual, expected] : {std::pair<form, form>{basicForm, expectedBasic},
                                           {sending, expectedSending},
                                           {asString, expectedBasic}}) {
        onFreshThread([&] { expectFormMatches(instants, actual, expected); });
    }
}

TEST(IsoTimestamp, LocalFormMatchesLocaltimeInEveryZone) {
    const auto instants = instantsBetween(civil(1900, 1, 2), civil(2099, 12, 31));
    for (const char* name : {"UTC0", "America/New_York", "Asia/Kolkata", "XST+05:30",
                             "Australia/Lord_Howe", "Europe/London"}) {
        SCOPED_TRACE(name);
        const scoped_zone zone(name);
        onFreshThread([&] {
            expectFormMatches(
                instants, [](instant t) { return local(t); }, expectedLocal);
        });
    }
    // The 27th leap second, 2016-12-31 23:59:60, in a zone that counts them;
    // computed first, as timegm counts them too under that zone.
    const instant leap{civil(2017, 1, 1) + 26, 5};
    const scoped_zone zone("right/UTC");
    tm t;
    ASSERT_EQ(localtime_r(&leap.sec, &t)->tm_sec, 60);
    onFreshThread([&] { EXPECT_EQ(local(leap), expectedLocal(leap)); });
}

TEST(IsoTimestamp, SpecialValuesSizesAndRangeLimits) {
    char buffer[24] = "untouched";
    EXPECT_EQ(iso_timestamp::serialize(buffer, 22, valueOf({0, 0})), 0u);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(iso_timestamp::serialize(buffer, 23, -1), 1u);
    EXPECT_EQ(buffer[0], '0');
    for (long value : {0L, -1L, -2L, -valueOf({0, 0})}) {
        EXPECT_EQ(iso_timestamp::serializeSendingTime(buffer, 23, value), 0u) << value;
        EXPECT_EQ(iso_timestamp::asString(value), value == -1 ? "0" : "") << value;
    }
    EXPECT_EQ(iso_timestamp::asString(210866803200000000L), "19700101T000000.000000Z");
    EXPECT_EQ(sending({civil(2026, 1, 2), 999}), "20260102-00:00:00.000");
    EXPECT_EQ(basic({civil(2038, 1, 19, 3, 14, 8), 0}), "");
    const scoped_zone zone("Asia/Kolkata");
    EXPECT_EQ(local({civil(2099, 12, 31, 18, 30), 0}), "");  // 2100 there
    EXPECT_EQ(local({civil(1899, 12, 31, 18), 0}), "");
    EXPECT_EQ(local({civil(2026, 1, 2), 0}, 31), "");
    EXPECT_EQ(local({civil(2026, 1, 2), 1234567}), expectedLocal({civil(2026, 1, 2) + 1, 234567}));
    onFreshThread([&] {
        // Before the first miss the record holds second 0 and no prefix.
        EXPECT_EQ(iso_timestamp::serialize(buffer, 23, 1000000), 0u);  // before 1970
        EXPECT_EQ(iso_timestamp::asString(123456), "123456Z");
        EXPECT_EQ(local({0, 1234}), "0012340");
    });
}

TEST(IsoTimestamp, FormsSharingASecondTakeOverEachOthersPrefix) {
    const instant t{civil(2026, 1, 2, 3, 4, 5), 123456};
    onFreshThread([&] {
        EXPECT_EQ(sending(t), "20260102-03:04:05.123");
        EXPECT_EQ(basic(t, 25), "20260102-03:04:05.123456Z");
        EXPECT_EQ(basic(t, 24), "");  // would not fit
    });
    onFreshThread([&] {
        EXPECT_EQ(basic(t), "20260102T030405.123456Z");
        EXPECT_EQ(sending(t), "20260102T030405.123");
    });
}

TEST(IsoTimestamp, ZoneChangeShowsFromTheNextSecond) {
    const long s = civil(2026, 1, 2, 3, 4, 5);
    onFreshThread([&] {
        std::string kolkata;
        {
            const scoped_zone zone("Asia/Kolkata");
            kolkata = local({s, 1});
        }
        const scoped_zone zone("XST+05:30");
        EXPECT_EQ(local({s, 2}), kolkata.substr(0, 25) + "2" + kolkata.substr(26));
        EXPECT_EQ(local({s + 1, 3}), expectedLocal({s + 1, 3}));
        EXPECT_EQ(local({s + 1, 3}).substr(27), "-05:30");
    });
}

TEST(IsoTimestamp, ConcurrentThreadsKeepTheirOwnText) {
    const scoped_zone zone("Australia/Lord_Howe");  // set before the threads start
    const std::vector<instant> sets[2] = {instantsBetween(0, 1 << 30),
                                          instantsBetween(1 << 30, INT32_MAX)};
    std::latch start(2);
    int mismatches[2] = {0, 0};
    auto run = [&](int which) {
        start.arrive_and_wait();
        for (int round = 0; round < 20; ++round) {
            for (const instant t : sets[which]) {
                // Each form misses and then hits; the other form's key differs.
                for (const instant u : {t, instant{t.sec, (t.usec + round) % 1000000}}) {
                    mismatches[which] += basic(u) != expectedBasic(u);
                }
                for (const instant u : {t, instant{t.sec, (t.usec + round) % 1000000}}) {
                    mismatches[which] += local(u) != expectedLocal(u);
                }
            }
        }
    };
    std::thread first(run, 0), second(run, 1);
    first.join(), second.join();
    EXPECT_EQ(mismatches[0], 0);
    EXPECT_EQ(mismatches[1], 0);
}

}  // namespace
