// Comparison and arithmetic on wall-clock records.
#include "qzfs_datetime.h"

#include <cstdint>
#include <cstring>
#include <ctime>

namespace {

// Three-way result of the record comparisons.
const int kEqual = 0;
const int kLater = 1;
const int kEarlier = 2;

int compare_values(unsigned long first, unsigned long second)
{
    if (first > second)
        return kLater;
    if (first < second)
        return kEarlier;
    return kEqual;
}

// Seconds since the epoch of a date time read as local time with daylight
// saving off; dst of the record is not consulted.
time_t to_epoch(const _k4t_fs_date_time_* dt)
{
    struct tm tm_value;
    std::memset(&tm_value, 0, sizeof(tm_value));
    tm_value.tm_year = dt->year + 100;
    tm_value.tm_mon = dt->month - 1;
    tm_value.tm_mday = dt->day;
    tm_value.tm_hour = dt->hour;
    tm_value.tm_min = dt->minute;
    tm_value.tm_sec = dt->second;
    tm_value.tm_isdst = 0;
    return mktime(&tm_value);
}

}  // namespace

int Compare_date(unsigned char year1, unsigned char month1, unsigned char day1,
                 unsigned char year2, unsigned char month2, unsigned char day2)
{
    int result = compare_values(year1, year2);
    if (result == kEqual)
        result = compare_values(month1, month2);
    if (result == kEqual)
        result = compare_values(day1, day2);
    return result;
}

int Compare_year_month(unsigned char year1, unsigned char month1,
                       unsigned char year2, unsigned char month2)
{
    int result = compare_values(year1, year2);
    if (result == kEqual)
        result = compare_values(month1, month2);
    return result;
}

int Compare_time(unsigned char hour1, unsigned char minute1, unsigned char second1,
                 unsigned char hour2, unsigned char minute2, unsigned char second2)
{
    unsigned long first = hour1 * 3600UL + minute1 * 60UL + second1;
    unsigned long second = hour2 * 3600UL + minute2 * 60UL + second2;
    return compare_values(first, second);
}

// A null record has no ordering; it is reported as equal so that callers
// neither skip nor pick it on the strength of a comparison.
int Compare_time(const _k4t_fs_time_* time1, const _k4t_fs_time_* time2)
{
    if (time1 == nullptr || time2 == nullptr)
        return kEqual;
    return Compare_time(time1->hour, time1->minute, time1->second,
                        time2->hour, time2->minute, time2->second);
}

// Null records compare equal, as above.
int Compare_date_time(const _k4t_fs_date_time_* date_time1,
                      const _k4t_fs_date_time_* date_time2)
{
    if (date_time1 == nullptr || date_time2 == nullptr)
        return kEqual;
    int result = Compare_date(date_time1->year, date_time1->month, date_time1->day,
                              date_time2->year, date_time2->month, date_time2->day);
    if (result != kEqual)
        return result;
    return Compare_time(date_time1->hour, date_time1->minute, date_time1->second,
                        date_time2->hour, date_time2->minute, date_time2->second);
}

long long Calculate_date_time_interval(_k4t_fs_date_time_* a, _k4t_fs_date_time_* b)
{
    if (a == nullptr || b == nullptr)
        return 0;
    time_t first = to_epoch(a);
    time_t second = to_epoch(b);
    // The difference is taken in 32 bits, as on a platform with a 32-bit
    // time_t; subtracting unsigned keeps a wrap defined.
    uint32_t difference = static_cast<uint32_t>(first) - static_cast<uint32_t>(second);
    return static_cast<long long>(static_cast<int32_t>(difference));
}

long long Calculate_date_time_interval(timeval* a, timeval* b)
{
    if (a == nullptr || b == nullptr)
        return 0;
    long long seconds = static_cast<long long>(a->tv_sec) - static_cast<long long>(b->tv_sec);
    return seconds * 1000000LL + static_cast<long long>(a->tv_usec) -
           static_cast<long long>(b->tv_usec);
}

int Date_time_add(const _k4t_fs_date_time_* in, long long seconds, _k4t_fs_date_time_* out)
{
    if (in == nullptr || out == nullptr)
        return 0;
    time_t start = to_epoch(in);
    if (start < 0)
        return 0;
    long long sum = static_cast<long long>(start) + seconds;
    if (sum < 0)
        return 0;
    // Narrowed to the platform's time type; with a 32-bit time_t a sum past
    // 2038 wraps just as the platform clock would.
    time_t moment = static_cast<time_t>(sum);
    struct tm tm_value;
    if (localtime_r(&moment, &tm_value) == nullptr)
        return 0;
    out->year = tm_value.tm_year <= 99 ? 0 : static_cast<unsigned char>(tm_value.tm_year - 100);
    out->month = static_cast<unsigned char>(tm_value.tm_mon + 1);
    out->day = static_cast<unsigned char>(tm_value.tm_mday);
    out->hour = static_cast<unsigned char>(tm_value.tm_hour);
    out->minute = static_cast<unsigned char>(tm_value.tm_min);
    out->second = static_cast<unsigned char>(tm_value.tm_sec);
    return 1;
}

int Get_max_day(unsigned char year, unsigned char month, unsigned char* out)
{
    static const unsigned char kDaysOfMonth[12] = {31, 28, 31, 30, 31, 30,
                                                   31, 31, 30, 31, 30, 31};
    if (out == nullptr || year > 99 || month < 1 || month > 12)
        return 0;
    unsigned char days = kDaysOfMonth[month - 1];
    // Every fourth year from 2000 to 2099 is a leap year, 2000 included.
    if (month == 2 && year % 4 == 0)
        days = 29;
    *out = days;
    return 1;
}
