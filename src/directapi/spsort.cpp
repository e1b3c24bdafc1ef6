// vrtasort: a sorted copy of a table, through the key block and the
// external sorter. The new table is made only once every row has gone into
// the sorter, so a failure or an interrupt before that leaves nothing; one
// after it removes the half-written copy.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "hs/sr.h"
#include "option/op.h"
#include "sda/darc.h"
#include "sda/daxc.h"

using namespace vrta;

namespace {

constexpr long IOBYTES = 1 << 20;

bool stopped(const VRTASORT* r) { return r->interrupt && *r->interrupt; }

struct Job {
    Job(void* l, const VRTASORT* r) : vlib(l), req(r) {}
    void* vlib;
    const VRTASORT* req;
    void* in = nullptr;
    void* out = nullptr;
    void* rd = nullptr;
    void* wr = nullptr;
    SKB_KEY skb{};
    bool skbmade = false;
    SR_CTX* sp = nullptr;
    std::string outname;
    ~Job() {
        // Only spill files left behind can go wrong here; the sort stands.
        if (sp) rcignore(srclose(sp));
        if (skbmade) skb.mt.destroy(&skb);
        if (rd) spfreerd(rd);
        if (wr) spfreeio(wr);
        if (in) vrtaclose(in);
    }
    // A copy that was begun is closed and removed again.
    void dropout() {
        if (wr) spfreeio(wr);
        wr = nullptr;
        if (out) vrtaclose(out);
        out = nullptr;
        spdelete(vlib, outname.data(), static_cast<int>(outname.size()));
    }
    void progress(int phase, int64_t done, int64_t total) {
        if (req->progress) req->progress(req->progress_arg, phase, done, total);
    }
};

// Every row of the input, keyed, into the sorter.
rctype feed(Job& j, const VRTAINFO& vi) {
    std::vector<char> buf(std::max<long>(IOBYTES / vi.obslen, 1) * vi.obslen);
    rctype rc = spnewrd(j.in, static_cast<long>(buf.size()), buf.data(), &j.rd);
    if (rc < 0) return rc;
    int64_t done = 0;
    for (;;) {
        if (stopped(j.req)) return SR_RC_INTERRUPT;
        long n = 0;
        void* rows = nullptr;
        int64_t* obs = nullptr;
        rc = spreadv(j.rd, &n, &rows, &obs);
        if (rc < 0) return rc;
        if (n <= 0) break;
        for (long i = 0; i < n;) {
            char* bin = nullptr;
            long room = 0;
            rc = sraddbin(j.sp, &bin, &room, nullptr);
            if (rc < 0) return rc;
            long put = 0;
            while (put < room && i < n) {
                hs_obsno_t o = obs ? obs[i] : done + 1;
                rc = j.skb.mt.makekey(&j.skb, static_cast<char*>(rows) + i * vi.obslen, o, bin, &put, nullptr);
                if (rc < 0) return rc;
                i++;
                done++;
            }
            rc = srendbin(j.sp, put);
            if (rc < 0) return rc;
        }
        j.progress(1, done, vi.numobs);
    }
    spfreerd(j.rd);
    j.rd = nullptr;
    return 0;
}

std::string exitname(const char* n8) {
    std::string s(n8, 8);
    while (!s.empty() && (s.back() == ' ' || s.back() == 0)) s.pop_back();
    return s;
}

// What the copy is made with: the input's exit and key unless the request
// names others. Checked before the sort, which may be long, rather than when
// the copy is made after it.
struct CopyExit {
    std::string comp, enc;
    const char* key = nullptr;
};

rctype copyexit(const VRTAINFO& vi, const VRTASORT* r, CopyExit* e) {
    e->comp = r->compress ? r->compress : exitname(vi.diskcomp);
    e->enc = r->encrypt ? r->encrypt : exitname(vi.encrypt);
    e->key = r->out_ekey ? r->out_ekey : r->ekey;
    if (!e->enc.empty() && (!e->key || !*e->key || strlen(e->key) > 12)) return DA_BADARG;
    if (e->comp.empty() && e->enc.empty()) return 0;
    if (!e->comp.empty() && !e->enc.empty() && strcasecmp(e->comp.c_str(), e->enc.c_str()) != 0) return DA_BADARG;
    const std::string& asked = e->comp.empty() ? e->enc : e->comp;
    if (asked[0] == '.') return DA_BADARG;  // kept for the system, and never looked for on disk
    int flags = (e->comp.empty() ? 0 : 1) | (e->enc.empty() ? 0 : 2);
    char name[8];
    rctype rc = daxcname(flags, asked.c_str(), name);
    DA_XCB* x = nullptr;
    if (rc >= 0) rc = daldxcb(std::string(name, 8).c_str(), &x);
    if (rc < 0) return rc;
    rc = daxccheck(x, flags, asked.c_str());
    rctype frc = dafrxcb(x);
    return rc < 0 ? rc : (frc < 0 ? frc : 0);
}

// The new table: the input's columns whole, its sort order marked in them.
rctype create(Job& j, const VRTAINFO& vi, const VRTASORT* r, const CopyExit& e) {
    int32_t cei = 0;
    u_sname loc{};
    rctype rc = vrtainfo(j.in, VRTAINFO_ENCODING, &cei);
    if (rc == 0) rc = vrtainfo(j.in, VRTAINFO_LOCALE, &loc);
    if (rc < 0) return rc;
    const DA_FID* in = spfidof(j.in)->dafid;
    std::vector<DA_NAMESTR> vars(in->vars, in->vars + vi.numvar);
    for (DA_NAMESTR& v : vars) {
        // Statistics are the copy's own, folded as its rows are written.
        v.flags &= ~DA_NAMHASMM;
        v.minptr = v.maxptr = nullptr;
        v.minmaxpid = -1;
        v.sort = 0;
    }
    for (int k = 0; k < r->nkeys; ++k) {
        int8_t b = static_cast<int8_t>(k + 1);
        vars[r->keys[k].var - 1].sort = r->keys[k].descending ? static_cast<int8_t>(-b) : b;
    }
    std::string locale(loc.name, std::max<int>(0, std::min<int>(loc.len, 32)));
    std::string label(vi.label, std::max<int>(0, std::min<int>(vi.label_l, 256)));
    VRTACREATE cr{};
    cr.blocksize = vi.blocksize;
    cr.partsize = vi.partsize;
    cr.encoding_cei = cei;
    cr.locale = locale.empty() ? nullptr : locale.c_str();
    cr.label = label.empty() ? nullptr : label.c_str();
    cr.compress = e.comp.empty() ? nullptr : e.comp.c_str();
    cr.encrypt = e.enc.empty() ? nullptr : e.enc.c_str();
    cr.ekey = e.enc.empty() ? nullptr : e.key;
    rc = spcreatev(j.vlib, j.outname.data(), static_cast<int>(j.outname.size()), &cr, vi.numvar, vars.data(), &j.out);
    if (rc < 0) j.out = nullptr;
    return rc < 0 ? rc : 0;
}

rctype writeout(Job& j, const VRTAINFO& vi, const VRTASORT* r) {
    std::vector<char> buf(std::max<long>(IOBYTES / vi.obslen, 1) * vi.obslen);
    long per = static_cast<long>(buf.size() / vi.obslen);
    rctype rc = spnewwr(j.out, static_cast<long>(buf.size()), buf.data(), 0, &j.wr);
    if (rc < 0) return rc;
    long inbuf = 0;
    int64_t done = 0;
    int off = j.skb.info.data_offset;
    char* rec = nullptr;
    long l;
    while ((l = srnextrec(j.sp, &rec)) > 0) {
        memcpy(buf.data() + inbuf * vi.obslen, rec + off, vi.obslen);
        if (++inbuf == per) {
            if (stopped(r)) return SR_RC_INTERRUPT;
            if ((rc = spwritev(j.wr, inbuf)) < 0) return rc;
            done += inbuf;
            inbuf = 0;
            j.progress(2, done, vi.numobs);
        }
    }
    if (l < 0) return static_cast<rctype>(l);
    if (inbuf > 0 && (rc = spwritev(j.wr, inbuf)) < 0) return rc;
    done += inbuf;
    j.progress(2, done, vi.numobs);
    rc = spfreeio(j.wr);
    j.wr = nullptr;
    if (rc < 0) return rc;
    DA_SORTINFO si;
    memset(&si, 0, sizeof si);
    memset(si.collate, ' ', sizeof si.collate);
    si.nvars = r->nkeys;
    for (int k = 0; k < r->nkeys; ++k) si.nvar0[k] = r->keys[k].var;
    DA_FID* fp = spfidof(j.out)->dafid;
    rc = fp->mt->setsortinfo(fp, &si);
    return rc < 0 ? rc : 0;
}

// A spill that failed says where and why, a full work path above all; the
// sorter's own code says only that the work file could not be written.
rctype spillfail(Job& j, rctype rc) {
    rctype why = rc == SR_RC_SPILL ? srgetspillrc(j.sp) : 0;
    if (why >= 0 || why == SR_RC_SPILL) return rc;
    char dir[1025];
    if (srworkpath(dir, sizeof dir) <= 0) snprintf(dir, sizeof dir, "(none)");
    char text[1400];
    if (why == DA_NOSPACE)
        snprintf(text, sizeof text, "The sort work file could not be written: no space left on the work path %s.", dir);
    else
        snprintf(text, sizeof text, "The sort work file could not be written on the work path %s: %s", dir,
                 hsstrer(why));
    return spmkerrtext(j.outname.data(), static_cast<int>(j.outname.size()), text);
}

}  // namespace

extern "C" int vrtasort(void* vlib, const char* in, int in_l, const char* out, int out_l, const VRTASORT* req) {
    if (!vlib || !in || !out || !req || req->nkeys < 1 || req->nkeys > 128 || !req->keys || req->memsize < 0)
        return DA_BADARG;
    if (in_l < 0) in_l = static_cast<int>(strlen(in));
    if (out_l < 0) out_l = static_cast<int>(strlen(out));
    if (in_l <= 0 || out_l <= 0 || out_l > 32) return DA_BADARG;
    Job j(vlib, req);
    j.outname.assign(out, out_l);
    rctype rc = vrtaopen(vlib, in, in_l, nullptr, 0, req->ekey, 0, nullptr, -1, 0, &j.in);
    if (rc < 0) {
        j.in = nullptr;
        return rc;
    }
    VRTAINFO vi;
    if ((rc = vrtainfo(j.in, VRTAINFO_ALL, &vi)) < 0) return rc;
    CopyExit exit;
    if ((rc = copyexit(vi, req, &exit)) < 0) return rc;
    std::vector<bool> seen(vi.numvar + 1, false);
    for (int k = 0; k < req->nkeys; ++k) {
        int v = req->keys[k].var;
        if (v < 1 || v > vi.numvar || seen[v]) return SP_BADVAR;
        seen[v] = true;
    }
    // Keys carry the row number behind the columns, so rows with equal keys
    // keep their order, and the row itself behind that.
    rc = skbinit(&j.skb, nullptr, nullptr, nullptr, SKB_MAKEKEY, vi.obslen, req->nkeys);
    if (rc < 0) return rc;
    j.skbmade = true;
    for (int k = 0; k < req->nkeys; ++k) {
        VRTA_NAMESTR* np = nullptr;
        if ((rc = vrtagetnpp(j.in, req->keys[k].var, &np)) < 0) return rc;
        rc = j.skb.mt.addcol(&j.skb, np->n7.npos, np->n7.nlng, np->n7.type, req->keys[k].descending ? 1 : 0);
        if (rc < 0) return rc;
    }
    if ((rc = j.skb.mt.addend(&j.skb, SKB_OBS | SKB_DATA)) < 0) return rc;
    SR_PARMS p{};
    p.skb = &j.skb;
    p.mem_size = static_cast<size_t>(srsortmemory(req->memsize, nullptr));
    p.merge_size = p.mem_size;
    p.flags = SR_EXACTMEM;
    p.interrupt = req->interrupt;
    if ((rc = sropen(&p, &j.sp)) < 0) return rc;
    if ((rc = feed(j, vi)) < 0) return spillfail(j, rc);
    if ((rc = srfinish(j.sp)) < 0) return spillfail(j, rc);
    if (stopped(req)) return SR_RC_INTERRUPT;
    if ((rc = create(j, vi, req, exit)) < 0) return rc;
    rc = writeout(j, vi, req);
    if (rc >= 0 && stopped(req)) rc = SR_RC_INTERRUPT;  // not committed yet: still undone
    if (rc >= 0) {
        rc = vrtaclose(j.out);
        j.out = nullptr;
        if (rc >= 0) return 0;
    }
    j.dropout();
    // A storage code from writing the copy says which table it is about.
    if ((static_cast<uint32_t>(rc) & 0xffffff00u) == 0x80000200u)
        rc = spmkerr(j.outname.data(), static_cast<int>(j.outname.size()), rc);
    return rc;
}
