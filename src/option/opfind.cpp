// Finding, reading and setting options by name.
#include <cstring>

#include "hs/hs.h"
#include "option/op.h"

namespace vrta {

namespace {

// Binary search over the name and its terminator: case sensitive, and a name
// that fills all 16 bytes has no terminator in the table, so it never matches.
OPTITEM* search(OPTS* opts, const char* spell) {
    size_t len = std::strlen(spell);
    if (len >= static_cast<size_t>(OPT_NAMELEN)) return nullptr;
    int lo = 0;
    int hi = opts->opcount;
    if (hi > OPT_NITEMS) hi = OPT_NITEMS;
    hi -= 1;
    while (lo <= hi) {
        int mid = lo + (hi - lo) / 2;
        int c = std::memcmp(spell, opts->optitem[mid].name, len + 1);
        if (c == 0) return &opts->optitem[mid];
        if (c < 0)
            hi = mid - 1;
        else
            lo = mid + 1;
    }
    return nullptr;
}

// Finds the item, rejecting the NO form of a non-binary.
int lookup(void* optptr, const char* spell, OPTITEM** item, int* negop) {
    int rc = opt_find(optptr, spell, item, negop);
    if (rc != 0) return rc;
    if (*negop && ((*item)->flags & OPF_TYPEMASK) != OPF_BINARY) return OP_NOTFOUND;
    return 0;
}

void setby(OPTITEM* it, int is_parm) {
    it->flags = (it->flags & ~OPF_SETMASK) | (is_parm ? OPF_PARM : OPF_SERVER);
}

void obsolete(const OPTITEM* it) {
    hsprint("WARNING Option %.16s is OBSOLETE and will be ignored\n", it->name);
}

}  // namespace

int opt_find(void* optptr, const char* spell, OPTITEM** found, int* negop) {
    if (!optptr) return OP_NOTABLE;
    if (found) *found = nullptr;
    if (negop) *negop = 0;
    if (!spell) return OP_NOTFOUND;
    OPTS* opts = static_cast<OPTS*>(optptr);
    OPTITEM* it = search(opts, spell);
    int neg = 0;
    if (!it && (std::strncmp(spell, "NO", 2) == 0 || std::strncmp(spell, "no", 2) == 0)) {
        it = search(opts, spell + 2);
        neg = 1;
    }
    if (!it) return OP_NOTFOUND;
    if (found) *found = it;
    if (negop) *negop = neg;
    return 0;
}

int opgetop(void* optptr, const char* spell, void* value, int* vallen) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = nullptr;
    int neg = 0;
    int rc = lookup(optptr, spell, &it, &neg);
    if (rc != 0) return rc;
    if (!(it->flags & OPF_SETMASK)) return OP_NOVALUE;
    int len = 0;
    switch (it->flags & OPF_TYPEMASK) {
        case OPF_BINARY: {
            int32_t v = it->opinfo.idesc.ival;
            if (neg) v = (v != 1) ? 1 : 0;
            len = sizeof v;
            if (value) std::memcpy(value, &v, sizeof v);
            break;
        }
        case OPF_INTEGER:
            len = sizeof(int32_t);
            if (value) std::memcpy(value, &it->opinfo.idesc.ival, sizeof(int32_t));
            break;
        case OPF_DOUBLE:
            len = sizeof(double);
            if (value) std::memcpy(value, &it->opinfo.ddesc.dval, sizeof(double));
            break;
        case OPF_CHAR: {
            const CHARDESC& cd = it->opinfo.cdesc;
            if (cd.curlen < 0 || cd.curlen > cd.maxlen) return OP_BADTABLE;
            len = cd.curlen;
            if (value && len > 0)
                std::memcpy(value, static_cast<const char*>(optptr) + cd.offset, static_cast<size_t>(len));
            break;
        }
        default:
            return OP_BADTABLE;
    }
    if (vallen) *vallen = len;
    return 0;
}

int opbingt(void* optptr, const char* spell) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = nullptr;
    int neg = 0;
    int rc = opt_find(optptr, spell, &it, &neg);
    if (rc != 0) return rc;
    if ((it->flags & OPF_TYPEMASK) != OPF_BINARY) return OP_NOTFOUND;
    if (!(it->flags & OPF_SETMASK)) return OP_NOVALUE;
    int v = it->opinfo.idesc.ival;
    return neg ? (v != 1 ? 1 : 0) : v;
}

int opqopt(void* optptr, const char* spell) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = nullptr;
    int neg = 0;
    int rc = lookup(optptr, spell, &it, &neg);
    if (rc != 0) return rc;
    return static_cast<int>(it->flags & OPF_TYPEMASK);
}

int opsetop(void* optptr, const char* spell, void* value, int vallen) {
    return opsetop1(optptr, spell, value, vallen, 0);
}

int opsetop1(void* optptr, const char* spell, void* value, int vallen, int is_parm) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = nullptr;
    int neg = 0;
    int rc = lookup(optptr, spell, &it, &neg);
    if (rc != 0) return rc;
    if (it->flags & OPF_OBSOLETE) {
        obsolete(it);
        return 0;
    }
    if (!value || vallen < 0) return OP_RANGE;
    switch (it->flags & OPF_TYPEMASK) {
        case OPF_BINARY:
        case OPF_INTEGER: {
            // vallen bytes are taken, at most the field's 4.
            size_t n = vallen < 4 ? static_cast<size_t>(vallen) : 4u;
            int32_t v = 0;
            std::memcpy(&v, value, n);
            if ((it->flags & OPF_TYPEMASK) == OPF_BINARY) {
                if (v != 0 && v != 1) return OP_RANGE;
                if (neg) {
                    // The caller's own variable is flipped, as it always was.
                    v = !v;
                    std::memcpy(value, &v, n);
                }
            } else if (v < 0 || v > it->opinfo.idesc.imax) {
                return OP_RANGE;
            }
            std::memcpy(&it->opinfo.idesc.ival, &v, n);
            break;
        }
        case OPF_DOUBLE: {
            double v = 0.0;
            std::memcpy(&v, value, vallen < 8 ? static_cast<size_t>(vallen) : 8u);
            double dmax = it->opinfo.ddesc.dmax;
            if (!(v >= 0.0) || (dmax > 0.0 && v > dmax)) return OP_RANGE;
            it->opinfo.ddesc.dval = v;
            break;
        }
        case OPF_CHAR: {
            CHARDESC& cd = it->opinfo.cdesc;
            if (vallen > cd.maxlen) return OP_TOOLONG;
            if (vallen > 0)
                std::memcpy(static_cast<char*>(optptr) + cd.offset, value, static_cast<size_t>(vallen));
            cd.curlen = vallen;
            break;
        }
        default:
            return OP_BADTABLE;
    }
    setby(it, is_parm);
    return 0;
}

int opbinst(void* optptr, const char* spell) { return opbinst1(optptr, spell, 0); }

int opbinst1(void* optptr, const char* spell, int is_parm) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = nullptr;
    int neg = 0;
    int rc = opt_find(optptr, spell, &it, &neg);
    if (rc != 0) return rc;
    if ((it->flags & OPF_TYPEMASK) != OPF_BINARY) return OP_NOTFOUND;
    if (it->flags & OPF_OBSOLETE) {
        obsolete(it);
        return 0;
    }
    it->opinfo.idesc.ival = neg ? 0 : 1;
    setby(it, is_parm);
    return 0;
}

}  // namespace vrta
