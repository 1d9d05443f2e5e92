#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Fundix::System {

// A point in time with microsecond precision, stored as microseconds since 1970-01-01T00:00:00Z, together
// with the UTC offset (in minutes) it was written with. The offset is informational only: comparison looks
// at the instant, and the broken-down getters and ToIso8601 report UTC.
//
// Every value lies between 0001-01-01T00:00:00Z and 9999-12-31T23:59:59.999999Z, so its ISO 8601 text can
// always be parsed back.
class DateTime {
public:
    // The epoch, offset 0.
    DateTime() = default;

    // The fields are local time at offsetMinutes (east of UTC positive). Throws InvalidArgumentException
    // when a field is out of range or the resulting instant is outside the supported years.
    DateTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int microsecond = 0,
             int offsetMinutes = 0);

    static DateTime FromUtcMicros(int64_t utcMicros, int offsetMinutes = 0);
    static DateTime Now();

    int64_t GetUtcMicros() const { return utcMicros_; }
    int GetOffsetMinutes() const { return offsetMinutes_; }

    // Broken-down UTC time.
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;
    int GetMicrosecond() const;

    // UTC with a trailing Z, e.g. "2026-11-23T09:15:00Z"; a fraction is added only when there are
    // microseconds, without trailing zeros ("...:00.5Z").
    std::string ToIso8601() const;

    // Accepts exactly YYYY-MM-DDThh:mm:ss[.fraction][Z|+hh:mm|-hh:mm]. No zone means UTC. The fraction may
    // have 1 to 9 digits and is truncated to microseconds. Returns false, leaving `out` untouched, for
    // anything else, including impossible dates; never throws.
    static bool ParseIso8601(std::string_view text, DateTime& out);

    static bool IsLeapYear(int year);
    // Precondition: month in 1..12.
    static int DaysInMonth(int year, int month);

    friend bool operator==(const DateTime& a, const DateTime& b) { return a.utcMicros_ == b.utcMicros_; }
    friend std::strong_ordering operator<=>(const DateTime& a, const DateTime& b) {
        return a.utcMicros_ <=> b.utcMicros_;
    }

private:
    struct Fields {
        int year, month, day, hour, minute, second, microsecond;
    };

    DateTime(int64_t utcMicros, int16_t offsetMinutes)
        : utcMicros_(utcMicros), offsetMinutes_(offsetMinutes) {}

    Fields GetUtcFields() const;

    int64_t utcMicros_ = 0;
    int16_t offsetMinutes_ = 0;
};

}  // namespace Fundix::System
