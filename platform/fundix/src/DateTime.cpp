#include "fundix/System/DateTime.h"

#include <chrono>
#include <cstdio>

#include "fundix/Exception.h"
#include "fundix/MessageFormatter.h"

namespace Fundix::System {

namespace {

constexpr int64_t kMicrosPerSecond = 1'000'000;
constexpr int64_t kMicrosPerMinute = 60 * kMicrosPerSecond;
constexpr int64_t kMicrosPerHour = 60 * kMicrosPerMinute;
constexpr int64_t kMicrosPerDay = 24 * kMicrosPerHour;
// ±23:59, the largest offset the textual form can express.
constexpr int kMaxOffsetMinutes = 23 * 60 + 59;

struct CivilDate {
    int64_t year;
    int month;
    int day;
};

// Days since 1970-01-01 in the proleptic Gregorian calendar. Counting years from March puts the leap day
// at the end of the year, so a 400-year era has a fixed shape and no table is needed.
constexpr int64_t DaysFromCivil(int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;                                               // [0, 399]
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;  // [0, 365]
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;   // [0, 146096]
    return era * 146097 + dayOfEra - 719468;
}

// Inverse of DaysFromCivil.
constexpr CivilDate CivilFromDays(int64_t days) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;  // 0 = March
    const int day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    const int month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

static_assert(DaysFromCivil(1970, 1, 1) == 0);
static_assert(DaysFromCivil(2000, 3, 1) == 11017);
static_assert(CivilFromDays(-1).year == 1969 && CivilFromDays(-1).month == 12 && CivilFromDays(-1).day == 31);

constexpr int64_t kMinMicros = DaysFromCivil(1, 1, 1) * kMicrosPerDay;
constexpr int64_t kMaxMicros = DaysFromCivil(10000, 1, 1) * kMicrosPerDay - 1;

constexpr int64_t FloorDiv(int64_t value, int64_t divisor) {
    const int64_t quotient = value / divisor;
    return value % divisor < 0 ? quotient - 1 : quotient;
}

// Returns a description of the first field that is out of range, or null when all are valid.
const char* FindProblem(int year, int month, int day, int hour, int minute, int second, int microsecond,
                        int offsetMinutes) {
    if (year < 1 || year > 9999) {
        return "year must be 1..9999";
    }
    if (month < 1 || month > 12) {
        return "month must be 1..12";
    }
    if (day < 1 || day > DateTime::DaysInMonth(year, month)) {
        return "day does not exist in that month";
    }
    if (hour < 0 || hour > 23) {
        return "hour must be 0..23";
    }
    if (minute < 0 || minute > 59) {
        return "minute must be 0..59";
    }
    if (second < 0 || second > 59) {
        return "second must be 0..59";
    }
    if (microsecond < 0 || microsecond >= kMicrosPerSecond) {
        return "microsecond must be 0..999999";
    }
    if (offsetMinutes < -kMaxOffsetMinutes || offsetMinutes > kMaxOffsetMinutes) {
        return "offset must be -1439..1439 minutes";
    }
    return nullptr;
}

int64_t LocalToUtcMicros(int year, int month, int day, int hour, int minute, int second, int microsecond,
                         int offsetMinutes) {
    return DaysFromCivil(year, month, day) * kMicrosPerDay + hour * kMicrosPerHour +
           minute * kMicrosPerMinute + second * kMicrosPerSecond + microsecond -
           offsetMinutes * kMicrosPerMinute;
}

bool InRange(int64_t utcMicros) { return utcMicros >= kMinMicros && utcMicros <= kMaxMicros; }

constexpr char kOutOfRange[] = "instant is outside 0001-01-01T00:00:00Z..9999-12-31T23:59:59.999999Z";

}  // namespace

DateTime::DateTime(int year, int month, int day, int hour, int minute, int second, int microsecond,
                   int offsetMinutes) {
    const char* problem = FindProblem(year, month, day, hour, minute, second, microsecond, offsetMinutes);
    int64_t micros = 0;
    if (problem == nullptr) {
        micros = LocalToUtcMicros(year, month, day, hour, minute, second, microsecond, offsetMinutes);
        if (!InRange(micros)) {
            problem = kOutOfRange;
        }
    }
    if (problem != nullptr) {
        throw InvalidArgumentException(MessageFormatter::FormatValues(
            "invalid DateTime (%1): %2-%3-%4 %5:%6:%7.%8 offset %9 min", problem, year, month, day, hour,
            minute, second, microsecond, offsetMinutes));
    }
    utcMicros_ = micros;
    offsetMinutes_ = static_cast<int16_t>(offsetMinutes);
}

DateTime DateTime::FromUtcMicros(int64_t utcMicros, int offsetMinutes) {
    if (offsetMinutes < -kMaxOffsetMinutes || offsetMinutes > kMaxOffsetMinutes) {
        throw InvalidArgumentException(MessageFormatter::FormatValues(
            "invalid DateTime offset %1 min (must be -1439..1439)", offsetMinutes));
    }
    if (!InRange(utcMicros)) {
        throw InvalidArgumentException(
            MessageFormatter::FormatValues("invalid DateTime %1 us: %2", utcMicros, kOutOfRange));
    }
    return DateTime(utcMicros, static_cast<int16_t>(offsetMinutes));
}

DateTime DateTime::Now() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return DateTime(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count(), int16_t{0});
}

bool DateTime::IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DateTime::DaysInMonth(int year, int month) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

DateTime::Fields DateTime::GetUtcFields() const {
    const int64_t days = FloorDiv(utcMicros_, kMicrosPerDay);
    const int64_t timeOfDay = utcMicros_ - days * kMicrosPerDay;
    const CivilDate date = CivilFromDays(days);
    return Fields{static_cast<int>(date.year),
                  date.month,
                  date.day,
                  static_cast<int>(timeOfDay / kMicrosPerHour),
                  static_cast<int>(timeOfDay / kMicrosPerMinute % 60),
                  static_cast<int>(timeOfDay / kMicrosPerSecond % 60),
                  static_cast<int>(timeOfDay % kMicrosPerSecond)};
}

int DateTime::GetYear() const { return GetUtcFields().year; }

int DateTime::GetMonth() const { return GetUtcFields().month; }

int DateTime::GetDay() const { return GetUtcFields().day; }

int DateTime::GetHour() const { return GetUtcFields().hour; }

int DateTime::GetMinute() const { return GetUtcFields().minute; }

int DateTime::GetSecond() const { return GetUtcFields().second; }

int DateTime::GetMicrosecond() const { return GetUtcFields().microsecond; }

std::string DateTime::ToIso8601() const {
    const Fields f = GetUtcFields();
    char buffer[80];
    int length = std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d", f.year, f.month, f.day,
                               f.hour, f.minute, f.second);
    if (f.microsecond != 0) {
        length += std::snprintf(buffer + length, sizeof buffer - static_cast<std::size_t>(length), ".%06d",
                                f.microsecond);
        while (buffer[length - 1] == '0') {
            --length;
        }
    }
    return std::string(buffer, static_cast<std::size_t>(length)) + 'Z';
}

bool DateTime::ParseIso8601(std::string_view text, DateTime& out) {
    std::size_t pos = 0;
    const auto isDigit = [&] { return pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; };
    const auto number = [&](std::size_t width, int& value) {
        value = 0;
        for (std::size_t i = 0; i < width; ++i, ++pos) {
            if (!isDigit()) {
                return false;
            }
            value = value * 10 + (text[pos] - '0');
        }
        return true;
    };
    const auto literal = [&](char c) {
        if (pos < text.size() && text[pos] == c) {
            ++pos;
            return true;
        }
        return false;
    };

    int year, month, day, hour, minute, second;
    if (!number(4, year) || !literal('-') || !number(2, month) || !literal('-') || !number(2, day) ||
        !literal('T') || !number(2, hour) || !literal(':') || !number(2, minute) || !literal(':') ||
        !number(2, second)) {
        return false;
    }

    int microsecond = 0;
    if (literal('.')) {
        int digits = 0;
        for (; isDigit(); ++pos, ++digits) {
            if (digits < 6) {
                microsecond = microsecond * 10 + (text[pos] - '0');
            }
        }
        if (digits == 0 || digits > 9) {
            return false;
        }
        for (; digits < 6; ++digits) {
            microsecond *= 10;
        }
    }

    int offsetMinutes = 0;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        const int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        int offsetHours, offsetMins;
        if (!number(2, offsetHours) || !literal(':') || !number(2, offsetMins) || offsetHours > 23 ||
            offsetMins > 59) {
            return false;
        }
        offsetMinutes = sign * (offsetHours * 60 + offsetMins);
    } else {
        literal('Z');
    }
    if (pos != text.size()) {
        return false;
    }

    if (FindProblem(year, month, day, hour, minute, second, microsecond, offsetMinutes) != nullptr) {
        return false;
    }
    const int64_t micros =
        LocalToUtcMicros(year, month, day, hour, minute, second, microsecond, offsetMinutes);
    if (!InRange(micros)) {
        return false;
    }
    out = DateTime(micros, static_cast<int16_t>(offsetMinutes));
    return true;
}

}  // namespace Fundix::System
