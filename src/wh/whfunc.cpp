#include "wh/whfunc.h"

#include <cstdio>

#include "sfnc/xf.h"
#include "wh/wh.h"

namespace vrta {

static_assert(WH_FARG_NUM == XF_NUM && WH_FARG_STR == XF_STR);

rctype wh_chkfunc(const char* name, int len, int nargs, const char* kinds, const short* types, WH_FUNCINFO* out,
                  int* badarg) {
    *badarg = 0;
    *out = WH_FUNCINFO{};
    // Nine bytes or more would be read as a code, not a name.
    if (!name || len < 1 || len > 8) return WH_RC_NOFUNC;
    FNCSTR attr{};
    long code = 0;
    if (find_fnc(name, len, 'U', &attr, &code) != 0) return WH_RC_NOFUNC;
    out->code = code;
    out->fmin = attr.fmin;
    out->fmax = attr.fmax;
    // The library's own helpers have no meaning on their own.
    if (attr.fdesc & (XF_D_NOWHERE | XF_D_INTERNAL)) return WH_RC_FNCREFUSED;
    if (nargs < attr.fmin) return WH_RC_FNCFEW;
    if (attr.fmax > 0 && nargs > attr.fmax) return WH_RC_FNCMANY;
    if (rctype rc = xfchkargi(attr.fargi, nargs, kinds, badarg)) return rc;
    if (!(attr.fdesc & XF_D_STRING)) {
        out->restype = -8;
        out->functype = 1;
        return 0;
    }
    out->functype = 2;
    if (attr.fdesc & XF_D_LEN1) out->restype = 1;
    else if (attr.fdesc & XF_D_LEN20) out->restype = 20;
    else if ((attr.fdesc & XF_D_LENARG) && !(attr.fdesc & XF_D_LEN200) && nargs > 0 && types[0] >= 0)
        out->restype = types[0];
    else out->restype = 200;
    return 0;
}

void wh_chkfunctext(rctype rc, const char* name, int badarg, const WH_FUNCINFO* fi, char* buf, int buflen) {
    switch (rc) {
    case WH_RC_NOFUNC:
        std::snprintf(buf, buflen, "there is no function %s", name);
        break;
    case WH_RC_FNCREFUSED:
        std::snprintf(buf, buflen, "the function %s cannot be used in a WHERE clause", name);
        break;
    case WH_RC_FNCFEW:
        std::snprintf(buf, buflen, "%s takes at least %d argument%s", name, fi->fmin, fi->fmin == 1 ? "" : "s");
        break;
    case WH_RC_FNCMANY:
        std::snprintf(buf, buflen, "%s takes at most %d argument%s", name, fi->fmax, fi->fmax == 1 ? "" : "s");
        break;
    case WH_RC_FNCWANTN:
        std::snprintf(buf, buflen, "argument %d of %s must be a number", badarg, name);
        break;
    case WH_RC_FNCWANTC:
        std::snprintf(buf, buflen, "argument %d of %s must be a character value", badarg, name);
        break;
    default:
        std::snprintf(buf, buflen, "the call of %s is not valid", name);
        break;
    }
}

}  // namespace vrta
