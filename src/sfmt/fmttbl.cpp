// The format table, lookup by name and code, and the apply routines.
#include <cstring>
#include <string>

#include "hs/hsgcb.h"
#include "sfmt/fmtint.h"
#include "ssubs/vz.h"
#include "ssup/xp.h"

namespace vrta {

#define E(f) reinterpret_cast<fmtent_t>(&f)

// Rows with a null routine are known names that this library does not
// format: they answer XF_RC_FMTNA.
const FMTTBL_ENT fmt_table[FMT_NROWS] = {
    {"F       ", 'F', 0, 1, 12, 1, 32, 0, 31, 0, E(fmtf)},
    {"BEST    ", 'F', 0, 3, 12, 1, 32, 0, 0, 0, E(fmtbest)},
    {"COMMA   ", 'F', 0, 102, 6, 1, 32, 0, 31, 0, E(fmtcomma)},
    {"COMMAX  ", 'F', 0, 103, 6, 1, 32, 0, 31, 1, E(fmtcomma)},
    {"DOLLAR  ", 'F', 0, 104, 6, 2, 32, 0, 31, 2, E(fmtcomma)},
    {"DOLLARX ", 'F', 0, 105, 6, 2, 32, 0, 31, 3, E(fmtcomma)},
    {"NEGPAREN", 'F', 0, 106, 6, 1, 32, 0, 31, 4, E(fmtcomma)},
    {"NUMX    ", 'F', 0, 107, 12, 1, 32, 0, 31, 5, E(fmtcomma)},
    {"PERCENT ", 'F', 0, 108, 6, 4, 32, 0, 31, 0, E(fmtpercent)},
    {"E       ", 'F', 0, 109, 12, 7, 32, 0, 0, 0, E(fmte)},
    {"Z       ", 'F', 0, 110, 1, 1, 32, 0, 31, 0, E(fmtz)},
    {"HEX     ", 'F', 0, 111, 8, 1, 16, 0, 0, 0, E(fmthex)},
    {"OCTAL   ", 'F', 0, 112, 3, 1, 24, 0, 0, 8, E(fmtradix)},
    {"BINARY  ", 'F', 0, 113, 8, 1, 64, 0, 0, 2, E(fmtradix)},
    {"ROMAN   ", 'F', 0, 114, 6, 2, 32, 0, 0, 0, E(fmtroman)},
    {"SSN     ", 'F', 0, 115, 11, 11, 11, 0, 0, 0, E(fmtssn)},
    {"PVALUE  ", 'F', 0, 116, 6, 3, 32, 4, 31, 0, E(fmtpvalue)},
    {"WORDS   ", 'F', 0, 117, 10, 5, 200, 0, 0, 0, nullptr},
    {"ZD      ", 'F', 0, 118, 1, 1, 32, 0, 0, 0, nullptr},
    {"IB      ", 'F', 0, 119, 4, 1, 8, 0, 0, 0, nullptr},
    {"PIB     ", 'F', 0, 120, 1, 1, 8, 0, 0, 0, nullptr},
    {"RB      ", 'F', 0, 121, 4, 2, 8, 0, 0, 0, nullptr},
    {"PD      ", 'F', 0, 122, 1, 1, 16, 0, 0, 0, nullptr},
    {"IEEE    ", 'F', 0, 123, 8, 2, 8, 0, 0, 0, nullptr},
    {"DATE    ", 'F', 0, 124, 7, 5, 11, 0, 0, 0, E(fmtdate)},
    {"DTDATE  ", 'F', 0, 125, 7, 5, 11, 0, 0, 100, E(fmtdate)},
    {"DAY     ", 'F', 0, 126, 2, 2, 32, 0, 0, 1, E(fmtdpart)},
    {"MONTH   ", 'F', 0, 127, 2, 1, 32, 0, 0, 2, E(fmtdpart)},
    {"YEAR    ", 'F', 0, 128, 4, 2, 32, 0, 0, 3, E(fmtdpart)},
    {"QTR     ", 'F', 0, 129, 1, 1, 32, 0, 0, 4, E(fmtdpart)},
    {"QTRR    ", 'F', 0, 130, 3, 3, 32, 0, 0, 5, E(fmtdpart)},
    {"WEEKDAY ", 'F', 0, 131, 1, 1, 32, 0, 0, 6, E(fmtdpart)},
    {"JULDAY  ", 'F', 0, 132, 3, 3, 32, 0, 0, 7, E(fmtdpart)},
    {"MONNAME ", 'F', 0, 133, 9, 1, 32, 0, 0, 8, E(fmtdpart)},
    {"DOWNAME ", 'F', 0, 134, 9, 1, 32, 0, 0, 9, E(fmtdpart)},
    {"MONYY   ", 'F', 0, 135, 5, 5, 7, 0, 0, 10, E(fmtdpart)},
    {"YYQ     ", 'F', 0, 136, 6, 4, 32, 0, 0, 11, E(fmtdpart)},
    {"YYMON   ", 'F', 0, 137, 7, 5, 32, 0, 0, 12, E(fmtdpart)},
    {"MMYY    ", 'F', 0, 138, 7, 5, 32, 0, 0, 13, E(fmtdpart)},
    {"YYMM    ", 'F', 0, 139, 7, 5, 32, 0, 0, 14, E(fmtdpart)},
    {"JULIAN  ", 'F', 0, 140, 5, 5, 7, 0, 0, 15, E(fmtdpart)},
    {"DTMONYY ", 'F', 0, 141, 5, 5, 7, 0, 0, 110, E(fmtdpart)},
    {"DTYEAR  ", 'F', 0, 142, 4, 2, 32, 0, 0, 103, E(fmtdpart)},
    {"WEEKDATE", 'F', 0, 143, 29, 3, 37, 0, 0, 1, E(fmtdword)},
    {"WEEKDATX", 'F', 0, 144, 29, 3, 37, 0, 0, 2, E(fmtdword)},
    {"DTWKDATX", 'F', 0, 145, 29, 3, 37, 0, 0, 102, E(fmtdword)},
    {"WORDDATE", 'F', 0, 146, 18, 3, 32, 0, 0, 3, E(fmtdword)},
    {"WORDDATX", 'F', 0, 147, 18, 3, 32, 0, 0, 4, E(fmtdword)},
    {"DDMMYY  ", 'F', 0, 148, 8, 2, 10, 0, 0, 'D' | '/' << 8, E(fmtdmy)},
    {"MMDDYY  ", 'F', 0, 149, 8, 2, 10, 0, 0, 'M' | '/' << 8, E(fmtdmy)},
    {"YYMMDD  ", 'F', 0, 150, 8, 2, 10, 0, 0, 'Y' | '-' << 8, E(fmtdmy)},
    {"DDMMYYB ", 'F', 0, 151, 8, 2, 10, 0, 0, 'D' | ' ' << 8, E(fmtdmy)},
    {"DDMMYYD ", 'F', 0, 152, 8, 2, 10, 0, 0, 'D' | '-' << 8, E(fmtdmy)},
    {"DDMMYYN ", 'F', 0, 153, 8, 2, 8, 0, 0, 'D', E(fmtdmy)},
    {"DDMMYYP ", 'F', 0, 154, 8, 2, 10, 0, 0, 'D' | '.' << 8, E(fmtdmy)},
    {"DDMMYYS ", 'F', 0, 155, 8, 2, 10, 0, 0, 'D' | '/' << 8, E(fmtdmy)},
    {"MMDDYYB ", 'F', 0, 156, 8, 2, 10, 0, 0, 'M' | ' ' << 8, E(fmtdmy)},
    {"MMDDYYD ", 'F', 0, 157, 8, 2, 10, 0, 0, 'M' | '-' << 8, E(fmtdmy)},
    {"MMDDYYN ", 'F', 0, 158, 8, 2, 8, 0, 0, 'M', E(fmtdmy)},
    {"MMDDYYP ", 'F', 0, 159, 8, 2, 10, 0, 0, 'M' | '.' << 8, E(fmtdmy)},
    {"MMDDYYS ", 'F', 0, 160, 8, 2, 10, 0, 0, 'M' | '/' << 8, E(fmtdmy)},
    {"YYMMDDB ", 'F', 0, 161, 8, 2, 10, 0, 0, 'Y' | ' ' << 8, E(fmtdmy)},
    {"YYMMDDD ", 'F', 0, 162, 8, 2, 10, 0, 0, 'Y' | '-' << 8, E(fmtdmy)},
    {"YYMMDDN ", 'F', 0, 163, 8, 2, 8, 0, 0, 'Y', E(fmtdmy)},
    {"YYMMDDP ", 'F', 0, 164, 8, 2, 10, 0, 0, 'Y' | '.' << 8, E(fmtdmy)},
    {"YYMMDDS ", 'F', 0, 165, 8, 2, 10, 0, 0, 'Y' | '/' << 8, E(fmtdmy)},
    {"DATETIME", 'F', 0, 166, 16, 7, 40, 0, 39, 0, E(fmtdatetime)},
    {"DATEAMPM", 'F', 0, 167, 19, 7, 40, 0, 39, 1, E(fmtdatetime)},
    {"TIME    ", 'F', 0, 168, 8, 2, 20, 0, 19, 0, E(fmttime)},
    {"TIMEAMPM", 'F', 0, 169, 11, 2, 20, 0, 19, 1, E(fmttime)},
    {"TOD     ", 'F', 0, 170, 8, 2, 20, 0, 19, 2, E(fmttime)},
    {"HHMM    ", 'F', 0, 171, 5, 2, 20, 0, 19, 3, E(fmttime)},
    {"HOUR    ", 'F', 0, 172, 2, 2, 20, 0, 19, 4, E(fmttime)},
    {"MMSS    ", 'F', 0, 173, 5, 2, 20, 0, 19, 5, E(fmttime)},
    {"E8601DA ", 'F', 0, 174, 10, 10, 10, 0, 0, 1, E(fmtiso)},
    {"E8601DT ", 'F', 0, 175, 19, 16, 26, 0, 6, 2, E(fmtiso)},
    {"E8601TM ", 'F', 0, 176, 8, 8, 15, 0, 6, 3, E(fmtiso)},
    {"B8601DA ", 'F', 0, 177, 8, 8, 8, 0, 0, 4, E(fmtiso)},
    {"$       ", 'F', 1, 2, 8, 1, 32767, 0, 0, 0, E(fmtchar)},
    {"$CHAR   ", 'F', 1, 179, 8, 1, 32767, 0, 0, 0, E(fmtchar)},
    {"$HEX    ", 'F', 1, 99, 4, 1, 32767, 0, 0, 0, E(fmtchex)},
    {"$UPCASE ", 'F', 1, 181, 8, 1, 32767, 0, 0, 0, E(fmtcupcase)},
    {"$QUOTE  ", 'F', 1, 182, 10, 2, 32767, 0, 0, 0, E(fmtcquote)},
    {"$REVERJ ", 'F', 1, 183, 8, 1, 32767, 0, 0, 0, E(fmtcreverse)},
    {"$REVERS ", 'F', 1, 184, 8, 1, 32767, 0, 0, 1, E(fmtcreverse)},
    {"$OCTAL  ", 'F', 1, 185, 8, 1, 32767, 0, 0, 0, nullptr},
    {"$BINARY ", 'F', 1, 186, 8, 1, 32767, 0, 0, 0, nullptr},
    {"F       ", 'I', 0, 4, 12, 1, 32, 0, 31, 0, E(inpnum)},
    {"$       ", 'I', 1, 5, 8, 1, 32767, 0, 0, 0, E(inpchar)},
    {"$CHAR   ", 'I', 1, 189, 8, 1, 32767, 0, 0, 1, E(inpchar)},
    {"$UPCASE ", 'I', 1, 190, 8, 1, 32767, 0, 0, 2, E(inpchar)},
    {"BEST    ", 'I', 0, 191, 12, 1, 32, 0, 0, 0, E(inpnum)},
    {"COMMA   ", 'I', 0, 192, 6, 1, 32, 0, 31, 0, E(inpcomma)},
    {"DOLLAR  ", 'I', 0, 193, 6, 1, 32, 0, 31, 0, E(inpcomma)},
    {"COMMAX  ", 'I', 0, 194, 6, 1, 32, 0, 31, 1, E(inpcomma)},
    {"PERCENT ", 'I', 0, 195, 6, 1, 32, 0, 31, 2, E(inpcomma)},
    {"HEX     ", 'I', 0, 196, 8, 1, 16, 0, 0, 0, E(inphex)},
    {"DATE    ", 'I', 0, 197, 7, 7, 32, 0, 0, 'D', E(inpdate)},
    {"DDMMYY  ", 'I', 0, 198, 6, 6, 32, 0, 0, 'd', E(inpdate)},
    {"MMDDYY  ", 'I', 0, 199, 6, 6, 32, 0, 0, 'm', E(inpdate)},
    {"YYMMDD  ", 'I', 0, 200, 6, 6, 32, 0, 0, 'y', E(inpdate)},
    {"MONYY   ", 'I', 0, 201, 5, 5, 32, 0, 0, 'n', E(inpdate)},
    {"JULIAN  ", 'I', 0, 202, 5, 5, 32, 0, 0, 'j', E(inpdate)},
    {"E8601DA ", 'I', 0, 203, 10, 10, 10, 0, 0, 'e', E(inpdate)},
    {"TIME    ", 'I', 0, 204, 8, 5, 32, 0, 0, 0, E(inptime)},
    {"DATETIME", 'I', 0, 205, 18, 13, 40, 0, 0, 0, E(inpdatetime)},
    {"IB      ", 'I', 0, 206, 4, 1, 8, 0, 0, 0, nullptr},
    {"PD      ", 'I', 0, 207, 1, 1, 16, 0, 0, 0, nullptr},
    {"RB      ", 'I', 0, 208, 4, 2, 8, 0, 0, 0, nullptr},
    {"ZD      ", 'I', 0, 209, 1, 1, 32, 0, 0, 0, nullptr},
};

#undef E

const FMTTBL_ENT* fmtrow(long code) {
    if (code <= 0) return nullptr;
    if (code < 100 || code >= 100 + FMT_NROWS) {
        for (const FMTTBL_ENT& e : fmt_table)
            if (e.kind == code && code < 100) return &e;
        return nullptr;
    }
    return &fmt_table[code - 100];
}

rctype fmtfind(const char* name, int len, char fmttype, FMTSTR* attr, long* code) {
    if (!name || len <= 0) {
        name = "F";
        len = 1;
    }
    if (len > 8) return 1;
    char key[8];
    memset(key, ' ', sizeof key);
    memcpy(key, name, static_cast<size_t>(len));
    vzMP(key, 8);
    for (const FMTTBL_ENT& e : fmt_table) {
        if (e.fmttype != fmttype || memcmp(e.name, key, 8) != 0) continue;
        if (attr) {
            attr->fmttype = e.fmttype;
            attr->chr = e.chr;
            attr->defw = e.defw;
            attr->minw = e.minw;
            attr->maxw = e.maxw;
            attr->defd = e.defd;
            attr->maxd = e.maxd;
            attr->avail = e.entpt != nullptr;
        }
        if (code) *code = e.kind;
        return 0;
    }
    return 1;
}

rctype fmtuser(const char*, int, char, FMTSTR*, long*) {
    // The user format catalogue is not part of this engine: a name that is
    // not in fmt_table is not a format.
    return 1;
}

namespace {

rctype unrecognized(long code) {
    xpslog("xffmt(): Unrecognized format code %d", static_cast<int>(code));
    return XF_RC_FMTCODE;
}

rctype notavail(const FMTTBL_ENT* e) {
    xrmksub(1, e->name, vzstrip(e->name, 8));
    return XF_RC_FMTNA;
}

// The width to use, or 0 when width or decimals are out of the row's range.
int checkwidth(const FMTTBL_ENT* e, int width, int ndec) {
    int w = width > 0 ? width : e->defw;
    if (w < e->minw || w > e->maxw || ndec < 0 || ndec > e->maxd || (ndec > 0 && ndec >= w)) return 0;
    return w;
}

// Group keys ask for wide fields (128 bytes when no width is given): a
// format that cannot be that wide is applied at its default width and
// placed in the field.
int fitwidth(const FMTTBL_ENT* e, int fw) { return fw > e->maxw ? e->defw : fw; }

}  // namespace

int xffmt(xf_env_t*, const void* value, int inw, int width, int ndec, void* destptr, int destlen, long code) {
    const FMTTBL_ENT* e = fmtrow(code);
    if (!e) return unrecognized(code);
    if (!e->entpt) return notavail(e);
    if (!value || !destptr || inw < 0 || destlen <= 0) return XF_RC_BADCALL;
    char* out = static_cast<char*>(destptr);
    const char* in = static_cast<const char*>(value);
    if (e->fmttype == 'F') {
        int w = checkwidth(e, width, ndec);
        if (!w || w > destlen) return XF_RC_FMTWIDTH;
        if (e->chr) return reinterpret_cast<chrfmt_t>(e->entpt)(e, in, inw, w, out);
        double v = 0;
        if (inw < 2 || inw > 8) return XF_RC_BADCALL;
        hsrftrc(value, inw, &v);
        if (vzismiss(v)) {
            fmt::missing(v, w, out);
            return 0;
        }
        return reinterpret_cast<numfmt_t>(e->entpt)(e, v, w, ndec, out);
    }
    // An informat reads inw bytes of text.
    if (e->chr) {
        int w = width > 0 && width < destlen ? width : destlen;
        return reinterpret_cast<chrinf_t>(e->entpt)(e, in, inw, w, out);
    }
    if (destlen < 8 || ndec < 0 || ndec > e->maxd) return XF_RC_FMTWIDTH;
    double v = VZ_MISSING;
    int rc = reinterpret_cast<numinf_t>(e->entpt)(e, in, inw, ndec, &v);
    memcpy(out, &v, 8);
    return rc;
}


int xfxpn(xf_env_t* xfenv, double inval, int fw, int ndec, long code, char* outvalptr) {
    const FMTTBL_ENT* e = fmtrow(code);
    if (!e || e->fmttype != 'F' || e->chr) return unrecognized(code);
    if (fw <= 0) return XF_RC_FMTWIDTH;
    int w = fitwidth(e, fw);
    std::string tmp(static_cast<size_t>(w), ' ');
    int rc = xffmt(xfenv, &inval, 8, w, ndec, tmp.data(), w, code);
    if (rc < 0) return rc;
    fmt::right(tmp, fw, outvalptr);
    return 0;
}

int xfxpc(xf_env_t* xfenv, const char* inptr, int fw, long code, char* outvalptr, int outlen) {
    const FMTTBL_ENT* e = fmtrow(code);
    if (!e || e->fmttype != 'F' || !e->chr) return unrecognized(code);
    if (outlen <= 0 || fw < 0) return XF_RC_FMTWIDTH;
    int w = fitwidth(e, outlen);
    std::string tmp(static_cast<size_t>(w), ' ');
    int rc = xffmt(xfenv, inptr, fw, w, 0, tmp.data(), w, code);
    if (rc < 0) return rc;
    fmt::left(tmp, outlen, outvalptr);
    return 0;
}

}  // namespace vrta
