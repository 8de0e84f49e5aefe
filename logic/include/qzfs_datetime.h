// Comparison and arithmetic on the wall-clock records of the system.
//
// Record times are calendar fields in bytes (year counted from 2000, 0..99),
// not seconds since an epoch.  Every comparison returns 0 when both sides are
// equal, 1 when the first is later and 2 when the first is earlier.  The dst
// byte of a date time never takes part in a comparison or a calculation.
#ifndef QZFS_DATETIME_H
#define QZFS_DATETIME_H

#include "qzfilesystem_api.h"

#include <sys/time.h>

// Compares two days field by field from the year down: 0 equal, 1 first
// later, 2 first earlier.
int Compare_date(unsigned char year1, unsigned char month1, unsigned char day1,
                 unsigned char year2, unsigned char month2, unsigned char day2);

// Compares two months, year first: 0 equal, 1 first later, 2 first earlier.
int Compare_year_month(unsigned char year1, unsigned char month1,
                       unsigned char year2, unsigned char month2);

// Compares two times of day by their seconds since midnight: 0 equal,
// 1 first later, 2 first earlier.
int Compare_time(unsigned char hour1, unsigned char minute1, unsigned char second1,
                 unsigned char hour2, unsigned char minute2, unsigned char second2);

// As above on two records; a null pointer compares equal (0).
int Compare_time(const _k4t_fs_time_* time1, const _k4t_fs_time_* time2);

// Compares the days, then on a tie the times; dst is ignored.  0 equal,
// 1 first later, 2 first earlier; a null pointer compares equal (0).
int Compare_date_time(const _k4t_fs_date_time_* date_time1,
                      const _k4t_fs_date_time_* date_time2);

// Seconds since midnight of a time of day.
inline unsigned qzfs_second_of_day(unsigned hour, unsigned minute, unsigned second)
{
    return hour * 3600u + minute * 60u + second;
}

// True when a time of day is in range: hour 0..23, minute and second 0..59.
inline bool qzfs_time_valid(const _k4t_fs_time_& t)
{
    return t.hour <= 23 && t.minute <= 59 && t.second <= 59;
}

// True when every field of a date time is in range: year 0..99, month
// 1..12, day 1..31, hour 0..23, minute and second 0..59.
inline bool qzfs_date_time_valid(const _k4t_fs_date_time_& t)
{
    return t.year <= 99 && t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 &&
           t.hour <= 23 && t.minute <= 59 && t.second <= 59;
}

// Seconds from b to a (a minus b), both read as local standard time of the
// process time zone, as a signed 32-bit difference.  0 if either is null.
long long Calculate_date_time_interval(_k4t_fs_date_time_* a, _k4t_fs_date_time_* b);

// Microseconds from b to a (a minus b).  0 if either is null.
long long Calculate_date_time_interval(timeval* a, timeval* b);

// out := in + seconds.  Returns 1 on success, 0 when the time falls before
// 1970, cannot be converted, or a pointer is null.  The dst byte of out is
// left as it was.
int Date_time_add(const _k4t_fs_date_time_* in, long long seconds, _k4t_fs_date_time_* out);

// out := number of days of the month.  Returns 1 on success; 0, with out
// untouched, for a year above 99, a month outside 1..12 or a null out.
int Get_max_day(unsigned char year, unsigned char month, unsigned char* out);

#endif
