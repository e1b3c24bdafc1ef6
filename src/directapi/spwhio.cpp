// The WHERE cursor of the direct access API: rows of a table that satisfy a
// clause, found by the plan whinit makes. Row-test plans read the table in
// chunks of whole index segments; with more than one thread each thread tests
// its own segments of the chunk with its own copy of the tree, and the caller
// gets the rows in row order.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "directapi/sp.h"
#include "directapi/sppnt.h"
#include "hs/hs.h"
#include "sda/darc.h"
#include "ssup/thr.h"
#include "wh/wheval.h"
#include "wh/whplan.h"

using namespace vrta;

namespace {

constexpr rctype SP_NOMORE = 1284;          // no more rows
constexpr long SP_CHUNKBYTES = 8L << 20;     // rows read at once, at most
constexpr int SP_MAXTHREADS = 16;

struct SP_WHH;

// One thread's share of a chunk: rows [from, to) tested into match.
struct SP_WHWORK {
    SP_WHH* wh;
    SQLOP* tree;
    const char* rows;
    long from, to;
    rctype rc;
};

// Rows read at once, with their numbers.
struct SP_CHUNK {
    char* rows;
    hs_obsno_t* obs;
    long n;
    bool ready;       // read and not yet handed to the caller
    rctype rc;        // a failed read, reported when this chunk is wanted
};

struct SP_WHH {
    SP_FID* spfid;
    DA_IOCB* iocb;           // the table cursor (a cursor of spnewrd)
    SP_CHUNK ch[2];          // the chunk handed out, and the next, read meanwhile
    int cur;
    char* curbuf;            // the buffer the cursor reads into now
    long chunkrows;          // room of a chunk
    long chunkpos;           // next row of the current chunk to hand out
    uint8_t* match;          // test results of the current chunk
    int32_t obslen;
    long obsperbuf;          // rows a spwhget call delivers
    hs_obsno_t startobs, endobs;  // the range, endobs 0 for the end of the table
    WH_HANDLE* whereh;
    int whflags;
    bool rewind;
    bool readend;            // the cursor has reached the end of the range
    bool eof;                // nothing more to hand out
    int threads;             // asked for
    int nthreads;            // after planning
    SQLOP* trees[SP_MAXTHREADS];
    hs_obsno_t* outobs;      // row numbers of the rows last delivered
    long nout;
    long curlen;             // rows the cursor's buffer is set to hold
    int64_t* segs;           // the plan's segment list (from 0, rising), or null: all
    long nsegs;
    long segpos;             // first listed segment not yet passed
    SP_PNT* pnt;             // rows by number, for plans whose index gives the numbers
    ix_list_t* ev4list;      // an EVAL4 plan's rows
    bool restart;            // an index plan starts again at its first key
};

SP_WHH* whhof(void* v) { return static_cast<SP_WHH*>(v); }

bool dynamic(const SP_FID* s) { return (s->dafid->fidflags & DA_FIDDYNAMIC) != 0; }

void freetrees(SP_WHH* w) {
    for (int i = 0; i < SP_MAXTHREADS; i++)
        if (w->trees[i]) whevalterm(&w->trees[i], 0);
}

void* testrows(void* arg) {
    auto* wk = static_cast<SP_WHWORK*>(arg);
    SP_WHH* w = wk->wh;
    wk->rc = whevalrows(&w->whereh->whenv, wk->tree, wk->rows + wk->from * w->obslen, wk->to - wk->from, w->obslen,
                        !w->whereh->not_kor, w->match + wk->from);
    return nullptr;
}

// Reads the next rows of the range into c; none at the end.
void readinto(SP_WHH* w, SP_CHUNK* c) {
    c->n = 0;
    c->rc = 0;
    c->ready = true;
    if (w->readend) return;
    long want = w->chunkrows;
    if (w->segs) {
        // Only the plan's segments: on to the next listed one, and no
        // further than the end of the run of listed segments it starts.
        int64_t seg = w->spfid->dafid->xoehdr->idxsegsize;
        hs_obsno_t cur = spcurloc(w->iocb);
        int64_t s = cur >= 1 && seg > 0 ? (cur - 1) / seg : 0;
        while (w->segpos < w->nsegs && w->segs[w->segpos] < s) w->segpos++;
        if (w->segpos >= w->nsegs) {
            w->readend = true;
            return;
        }
        if (w->segs[w->segpos] > s) {
            cur = w->segs[w->segpos] * seg + 1;
            if (w->endobs >= 1 && cur > w->endobs) {
                w->readend = true;
                return;
            }
            if (int rc = spsetloc(w->iocb, cur); rc < 0) {
                c->rc = rc;
                return;
            }
        }
        long k = w->segpos;
        while (k + 1 < w->nsegs && w->segs[k + 1] == w->segs[k] + 1) k++;
        int64_t left = (w->segs[k] + 1) * seg - cur + 1;
        if (left >= 1 && left < want) want = static_cast<long>(left);
    }
    if (w->curbuf != c->rows || w->curlen != want) {
        int rc = spsetrd(w->iocb, want * w->obslen, c->rows);
        if (rc < 0) {
            c->rc = rc;
            return;
        }
        w->curbuf = c->rows;
        w->curlen = want;
    }
    void* vrows = nullptr;
    int64_t* ov = nullptr;
    long got = 0;
    hs_obsno_t before = spcurloc(w->iocb);
    int rc = spreadv(w->iocb, &got, &vrows, &ov);
    if (rc < 0) {
        c->rc = rc;
        return;
    }
    if (got <= 0) {
        w->readend = true;
        return;
    }
    // Block mode deals the rows from a private buffer.
    if (vrows != c->rows) std::memmove(c->rows, vrows, static_cast<size_t>(got) * w->obslen);
    for (long i = 0; i < got; i++) c->obs[i] = ov ? ov[i] : before + i;
    long keep = got;
    if (w->endobs >= 1) {
        while (keep > 0 && c->obs[keep - 1] > w->endobs) keep--;
        if (keep < got) w->readend = true;
    }
    c->n = keep;
}

struct Tester {
    SP_WHWORK work[SP_MAXTHREADS];
    thread_t tids[SP_MAXTHREADS];
    bool started[SP_MAXTHREADS];
    int nt = 0;
};

// Starts the test of chunk c: whole segments to each thread.
void starttest(SP_WHH* w, const SP_CHUNK* c, Tester* t) {
    long n = c->n;
    t->nt = 0;
    if (!w->trees[0] || (w->whereh->call_flags & (WHF_TRUE | WHF_NONE))) {
        std::memset(w->match, 1, n);
        return;
    }
    int nt = w->nthreads;
    int64_t seg = w->spfid->dafid->xoehdr->idxsegsize;
    // Whole segments to each thread when the chunk has enough of them, else
    // equal shares of rows.
    if (seg < 1 || n / seg < nt) seg = std::max<int64_t>(1, (n + nt - 1) / nt);
    long nseg = static_cast<long>((n + seg - 1) / seg);
    if (nt > nseg) nt = static_cast<int>(nseg);
    if (nt < 1) nt = 1;
    long per = (nseg + nt - 1) / nt;
    t->nt = nt;
    for (int i = 0; i < nt; i++) {
        long from = std::min(n, static_cast<long>(i * per * seg));
        long to = std::min(n, static_cast<long>((i + 1) * per * seg));
        t->work[i] = SP_WHWORK{w, w->trees[i], c->rows, from, to, 0};
        t->started[i] = thr_create(nullptr, 0, testrows, &t->work[i], 0, &t->tids[i]) == 0;
        // No thread to be had: this one does the share itself.
        if (!t->started[i]) testrows(&t->work[i]);
    }
}

rctype endtest(Tester* t) {
    rctype rc = 0;
    for (int i = 0; i < t->nt; i++) {
        if (t->started[i]) thr_join(t->tids[i], nullptr);
        if (t->work[i].rc && !rc) rc = t->work[i].rc;
    }
    return rc;
}

// Makes the next chunk current and tests it, reading the one after it while
// the rows are tested.
rctype nextchunk(SP_WHH* w) {
    w->chunkpos = 0;
    int nx = 1 - w->cur;
    if (!w->ch[nx].ready) readinto(w, &w->ch[nx]);
    w->ch[w->cur].ready = false;
    w->ch[w->cur].n = 0;
    w->cur = nx;
    SP_CHUNK* c = &w->ch[nx];
    if (c->rc < 0) {
        rctype rc = c->rc;
        c->rc = 0;
        c->n = 0;
        return rc;
    }
    if (c->n == 0) return 0;
    Tester t;
    starttest(w, c, &t);
    if (!w->readend) readinto(w, &w->ch[1 - nx]);
    return endtest(&t);
}

bool byindex(const SP_WHH* w) { return (w->whflags & (WHF_EVAL3 | WHF_EVAL4)) != 0; }

// Up to want row numbers from the plan's index into w->pnt->obsvec, in the
// cursor's row range; *done when the index has no more.
rctype indexrows(SP_WHH* w, long want, long* got, bool* done) {
    SP_PNT* p = w->pnt;
    *got = 0;
    *done = false;
    WH_HANDLE* wh = w->whereh;
    if (w->whflags & WHF_EVAL3) {
        int64_t n = want;
        if (rctype rc = wheval3(wh, w->restart, p->obsvec, p->bp, &n)) return rc;
        w->restart = false;
        *got = static_cast<long>(n);
        *done = n < want;
        return 0;
    }
    if (!w->ev4list) {
        if (rctype rc = wheval4(wh, &w->ev4list)) return rc;
    } else if (w->restart) {
        ixrwndl(w->ev4list);
    }
    w->restart = false;
    // Rows outside the range are passed over, so ask until some are in it.
    while (*got == 0 && !*done) {
        int64_t n = want;
        rctype more = ixrtrve(w->ev4list, p->obsvec, &n);
        if (more < 0) return more;
        *done = more == 1 || n < want;
        long k = 0;
        for (int64_t i = 0; i < n; i++) {
            int64_t o = p->obsvec[i];
            if (p->bp && (o < p->bp->first || o > p->bp->last)) continue;
            p->obsvec[k++] = o;
        }
        *got = k;
        if (p->bp && n > 0 && p->obsvec[k > 0 ? k - 1 : 0] > p->bp->last) *done = true;
    }
    return 0;
}

// The next rows of an index plan: numbers from the index, their rows read
// in file order, tested with the joined tree.
int getbyindex(SP_WHH* w, char* out, long* numobs) {
    SP_PNT* p = w->pnt;
    SP_FID* s = w->spfid;
    bool dyn = dynamic(s);
    if (dyn)
        if (rctype rc = s->dafid->mt->setshare(s->dafid, DA_SHRREAD); rc < 0) return rc;
    long n = 0;
    rctype rc = 0;
    bool test = w->trees[0] && !(w->whereh->call_flags & (WHF_TRUE | WHF_NONE));
    while (n < w->obsperbuf && !w->eof) {
        long got = 0;
        bool done = false;
        rc = indexrows(w, w->obsperbuf - n, &got, &done);
        if (rc < 0) break;
        if (done) w->eof = true;
        long r = 0;
        rc = sp_readobs(p, got, out + n * w->obslen, &r);
        if (rc < 0) break;
        if (test && r > 0) {
            rc = whevalrows(&w->whereh->whenv, w->trees[0], out + n * w->obslen, r, w->obslen, !w->whereh->not_kor,
                            w->match);
            if (rc < 0) break;
        }
        // Rows that pass move down over those that did not.
        long base = n;
        for (long i = 0; i < r; i++) {
            if (test && !w->match[i]) continue;
            if (base + i != n) std::memmove(out + n * w->obslen, out + (base + i) * w->obslen, w->obslen);
            w->outobs[n] = p->obsvec[i];
            n++;
        }
    }
    if (dyn) {
        rctype crc = s->dafid->mt->setshare(s->dafid, DA_SHRCLEAR);
        if (rc >= 0 && crc < 0) rc = crc;
    }
    if (rc < 0) {
        w->eof = true;
        return rc;
    }
    w->nout = n;
    *numobs = n;
    return n > 0 ? 0 : SP_NOMORE;
}

rctype startscan(SP_WHH* w) {
    w->eof = false;
    if (byindex(w)) {
        w->restart = true;
        return 0;
    }
    w->readend = false;
    w->chunkpos = 0;
    for (SP_CHUNK& c : w->ch) {
        c.n = 0;
        c.ready = false;
        c.rc = 0;
    }
    w->segpos = 0;
    hs_obsno_t first = w->startobs >= 2 ? w->startobs : 1;
    return spsetloc(w->iocb, first);
}

}  // namespace

extern "C" {

int spnewwh(void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newwhh) {
    if (!newwhh) return DA_BADARG;
    *newwhh = nullptr;
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !s->dafid->xoehdr) return DA_BADARG;
    int32_t obslen = s->dafid->xoehdr->ioreclen;
    if (obslen <= 0) return DA_BADARG;
    long obsperbuf = bufsize / (obslen + 8);
    if (obsperbuf < 1) return DA_BADARG;
    if (startobs < 0 || endobs < 0 || (endobs >= 1 && startobs > endobs)) return DA_BADARG;
    auto* w = static_cast<SP_WHH*>(std::calloc(1, sizeof(SP_WHH)));
    if (!w) return SP_NOMEM;
    w->spfid = s;
    w->obslen = obslen;
    w->obsperbuf = obsperbuf;
    w->startobs = startobs;
    w->endobs = endobs;
    int64_t seg = s->dafid->xoehdr->idxsegsize > 0 ? s->dafid->xoehdr->idxsegsize : 1;
    // A chunk: 64 of the caller's buffers, within the chunk budget, cut to
    // whole segments when it holds any, so that threads test whole segments.
    long rows = std::max<long>(obsperbuf, std::min<long>(64 * obsperbuf, std::max<long>(SP_CHUNKBYTES / obslen, 1)));
    if (rows >= seg) rows = static_cast<long>(rows / seg * seg);
    w->chunkrows = rows;
    long ncpu = sysconf(_SC_NPROCESSORS_ONLN);
    w->threads = static_cast<int>(std::clamp<long>(ncpu, 1, SP_MAXTHREADS));
    for (SP_CHUNK& c : w->ch) {
        c.rows = static_cast<char*>(std::malloc(static_cast<size_t>(w->chunkrows) * obslen));
        c.obs = static_cast<hs_obsno_t*>(std::malloc(sizeof(hs_obsno_t) * w->chunkrows));
    }
    w->match = static_cast<uint8_t*>(std::malloc(w->chunkrows));
    w->outobs = static_cast<hs_obsno_t*>(std::malloc(sizeof(hs_obsno_t) * obsperbuf));
    int rc = 0;
    for (SP_CHUNK& c : w->ch)
        if (!c.rows || !c.obs) rc = SP_NOMEM;
    if (!w->match || !w->outobs) rc = SP_NOMEM;
    if (!rc) rc = spnewrd(vfid, static_cast<long>(w->chunkrows) * obslen, w->ch[0].rows, reinterpret_cast<void**>(&w->iocb));
    w->curbuf = w->ch[0].rows;
    w->curlen = w->chunkrows;
    if (rc < 0) {
        spfreewh(w);
        return rc;
    }
    w->eof = true;  // nothing to read before a clause is bound
    *newwhh = w;
    return 0;
}

int spfreewh(void* vwhh) {
    SP_WHH* w = whhof(vwhh);
    if (!w) return DA_BADARG;
    int rc = 0;
    freetrees(w);
    if (w->whereh) whterm(w->whereh);
    if (w->iocb) rc = spfreerd(w->iocb);
    for (SP_CHUNK& c : w->ch) {
        std::free(c.rows);
        std::free(c.obs);
    }
    std::free(w->match);
    std::free(w->outobs);
    std::free(w->segs);
    if (w->ev4list) ixfreel(w->ev4list);
    if (w->pnt) {
        int prc = spfreept(w->pnt);
        if (rc == 0) rc = prc;
    }
    std::free(w);
    return rc;
}

int spwhthreads(void* vwhh, int nthreads) {
    SP_WHH* w = whhof(vwhh);
    if (!w || nthreads < 1) return DA_BADARG;
    w->threads = std::min(nthreads, SP_MAXTHREADS);
    return 0;
}

int spwhset(void* vwhh, const void* where_tree, int init_flags, int numxidx, const char* xixnames, int* whflags,
            int* whstat) {
    SP_WHH* w = whhof(vwhh);
    if (!w) return DA_BADARG;
    if (whflags) *whflags = 0;
    if (whstat) *whstat = 0;
    freetrees(w);
    if (w->ev4list) ixfreel(w->ev4list);
    w->ev4list = nullptr;
    w->whflags = 0;
    if (!where_tree) {
        if (w->whereh) whterm(w->whereh);
        w->whereh = nullptr;
        w->eof = true;
        return 0;
    }
    // Index names of the request: 4-byte steps of blank-padded names. No
    // index is used by a row-test plan, so they only have to be well formed.
    if (numxidx < 0 || (numxidx > 0 && !xixnames)) return DA_BADARG;
    SP_FID* s = w->spfid;
    int threads = w->threads;
    int flags = 0;
    WH_HANDLE* wh = w->whereh;
    w->whereh = nullptr;
    rctype rc;
    if (dynamic(s)) {
        DA_FID* fp = s->dafid;
        rc = fp->mt->setshare(fp, DA_SHRREAD);
        if (rc >= 0)
            rc = whinit(s->clenv, where_tree, fp, init_flags, &threads, &flags, nullptr, 0, nullptr, nullptr,
                        nullptr, &wh);
        rctype crc = fp->mt->setshare(fp, DA_SHRCLEAR);
        if (rc >= 0 && crc < 0) {
            whterm(wh);
            rc = crc;
        }
    } else {
        rc = whinit(s->clenv, where_tree, s->dafid, init_flags, &threads, &flags, nullptr, 0, nullptr, nullptr,
                    nullptr, &wh);
    }
    if (rc < 0) return rc;
    w->whereh = wh;
    w->whflags = flags;
    std::free(w->segs);
    w->segs = nullptr;
    w->nsegs = 0;
    if ((flags & WHF_SEGLIST) && wh->seglist && s->dafid->xoehdr->idxsegsize > 0) {
        std::vector<int64_t> v;
        rc = whsegments(wh, &v);
        if (rc == 0 && !v.empty()) {
            w->segs = static_cast<int64_t*>(std::malloc(sizeof(int64_t) * v.size()));
            if (!w->segs) rc = SP_NOMEM;
            else std::memcpy(w->segs, v.data(), sizeof(int64_t) * v.size());
            w->nsegs = static_cast<long>(v.size());
        }
        if (rc == 0 && v.empty()) {
            // An empty list: no segment can hold a match.
            w->segs = static_cast<int64_t*>(std::malloc(sizeof(int64_t)));
            if (!w->segs) rc = SP_NOMEM;
            w->nsegs = 0;
        }
        if (rc) {
            whterm(wh);
            w->whereh = nullptr;
            return rc;
        }
    }
    w->nthreads = std::clamp(threads, 1, SP_MAXTHREADS);
    for (int i = 0; i < w->nthreads; i++) {
        rc = whevalprep(wh, &w->trees[i], WHP_COPY | WHP_JOIN);
        if (rc) {
            freetrees(w);
            whterm(wh);
            w->whereh = nullptr;
            return rc;
        }
    }
    if ((flags & (WHF_EVAL3 | WHF_EVAL4)) && !w->pnt) {
        void* p = nullptr;
        rc = sp_initpnt(sizeof(SP_PNT), s, w->obsperbuf * (w->obslen + 8), w->startobs, w->endobs, &p);
        if (rc < 0) {
            freetrees(w);
            whterm(wh);
            w->whereh = nullptr;
            return rc;
        }
        w->pnt = static_cast<SP_PNT*>(p);
    }
    w->rewind = (flags & WHF_EVAL3) != 0;
    if (whflags) *whflags = flags;
    if (whstat) {
        if ((flags & WHF_ALL) && !(flags & 3)) *whstat = 1;
        else if (flags & WHF_TRUE) *whstat = 2;
        else if (flags & WHF_FALSE) *whstat = 3;
    }
    if (flags & WHF_FALSE) {
        w->eof = true;
        return 0;
    }
    rc = startscan(w);
    return rc < 0 ? rc : 0;
}

int spwhget(void* vwhh, void* obsbuf, long* numobs) {
    if (numobs) *numobs = 0;
    SP_WHH* w = whhof(vwhh);
    if (!w || !obsbuf || !numobs) return DA_BADARG;
    w->nout = 0;
    if (!w->whereh) return DA_BADARG;
    if (w->rewind) {
        w->rewind = false;
        if (rctype rc = startscan(w)) return rc;
    }
    if (w->eof) return SP_NOMORE;
    if (byindex(w)) return getbyindex(w, static_cast<char*>(obsbuf), numobs);
    char* out = static_cast<char*>(obsbuf);
    long n = 0;
    while (n < w->obsperbuf) {
        SP_CHUNK* c = &w->ch[w->cur];
        if (w->chunkpos >= c->n) {
            if (w->readend && !w->ch[1 - w->cur].ready) {
                w->eof = true;
                break;
            }
            rctype rc = nextchunk(w);
            if (rc < 0) {
                // Rows found before the failure still reach the caller; the
                // failure comes with the next call.
                if (n > 0) {
                    w->ch[w->cur].rc = rc;
                    w->ch[w->cur].ready = true;
                    w->cur = 1 - w->cur;
                    break;
                }
                w->eof = true;
                return rc;
            }
            c = &w->ch[w->cur];
            if (c->n == 0) {
                w->eof = true;
                break;
            }
        }
        while (w->chunkpos < c->n && n < w->obsperbuf) {
            long i = w->chunkpos++;
            if (!w->match[i]) continue;
            std::memcpy(out + n * w->obslen, c->rows + i * w->obslen, w->obslen);
            w->outobs[n] = c->obs[i];
            n++;
        }
    }
    w->nout = n;
    *numobs = n;
    return n > 0 ? 0 : SP_NOMORE;
}

int64_t* spwhobsvec(void* vwhh) {
    SP_WHH* w = whhof(vwhh);
    return w ? w->outobs : nullptr;
}

int spwhexplain(void* vwhh, char* buf, int buflen) {
    SP_WHH* w = whhof(vwhh);
    if (!w || !w->whereh || !buf || buflen < 1) return DA_BADARG;
    WH_HANDLE* wh = w->whereh;
    int f = w->whflags;
    char words[200];
    whflagwords(f, words, sizeof words);
    char* rowtest = nullptr;
    char* idxtree = nullptr;
    if (wh->tree && whsayit(wh->tree, &rowtest) != 0) rowtest = nullptr;
    if (wh->xtree && whsayit(wh->xtree, &idxtree) != 0) idxtree = nullptr;
    const char* method = (f & WHF_FALSE)   ? "none: no row qualifies"
                         : (f & WHF_TRUE)  ? "all rows: every row qualifies"
                         : (f & WHF_NONE)  ? "all rows: nothing is left to test"
                         : (f & WHF_EVAL3) ? "index lookup in key order"
                         : (f & WHF_EVAL4) ? "index row list"
                         : (f & WHF_EVAL1) ? ((f & WHF_SEGLIST) ? "index segments, then the row test"
                                                                : "every segment: index tree and row test on each row")
                                           : "scan of every row with the row test";
    const DA_XOEODS* x = w->spfid->dafid->xoehdr;
    int64_t seg = x->idxsegsize > 0 ? x->idxsegsize : 1;
    int64_t tblsegs = (x->numobs + seg - 1) / seg;
    int64_t segs = (f & WHF_FALSE) ? 0 : w->segs ? w->nsegs : tblsegs;
    char ixnames[400];
    if (whindexnames(wh->xtree, ixnames, sizeof ixnames) == 0) std::snprintf(ixnames, sizeof ixnames, "none");
    char skipped[400], notused[440] = "";
    if (whskippedindexes(wh, skipped, sizeof skipped) > 0)
        std::snprintf(notused, sizeof notused, "not used, need rebuild: %s\n", skipped);
    int n = std::snprintf(buf, buflen,
                          "plan:%s\nindex tree: %s\nindexes: %s\n%srow test: %s\nmethod: %s\nthreads: %d\n"
                          "segments: %lld of %lld (%lld rows each)\n",
                          words, idxtree ? idxtree : "none", ixnames, notused, rowtest ? rowtest : "none", method,
                          (f & (WHF_FALSE | WHF_TRUE | WHF_NONE)) ? 1 : static_cast<int>(std::min<int64_t>(w->nthreads, std::max<int64_t>(segs, 1))), static_cast<long long>(segs),
                          static_cast<long long>(tblsegs), static_cast<long long>(seg));
    std::free(rowtest);
    std::free(idxtree);
    return n < buflen ? n : buflen - 1;
}

int spwhsync(void* vwhh, int nnames, const char* ixnames) {
    SP_WHH* w = whhof(vwhh);
    if (!w || !w->whereh) return DA_BADARG;
    if (nnames < 0 || (nnames > 0 && !ixnames)) return DA_BADARG;
    // A row test reads the table as it stands at each read: only open
    // indexes need bringing up to date.
    if (!(w->whflags & (WHF_EVAL3 | WHF_EVAL4))) return 0;
    // Names of 32 bytes, blank padded.
    std::vector<u_sname> names(static_cast<size_t>(nnames));
    for (int i = 0; i < nnames; i++) {
        const char* nm = ixnames + 32 * static_cast<size_t>(i);
        int l = 32;
        while (l > 0 && nm[l - 1] == ' ') l--;
        names[static_cast<size_t>(i)].len = static_cast<int16_t>(l);
        std::memcpy(names[static_cast<size_t>(i)].name, nm, 32);
    }
    return whsyncx(w->whereh, nnames, nnames > 0 ? names.data() : nullptr);
}

}  // extern "C"
