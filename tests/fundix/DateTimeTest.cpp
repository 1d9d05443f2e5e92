#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "fundix/Exception.h"
#include "fundix/System/DateTime.h"

using Fundix::InvalidArgumentException;
using Fundix::System::DateTime;

namespace {

constexpr int64_t kMicrosPerDay = 86'400'000'000;

DateTime Parse(const std::string& text) {
    DateTime out;
    EXPECT_TRUE(DateTime::ParseIso8601(text, out)) << text;
    return out;
}

TEST(DateTimeTest, FieldsMapToUtcMicros) {
    EXPECT_EQ(DateTime().GetUtcMicros(), 0);
    EXPECT_EQ(DateTime(2000, 3, 1).GetUtcMicros(), 11017 * kMicrosPerDay);
    EXPECT_EQ(DateTime(1969, 12, 31, 23, 59, 59, 999999).GetUtcMicros(), -1);

    const DateTime before = DateTime::FromUtcMicros(-1);
    EXPECT_EQ(before.GetYear(), 1969);
    EXPECT_EQ(before.GetDay(), 31);
    EXPECT_EQ(before.GetHour(), 23);
    EXPECT_EQ(before.GetMicrosecond(), 999999);

    // 01:30 at +02:00 is 23:30 UTC on the previous day, here across a year boundary.
    const DateTime local(2025, 1, 1, 1, 30, 0, 0, 120);
    EXPECT_EQ(local.GetOffsetMinutes(), 120);
    EXPECT_EQ(local.ToIso8601(), "2024-12-31T23:30:00Z");
}

TEST(DateTimeTest, LeapYearsAndFieldValidation) {
    EXPECT_TRUE(DateTime::IsLeapYear(2000));
    EXPECT_FALSE(DateTime::IsLeapYear(1900));
    EXPECT_EQ(DateTime(2024, 3, 1).GetUtcMicros() - DateTime(2024, 2, 28).GetUtcMicros(), 2 * kMicrosPerDay);
    EXPECT_EQ(DateTime(1900, 3, 1).GetUtcMicros() - DateTime(1900, 2, 28).GetUtcMicros(), kMicrosPerDay);

    EXPECT_THROW(DateTime(2023, 2, 29), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 4, 31), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 13, 1), InvalidArgumentException);
    EXPECT_THROW(DateTime(0, 1, 1), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 1, 1, 24), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 1, 1, 0, 0, 60), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 1, 1, 0, 0, 0, 1000000), InvalidArgumentException);
    EXPECT_THROW(DateTime(2024, 1, 1, 0, 0, 0, 0, 1440), InvalidArgumentException);
    EXPECT_THROW(DateTime(1, 1, 1, 0, 0, 0, 0, 60), InvalidArgumentException);  // before year 1 in UTC
    EXPECT_THROW(DateTime::FromUtcMicros(INT64_MIN), InvalidArgumentException);
}

TEST(DateTimeTest, FormatsAndParsesIso8601) {
    EXPECT_EQ(DateTime(2026, 11, 23, 9, 15).ToIso8601(), "2026-11-23T09:15:00Z");
    EXPECT_EQ(DateTime(2026, 11, 23, 9, 15, 0, 500000).ToIso8601(), "2026-11-23T09:15:00.5Z");
    EXPECT_EQ(DateTime(2026, 11, 23, 9, 15, 0, 1).ToIso8601(), "2026-11-23T09:15:00.000001Z");

    EXPECT_EQ(Parse("2026-11-23T09:15:00"), DateTime(2026, 11, 23, 9, 15));
    const DateTime withOffset = Parse("2026-11-23T11:45:00+02:30");
    EXPECT_EQ(withOffset, DateTime(2026, 11, 23, 9, 15));
    EXPECT_EQ(withOffset.GetOffsetMinutes(), 150);
    const DateTime west = Parse("2026-11-23T00:00:00-03:30");  // minutes west of UTC count westward too
    EXPECT_EQ(west.ToIso8601(), "2026-11-23T03:30:00Z");
    EXPECT_EQ(west.GetOffsetMinutes(), -210);

    EXPECT_EQ(Parse("2024-02-29T00:00:00.5Z").GetMicrosecond(), 500000);
    EXPECT_EQ(Parse("2024-02-29T00:00:00.000042Z").GetMicrosecond(), 42);
    EXPECT_EQ(Parse("2024-02-29T00:00:00.999999999Z").GetMicrosecond(), 999999);  // truncated, not rounded

    for (const DateTime& value : {DateTime(1969, 7, 20, 20, 17, 40), DateTime(2000, 2, 29, 12, 0, 0, 250),
                                  DateTime(1, 1, 1), DateTime(9999, 12, 31, 23, 59, 59, 999999)}) {
        EXPECT_EQ(Parse(value.ToIso8601()).GetUtcMicros(), value.GetUtcMicros()) << value.ToIso8601();
    }
}

TEST(DateTimeTest, ParseRejectsMalformedText) {
    for (const char* text :
         {"", "garbage", "2024-13-01T00:00:00Z", "2023-02-29T00:00:00Z", "2024-02-30T00:00:00Z",
          "0000-01-01T00:00:00Z", "0001-01-01T00:30:00+01:00", "2024-01-01 00:00:00Z", "2024-01-01",
          "2024-1-01T00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:00:60Z", "2024-01-01T00:00:00.Z",
          "2024-01-01T00:00:00.1234567890Z", "2024-01-01T00:00:00+0100", "2024-01-01T00:00:00+01:60",
          "2024-01-01T00:00:00Z "}) {
        DateTime out = DateTime::FromUtcMicros(7);
        EXPECT_FALSE(DateTime::ParseIso8601(text, out)) << '"' << text << '"';
        EXPECT_EQ(out.GetUtcMicros(), 7) << "output changed for " << text;
    }
}

TEST(DateTimeTest, ComparesInstantsOnly) {
    const DateTime utc(2026, 11, 23, 9, 15);
    const DateTime east(2026, 11, 23, 10, 15, 0, 0, 60);
    EXPECT_EQ(utc, east);
    EXPECT_FALSE(utc < east || east < utc);

    const DateTime later(2026, 11, 23, 9, 15, 0, 1);
    EXPECT_LT(east, later);
    EXPECT_GE(later, utc);
    EXPECT_NE(later, utc);
    EXPECT_GT(DateTime::Now(), DateTime(2020, 1, 1));
}

}  // namespace
