// A function call of a WHERE clause checked against the function library:
// the name, the count and kinds of its arguments, and the type of its result.
#pragma once
#include "ssup/vrtadef.h"

namespace vrta {

constexpr char WH_FARG_NUM = 1;
constexpr char WH_FARG_STR = 2;

struct WH_FUNCINFO {
    long code;      // the library's code of the function
    short restype;  // SQLOP type of the result: -8, or a string's length
    int functype;   // 1 number, 2 string
    int fmin, fmax; // argument counts; fmax 0 has no limit
};

// kinds[i] is WH_FARG_NUM or WH_FARG_STR, types[i] the SQLOP type of
// argument i. 0, or the code of the first rule broken, with *badarg the
// argument (from 1) that broke it, else 0.
rctype wh_chkfunc(const char* name, int len, int nargs, const char* kinds, const short* types, WH_FUNCINFO* out,
                  int* badarg);
// A sentence for a failure of wh_chkfunc.
void wh_chkfunctext(rctype rc, const char* name, int badarg, const WH_FUNCINFO* fi, char* buf, int buflen);

}  // namespace vrta
