// The descriptions of the message bodies, made from the lists in hpdmsgs.h,
// and the one walk that sizes, fills and parses a body by its description.
#include "eng/hpdmsg.h"

#include <climits>
#include <cstring>

#include "hs/zrt.h"
#include "ssup/xp.h"

namespace vrta {

// ------------------------------------------------------------ descriptions
#define DS_DF(k, n, e, g) DS_DF_##k(n, e, g)
#define DS_DF_NUM(kind, n, g) {#n, nullptr, DsKind::kind, g, 0, offsetof(Rec, n), 0, nullptr},
#define DS_DF_I2(n, e, g) DS_DF_NUM(I2, n, g)
#define DS_DF_I4(n, e, g) DS_DF_NUM(I4, n, g)
#define DS_DF_I8(n, e, g) DS_DF_NUM(I8, n, g)
#define DS_DF_F8(n, e, g) DS_DF_NUM(F8, n, g)
#define DS_DF_B(n, e, g) DS_DF_NUM(B, n, g)
#define DS_DF_C(n, e, g) {#n, nullptr, DsKind::C, g, e, offsetof(Rec, n), 0, nullptr},
#define DS_DF_L(n, e, g) {#n, #e, DsKind::L, g, 0, offsetof(Rec, n), offsetof(Rec, e), nullptr},
#define DS_DF_S(n, e, g) {#n, nullptr, DsKind::S, g, 0, offsetof(Rec, n), 0, &e##_D},
// The trailing empty entry lets a record have no fields; it is not counted.
#define DS_DESC(r)                                                                       \
    namespace desc_##r {                                                                 \
    using Rec = r;                                                                       \
    const DS_FIELD fields[] = {DSF_##r(DS_DF){}};                                        \
    }                                                                                    \
    const DS_RECDESC r##_D = {#r, desc_##r::fields,                                      \
                              static_cast<int>(sizeof desc_##r::fields / sizeof(DS_FIELD)) - 1, \
                              sizeof(r)};
DS_RECORDS(DS_DESC)
#undef DS_DESC
#undef DS_DF
#undef DS_DF_NUM
#undef DS_DF_I2
#undef DS_DF_I4
#undef DS_DF_I8
#undef DS_DF_F8
#undef DS_DF_B
#undef DS_DF_C
#undef DS_DF_L
#undef DS_DF_S

namespace {

#define DS_METHENT(id, c, n, q, r) {id, n, &q##_D, &r##_D},
const DS_METHOD methods[] = {DS_METHODS(DS_METHENT)};
#undef DS_METHENT
constexpr int nmethods = static_cast<int>(sizeof methods / sizeof methods[0]);

#define DS_FOLLOW(r, after) {&r##_D, after},
const DS_FOLLOWON followons[] = {DS_FOLLOWONS(DS_FOLLOW)};
#undef DS_FOLLOW

// Method numbers run below 100; a direct table answers dsmethod.
constexpr int MAXMETHOD = 100;
struct MethodIndex {
    const DS_METHOD* byid[MAXMETHOD] = {};
    MethodIndex() {
        for (const DS_METHOD& m : methods) byid[m.id] = &m;
    }
};
const MethodIndex& methodIndex() {
    static const MethodIndex index;
    return index;
}

bool gated(const DS_FIELD& f, int level) { return f.level == 0 || level >= f.level; }

rctype failed(rctype rc, const DS_RECDESC* d, const char* field) {
    xrmksub(2, d->name, -1, field, -1);
    return rc;
}

// Body integers are big-endian; a double goes as its IEEE bytes, most
// significant first.
void putd(unsigned char* o, double v) {
    uint64_t u;
    std::memcpy(&u, &v, 8);
    zctinu(u, o, 8);
}
double getd(const unsigned char* b) {
    uint64_t u = zrtinu(b, 8);
    double v;
    std::memcpy(&v, &u, 8);
    return v;
}

template <class T>
T load(const unsigned char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class T>
void store(unsigned char* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// Sizes (out null) or fills a body: one walk for both, so the length
// announced and the bytes written cannot disagree.
rctype put(const DS_RECDESC* d, const unsigned char* rec, int level, unsigned char* out, int64_t* pos) {
    for (int i = 0; i < d->nfields; ++i) {
        const DS_FIELD& f = d->fields[i];
        if (!gated(f, level)) continue;
        const unsigned char* p = rec + f.off;
        unsigned char* o = out ? out + *pos : nullptr;
        switch (f.kind) {
            case DsKind::I2:
                if (o) zctinu(static_cast<uint16_t>(load<int16_t>(p)), o, 2);
                *pos += 2;
                break;
            case DsKind::I4:
                if (o) zctint(load<int32_t>(p), o, 4);
                *pos += 4;
                break;
            case DsKind::I8:
                if (o) zctint(load<int64_t>(p), o, 8);
                *pos += 8;
                break;
            case DsKind::F8:
                if (o) putd(o, load<double>(p));
                *pos += 8;
                break;
            case DsKind::B:
                if (o) *o = *p;
                *pos += 1;
                break;
            case DsKind::C:
                if (o) std::memcpy(o, p, f.width);
                *pos += f.width;
                break;
            case DsKind::L: {
                const auto len = load<int32_t>(rec + f.lenoff);
                const auto* data = load<const char*>(p);
                if (len < 0 || (len > 0 && !data)) return failed(DS_RC_BADREC, d, f.lname);
                if (o) {
                    zctint(len, o, 4);
                    if (len) std::memcpy(o + 4, data, static_cast<size_t>(len));
                }
                *pos += 4 + static_cast<int64_t>(len);
                break;
            }
            case DsKind::S:
                if (rctype rc = put(f.sub, p, level, out, pos); rc) return rc;
                break;
        }
    }
    return 0;
}

// Parses fields from body[*pos] on, checking each against what is left
// before it is read.
rctype get(const DS_RECDESC* d, unsigned char* rec, int level, const unsigned char* body, long len,
           long* pos) {
    for (int i = 0; i < d->nfields; ++i) {
        const DS_FIELD& f = d->fields[i];
        if (!gated(f, level)) continue;
        unsigned char* p = rec + f.off;
        const long left = len - *pos;
        const unsigned char* b = body + *pos;
        long need = 0;
        switch (f.kind) {
            case DsKind::I2: need = 2; break;
            case DsKind::I4: case DsKind::L: need = 4; break;
            case DsKind::I8: case DsKind::F8: need = 8; break;
            case DsKind::B: need = 1; break;
            case DsKind::C: need = f.width; break;
            case DsKind::S: break;
        }
        if (need > left) return failed(DS_RC_BADMSG, d, f.kind == DsKind::L ? f.lname : f.name);
        switch (f.kind) {
            case DsKind::I2: store(p, static_cast<int16_t>(zrtint(b, 2))); break;
            case DsKind::I4: store(p, static_cast<int32_t>(zrtint(b, 4))); break;
            case DsKind::I8: store(p, zrtint(b, 8)); break;
            case DsKind::F8: store(p, getd(b)); break;
            case DsKind::B: *p = *b; break;
            case DsKind::C: std::memcpy(p, b, f.width); break;
            case DsKind::L: {
                const auto n = static_cast<int32_t>(zrtint(b, 4));
                if (n < 0 || n > left - 4) return failed(DS_RC_BADMSG, d, f.name);
                store(rec + f.lenoff, n);
                store(p, n ? reinterpret_cast<const char*>(b + 4) : static_cast<const char*>(nullptr));
                need = 4 + static_cast<long>(n);
                break;
            }
            case DsKind::S:
                if (rctype rc = get(f.sub, p, level, body, len, pos); rc) return rc;
                break;
        }
        *pos += need;
    }
    return 0;
}

}  // namespace

rctype dssize(const DS_RECDESC* d, const void* rec, int level, long* len) {
    int64_t n = 0;
    if (rctype rc = put(d, static_cast<const unsigned char*>(rec), level, nullptr, &n); rc) return rc;
    // The frame's length word counts the header as well: leave room for it.
    if (n > INT32_MAX - 64) return failed(DS_RC_BADREC, d, "length");
    *len = static_cast<long>(n);
    return 0;
}

rctype dsfill(const DS_RECDESC* d, const void* rec, int level, unsigned char* out, long* len) {
    int64_t n = 0;
    if (rctype rc = put(d, static_cast<const unsigned char*>(rec), level, out, &n); rc) return rc;
    *len = static_cast<long>(n);
    return 0;
}

rctype dsdecode(const DS_RECDESC* d, void* rec, int level, const unsigned char* body, long len,
                long* used) {
    std::memset(rec, 0, d->size);
    long pos = 0;
    if (len < 0) return failed(DS_RC_BADMSG, d, "length");
    if (rctype rc = get(d, static_cast<unsigned char*>(rec), level, body, len, &pos); rc) return rc;
    *used = pos;
    return 0;
}

rctype dsparse(const DS_RECDESC* d, void* rec, int level, const unsigned char* body, long len) {
    long used = 0;
    if (rctype rc = dsdecode(d, rec, level, body, len, &used); rc) return rc;
    // Bytes past the last field mean the two ends disagree on the form.
    if (used != len) return failed(DS_RC_BADMSG, d, "its end");
    return 0;
}

const DS_METHOD* dsmethod(int id) {
    if (id < 0 || id >= MAXMETHOD) return nullptr;
    return methodIndex().byid[id];
}

const DS_METHOD* dsmethods(int* count) {
    *count = nmethods;
    return methods;
}

const DS_FOLLOWON* dsfollowons(int* count) {
    *count = static_cast<int>(sizeof followons / sizeof followons[0]);
    return followons;
}

}  // namespace vrta
