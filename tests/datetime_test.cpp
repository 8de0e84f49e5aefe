// Date and time records: three-way comparisons, intervals, adding seconds and
// the length of a month, under a fixed time zone per fixture.
#include "qzfs_datetime.h"

#include <gtest/gtest.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <unistd.h>

namespace {

_k4t_fs_date_time_ dt(int year, int month, int day, int hour, int minute, int second, int dst = 0)
{
    return {(uint8_t)year, (uint8_t)month, (uint8_t)day, (uint8_t)hour,
            (uint8_t)minute, (uint8_t)second, (uint8_t)dst};
}

// "YY-MM-DD hh:mm:ss" of a record, dst left out.
std::string text(const _k4t_fs_date_time_& v)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%02u-%02u-%02u %02u:%02u:%02u", v.year, v.month, v.day, v.hour, v.minute, v.second);
    return buf;
}

// Sets TZ for the life of one test and puts the old value back afterwards.
class ZoneTest : public ::testing::Test {
protected:
    explicit ZoneTest(const char* zone) : zone_(zone) {}
    void SetUp() override
    {
        const char* old = std::getenv("TZ");
        if ((had_tz_ = old != nullptr)) old_tz_ = old;
        setenv("TZ", zone_, 1), tzset();
    }
    void TearDown() override
    {
        had_tz_ ? setenv("TZ", old_tz_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    // Adds seconds, expecting success and the dst byte of the output untouched.
    _k4t_fs_date_time_ add(_k4t_fs_date_time_ in, long long seconds)
    {
        _k4t_fs_date_time_ out = dt(0, 0, 0, 0, 0, 0, 0xAB);
        EXPECT_EQ(1, Date_time_add(&in, seconds, &out));
        EXPECT_EQ(0xAB, out.dst);
        return out;
    }
    const char* zone_;
    std::string old_tz_;
    bool had_tz_ = false;
};

// UTC+8 without daylight saving.
struct DateTimeArithmetic : ZoneTest { DateTimeArithmetic() : ZoneTest("CST-8") {} };

// Central Europe: summer time from the last Sunday of March.
struct DateTimeDaylightSaving : ZoneTest {
    DateTimeDaylightSaving()
        : ZoneTest(access("/usr/share/zoneinfo/Europe/Berlin", R_OK) == 0
                       ? "Europe/Berlin" : "CET-1CEST,M3.5.0,M10.5.0/3") {}
};

TEST(DateTimeCompare, FieldsFromTheTopDown)
{
    EXPECT_EQ(0, Compare_date(24, 2, 29, 24, 2, 29));
    EXPECT_EQ(1, Compare_date(25, 1, 1, 24, 12, 31));  // year outweighs month and day
    EXPECT_EQ(2, Compare_date(24, 2, 30, 24, 3, 1));   // month outweighs day
    EXPECT_EQ(1, Compare_date(24, 3, 2, 24, 3, 1));
    EXPECT_EQ(0, Compare_year_month(24, 7, 24, 7));
    EXPECT_EQ(2, Compare_year_month(23, 12, 24, 1));
    EXPECT_EQ(1, Compare_year_month(24, 8, 24, 7));
    EXPECT_EQ(2, Compare_time(0, 59, 59, 1, 0, 0));
    EXPECT_EQ(1, Compare_time(12, 0, 1, 12, 0, 0));
    // Times compare as seconds of the day, not field by field.
    EXPECT_EQ(1, Compare_time(0, 61, 0, 1, 0, 0));
    EXPECT_EQ(0, Compare_time(0, 60, 0, 1, 0, 0));
    _k4t_fs_time_ t1 = {10, 30, 0}, t2 = {10, 29, 59};
    EXPECT_EQ(1, Compare_time(&t1, &t2));
    EXPECT_EQ(2, Compare_time(&t2, &t1));
    EXPECT_EQ(0, Compare_time(&t1, nullptr));  // null compares equal
}

TEST(DateTimeCompare, DateBeforeTimeAndDstIgnored)
{
    _k4t_fs_date_time_ a = dt(24, 5, 2, 0, 0, 0), b = dt(24, 5, 1, 23, 59, 59);
    _k4t_fs_date_time_ c = dt(24, 5, 1, 23, 59, 58), summer = dt(24, 5, 1, 23, 59, 59, 1);
    EXPECT_EQ(1, Compare_date_time(&a, &b));
    EXPECT_EQ(2, Compare_date_time(&b, &a));
    EXPECT_EQ(1, Compare_date_time(&b, &c));
    EXPECT_EQ(0, Compare_date_time(&b, &summer));
    EXPECT_EQ(0, Compare_date_time(nullptr, &b));
}

TEST(DateTimeCompare, TimevalIntervalBorrowsMicroseconds)
{
    timeval a = {10, 100}, b = {8, 900000};
    EXPECT_EQ(1100100, Calculate_date_time_interval(&a, &b));
    EXPECT_EQ(-1100100, Calculate_date_time_interval(&b, &a));
    timeval far = {4000, 0}, zero = {0, 0};
    EXPECT_EQ(4000000000LL, Calculate_date_time_interval(&far, &zero));
    EXPECT_EQ(0, Calculate_date_time_interval(&far, static_cast<timeval*>(nullptr)));
}

TEST_F(DateTimeArithmetic, IntervalAcrossBoundaries)
{
    _k4t_fs_date_time_ a = dt(25, 1, 1, 0, 0, 1), b = dt(24, 12, 31, 23, 59, 59, 1);
    EXPECT_EQ(2, Calculate_date_time_interval(&a, &b));
    EXPECT_EQ(-2, Calculate_date_time_interval(&b, &a));
    _k4t_fs_date_time_ feb28 = dt(24, 2, 28, 12, 0, 0), mar1 = dt(24, 3, 1, 12, 0, 0);
    EXPECT_EQ(2 * 86400, Calculate_date_time_interval(&mar1, &feb28));
    feb28.year = mar1.year = 23;
    EXPECT_EQ(86400, Calculate_date_time_interval(&mar1, &feb28));
    _k4t_fs_date_time_ y24 = dt(24, 1, 1, 0, 0, 0), y25 = dt(25, 1, 1, 0, 0, 0);
    EXPECT_EQ(366 * 86400, Calculate_date_time_interval(&y25, &y24));
    EXPECT_EQ(0, Calculate_date_time_interval(&y25, static_cast<_k4t_fs_date_time_*>(nullptr)));
    if (sizeof(time_t) == 8) {  // the difference is a 32-bit one and wraps past 68 years
        _k4t_fs_date_time_ y70 = dt(70, 1, 1, 0, 0, 0), y00 = dt(0, 1, 1, 0, 0, 0);
        EXPECT_EQ(-2085892096LL, Calculate_date_time_interval(&y70, &y00));
    }
}

TEST_F(DateTimeArithmetic, AddAcrossFebruaryAndBackwards)
{
    EXPECT_EQ("24-02-29 12:00:00", text(add(dt(24, 2, 28, 12, 0, 0), 86400)));
    EXPECT_EQ("24-03-01 12:00:00", text(add(dt(24, 2, 28, 12, 0, 0), 2 * 86400)));
    EXPECT_EQ("23-03-01 12:00:00", text(add(dt(23, 2, 28, 12, 0, 0), 86400)));
    EXPECT_EQ("24-12-31 23:59:59", text(add(dt(25, 1, 1, 0, 0, 0, 1), -1)));
    // A year before 2000 comes out as year 0.
    EXPECT_EQ("00-01-02 00:00:00", text(add(dt(1, 1, 1, 0, 0, 0), -730LL * 86400)));
}

TEST_F(DateTimeArithmetic, AddRefusesBefore1970)
{
    // 2000-01-01 00:00 at UTC+8 is 946656000 seconds after the epoch.
    _k4t_fs_date_time_ in = dt(0, 1, 1, 0, 0, 0), out = dt(9, 9, 9, 9, 9, 9, 0xAB);
    EXPECT_EQ("00-01-01 08:00:00", text(add(in, -946656000LL)));
    EXPECT_EQ(0, Date_time_add(&in, -946656001LL, &out));
    EXPECT_EQ(0, Date_time_add(nullptr, 0, &out));
    EXPECT_EQ(0, Date_time_add(&in, 0, nullptr));
    if (sizeof(time_t) == 4) {  // 2040 is beyond a 32-bit clock: mktime fails
        _k4t_fs_date_time_ late = dt(40, 1, 1, 0, 0, 0);
        EXPECT_EQ(0, Date_time_add(&late, 0, &out));
    }
}

TEST_F(DateTimeDaylightSaving, FieldsAreReadAsStandardTime)
{
    // Both midnights are read with daylight saving off, so the short night
    // of the spring change does not shorten the interval.
    _k4t_fs_date_time_ sat = dt(25, 3, 30, 0, 0, 0), sun = dt(25, 3, 31, 0, 0, 0, 1);
    EXPECT_EQ(86400, Calculate_date_time_interval(&sun, &sat));
    _k4t_fs_date_time_ jan = dt(25, 1, 1, 0, 0, 0), jul = dt(25, 7, 1, 0, 0, 0);
    EXPECT_EQ(181LL * 86400, Calculate_date_time_interval(&jul, &jan));
    // The sum goes back through local time, where summer time is in force.
    EXPECT_EQ("25-07-01 13:00:00", text(add(dt(25, 7, 1, 12, 0, 0), 0)));
    EXPECT_EQ("25-01-01 12:00:00", text(add(dt(25, 1, 1, 12, 0, 0), 0)));
}

TEST(DateTimeMaxDay, MonthLengths)
{
    unsigned char days = 0;
    const int cases[][3] = {{0, 2, 29}, {1, 2, 28}, {96, 2, 29}, {99, 12, 31}, {5, 4, 30}};
    for (const auto& c : cases) {
        EXPECT_EQ(1, Get_max_day(c[0], c[1], &days));
        EXPECT_EQ(c[2], days) << "year " << c[0] << " month " << c[1];
    }
    int total = 0;
    for (unsigned char m = 1; m <= 12; m++, total += days) ASSERT_EQ(1, Get_max_day(23, m, &days));
    EXPECT_EQ(365, total);
    days = 77;
    EXPECT_EQ(0, Get_max_day(99, 13, &days));
    EXPECT_EQ(0, Get_max_day(100, 1, &days));
    EXPECT_EQ(0, Get_max_day(10, 0, &days));
    EXPECT_EQ(77, days);
    EXPECT_EQ(0, Get_max_day(10, 1, nullptr));
}

}  // namespace
