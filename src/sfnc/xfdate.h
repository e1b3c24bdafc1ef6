// Dates, times and datetimes: a date is a count of days from 1 January 1960,
// a time seconds from midnight, a datetime seconds from 1 January 1960 at
// midnight. The calendar is the proleptic Gregorian one.
#pragma once
#include <cstdint>

namespace vrta::xfd {

// Dates outside these years are not valid values.
constexpr int kMinYear = 1582;
constexpr int kMaxYear = 20000;
// Two-digit years from 20 name the 1900s, below 20 the 2000s.
constexpr int kYearCutoff = 1920;

long days(long y, int m, int d);   // the date of a day (no range check)
void civil(long date, long* y, int* m, int* d);
bool valid(long y, int m, int d);  // a real day within the supported years
bool inrange(double date);         // a date within the supported years
int dim(long y, int m);            // days in month
bool leap(long y);
int weekday(long date);            // 1 Sunday to 7 Saturday
// A year of 0 to 99 is placed by the cutoff.
long fullyear(long y);

// Now, in local time.
double now_datetime();

// INTNX and INTCK: the interval named in s (len bytes). false when the name
// is not an interval.
bool intnx(const char* s, int len, double start, double n, char align, double* out);
bool intck(const char* s, int len, double from, double to, double* out);

}  // namespace vrta::xfd
