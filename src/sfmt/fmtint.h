// What the format routines share.
#pragma once
#include <string>
#include <string_view>

#include "sfmt/fmt.h"

namespace vrta::fmt {

// s with zeros in front up to w digits.
std::string padzeros(const std::string& s, int w);
// Right-aligns s in w bytes; false (and nothing written) when it is longer.
bool right(std::string_view s, int w, char* out);
// Left-aligns, blank padding; cuts what does not fit.
void left(std::string_view s, int w, char* out);
void stars(int w, char* out);
// A missing value as its letter ("." "_" "A"...), right-aligned.
void missing(double v, int w, char* out);
// v with d decimals, rounded half away from zero as the decimal number
// would be ("-" only before a value that is not zero once rounded).
std::string fixed(double v, int d);
// The most digits of v that fit in w bytes, in fixed or E notation; empty
// when nothing fits.
std::string best(double v, int w);
// Groups the digits before the point in threes with sep.
std::string group(const std::string& num, char sep, char point);

// Calendar names.
extern const char* const kMonths[12];
extern const char* const kDays[7];  // Sunday first

}  // namespace vrta::fmt

namespace vrta {

// The routines of fmt_table.
int fmtf(const FMTTBL_ENT*, double, int, int, char*);
int fmtbest(const FMTTBL_ENT*, double, int, int, char*);
int fmtcomma(const FMTTBL_ENT*, double, int, int, char*);
int fmtpercent(const FMTTBL_ENT*, double, int, int, char*);
int fmte(const FMTTBL_ENT*, double, int, int, char*);
int fmtz(const FMTTBL_ENT*, double, int, int, char*);
int fmthex(const FMTTBL_ENT*, double, int, int, char*);
int fmtradix(const FMTTBL_ENT*, double, int, int, char*);
int fmtroman(const FMTTBL_ENT*, double, int, int, char*);
int fmtssn(const FMTTBL_ENT*, double, int, int, char*);
int fmtpvalue(const FMTTBL_ENT*, double, int, int, char*);
int fmtdate(const FMTTBL_ENT*, double, int, int, char*);
int fmtdmy(const FMTTBL_ENT*, double, int, int, char*);
int fmtdpart(const FMTTBL_ENT*, double, int, int, char*);
int fmtdword(const FMTTBL_ENT*, double, int, int, char*);
int fmtdatetime(const FMTTBL_ENT*, double, int, int, char*);
int fmttime(const FMTTBL_ENT*, double, int, int, char*);
int fmtiso(const FMTTBL_ENT*, double, int, int, char*);

int fmtchar(const FMTTBL_ENT*, const char*, int, int, char*);
int fmtchex(const FMTTBL_ENT*, const char*, int, int, char*);
int fmtcupcase(const FMTTBL_ENT*, const char*, int, int, char*);
int fmtcquote(const FMTTBL_ENT*, const char*, int, int, char*);
int fmtcreverse(const FMTTBL_ENT*, const char*, int, int, char*);

int inpnum(const FMTTBL_ENT*, const char*, int, int, double*);
int inpcomma(const FMTTBL_ENT*, const char*, int, int, double*);
int inphex(const FMTTBL_ENT*, const char*, int, int, double*);
int inpdate(const FMTTBL_ENT*, const char*, int, int, double*);
int inptime(const FMTTBL_ENT*, const char*, int, int, double*);
int inpdatetime(const FMTTBL_ENT*, const char*, int, int, double*);
int inpchar(const FMTTBL_ENT*, const char*, int, int, char*);

}  // namespace vrta
