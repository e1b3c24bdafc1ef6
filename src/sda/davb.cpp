// Variable blocks: converted blocks of different lengths, placed anywhere in
// the DPF. A fixed-fan-out tree of directories in the MDF leads to vectors,
// each mapping vbvspan block numbers to offset, length and a chained bit.
// A block that outgrows its place keeps it as the first piece of a chain of
// pieces, each with a DA_VBFIX head; the rest goes to the end of the DPF.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "sda/daiocb.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

#pragma pack(push, 1)
struct DA_VBFIX {
    int64_t offset;   // next piece, -1 none
    int32_t nalloc;   // bytes of this piece, head included
    int32_t nused;    // payload bytes; negative on the last piece
};
#pragma pack(pop)
static_assert(sizeof(DA_VBFIX) == 16 && offsetof(DA_VBFIX, nalloc) == 8 && offsetof(DA_VBFIX, nused) == 12);

constexpr int DA_VBMAXLEVEL = 6;

struct DA_VBVNODE {
    da_off_t offset;     // of the vector in the MDF, -1 none
    char* vbvec;
    int64_t vbvno;       // DA_NOVBN none
    int dirty;
    uint64_t gen;        // the table's vector generation when loaded
};

struct DA_VBDNODE {
    da_off_t offset;
    DA_VBDIR dir;
};

struct DA_VBCB : DA_BKCB {
    DA_VBHEAD vbhdr;
    int flags;               // 1 head dirty
    int64_t maxvbvnlevel;    // vectors the tree reaches: 1024 ^ numlevels
    char* iobuf;             // converted bytes of one block, 16 in front for a head
    int32_t iobufsize;
    DA_VBVNODE vbvnode;      // the writers' vector
    DA_VBDNODE vbdnode[DA_VBMAXLEVEL];
    uint64_t vecgen;         // raised when any vector changes
};

struct DA_VIOCB {
    DA_VBVNODE node;         // a cursor's own vector
    int seq;                 // reads ahead: blocks written in order lie in order
    char* rabuf;
    da_off_t raoff;
    int32_t ralen;
    uint64_t ragen;          // the table's block generation when read
};

constexpr int32_t DA_VBREADAHEAD = 256 * 1024;

namespace {

constexpr int VBHDIRTY = 1;

// ---------------------------------------------------------------- geometry

int32_t bitwords(int32_t span) { return (span + 31) / 32; }
int32_t vecsize(int32_t span, int32_t type) {
    int32_t s = 8 * span + 4 * bitwords(span) + (type == DA_VBVINT32 ? 4 : 2) * span + 8;
    return (s + 7) & ~7;
}

uint32_t* vbits(const DA_VBHEAD& h, char* v) { return reinterpret_cast<uint32_t*>(v + 8 * h.vbvspan); }
char* vlens(const DA_VBHEAD& h, char* v) { return v + 8 * h.vbvspan + 4 * bitwords(h.vbvspan); }

int64_t getoff(const DA_VBHEAD&, char* v, int ic) {
    int64_t o;
    memcpy(&o, v + 8 * ic, 8);
    return o;
}
void setoff(const DA_VBHEAD&, char* v, int ic, int64_t o) { memcpy(v + 8 * ic, &o, 8); }
int32_t getlen(const DA_VBHEAD& h, char* v, int ic) {
    if (h.vbvtype == DA_VBVINT32) {
        int32_t l;
        memcpy(&l, vlens(h, v) + 4 * ic, 4);
        return l;
    }
    int16_t l;
    memcpy(&l, vlens(h, v) + 2 * ic, 2);
    return l;
}
void setlen(const DA_VBHEAD& h, char* v, int ic, int32_t l) {
    if (h.vbvtype == DA_VBVINT32) {
        memcpy(vlens(h, v) + 4 * ic, &l, 4);
    } else {
        int16_t s = static_cast<int16_t>(l);
        memcpy(vlens(h, v) + 2 * ic, &s, 2);
    }
}
bool getbit(const DA_VBHEAD& h, char* v, int ic) {
    uint32_t w;
    memcpy(&w, vbits(h, v) + ic / 32, 4);
    return (w & (0x80000000u >> (ic & 31))) != 0;
}
void setbit(const DA_VBHEAD& h, char* v, int ic, bool on) {
    uint32_t w;
    memcpy(&w, vbits(h, v) + ic / 32, 4);
    if (on) w |= 0x80000000u >> (ic & 31);
    else w &= ~(0x80000000u >> (ic & 31));
    memcpy(vbits(h, v) + ic / 32, &w, 4);
}
int64_t getnext(const DA_VBHEAD& h, char* v) {
    int64_t o;
    memcpy(&o, v + h.vbvecsize - 8, 8);
    return o;
}

// The span and vector layout once the row length is known; a table created
// empty writes its head before its columns exist.
[[nodiscard]] rctype geometry(DA_FCB* fcb, DA_VBCB* vb) {
    DA_VBHEAD& h = vb->vbhdr;
    if (h.vbvecsize > 0) return 0;
    if (h.lastOffset >= 0) return DA_INTERNAL;
    int32_t bf = fcb->xoe.blockfactor;
    if (bf <= 0) return DA_INTERNAL;
    int64_t span = 0x7fffffffLL / (static_cast<int64_t>(bf) << 20);
    span = (span + 31) / 32 * 32;
    h.vbvspan = static_cast<int32_t>(span < 32 ? 32 : span);
    h.vbvtype = fcb->xoe.blocksize >= 32768 ? DA_VBVINT32 : DA_VBVSHORT;
    h.vbvecsize = vecsize(h.vbvspan, h.vbvtype);
    vb->flags |= VBHDIRTY;
    return 0;
}

// All len bytes or DA_SHORTREAD: the vectors and blocks have fixed places.
[[nodiscard]] rctype readall(DA_FD* fd, void* buf, long len, da_off_t off) {
    long got = 0;
    rctype rc = fd->fdread(fd, buf, len, off, &got);
    if (rc < 0) return rc;
    if (rc == DA_EOF || got != len) return DA_SHORTREAD;
    return 0;
}

[[nodiscard]] rctype writeall(DA_FD* fd, const void* buf, long len, da_off_t* off) {
    rctype rc = fd->fdwrite(fd, buf, len, off);
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype wrhead(DA_FCB* fcb, DA_VBCB* vb) {
    // The tree and vectors the head leads to are on disk before it is.
    rctype rc = dasyncfcb(fcb);
    if (rc < 0) return rc;
    da_off_t off = fcb->dshdr.links[DA_LNKVBH];
    rc = dawrods(fcb->mdfio, &vb->vbhdr, &off);
    if (rc < 0) return rc;
    if (fcb->dshdr.links[DA_LNKVBH] != off) {
        fcb->dshdr.links[DA_LNKVBH] = off;
        fcb->flags |= DA_FCBDSHDR;
    }
    vb->flags &= ~VBHDIRTY;
    return 0;
}

[[nodiscard]] rctype needio(DA_FCB* fcb, DA_VBCB* vb) {
    int32_t im = fcb->xcext ? fcb->xcext->iomaxbuf : 0;
    if (im <= 0) return DA_INTERNAL;
    int32_t want = ((im + std::max(0, fcb->xoe.blockgrow) + 7) & ~7) + 16;
    if (vb->iobufsize >= want) return 0;
    free(vb->iobuf);
    vb->iobuf = static_cast<char*>(malloc(want));
    vb->iobufsize = vb->iobuf ? want : 0;
    return vb->iobuf ? 0 : DA_NOMEM;
}

[[nodiscard]] rctype nodebuf(DA_VBCB* vb, DA_VBVNODE* n) {
    if (n->vbvec) return 0;
    n->vbvec = static_cast<char*>(malloc(vb->vbhdr.vbvecsize));
    return n->vbvec ? 0 : DA_NOMEM;
}

void dropnode(DA_VBVNODE* n) {
    n->vbvno = DA_NOVBN;
    n->offset = -1;
    n->dirty = 0;
}

[[nodiscard]] rctype flushvec(DA_FCB* fcb, DA_VBCB* vb) {
    DA_VBVNODE& n = vb->vbvnode;
    if (!n.dirty) return 0;
    // A vector that sends a block elsewhere must not reach the disk before
    // the block does: the old place still holds its committed rows.
    rctype rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDDATASYNC, nullptr);
    if (rc < 0) return rc;
    da_off_t off = n.offset;
    rc = writeall(fcb->mdfd, n.vbvec, vb->vbhdr.vbvecsize, &off);
    if (rc == 0) n.dirty = 0;
    return rc;
}

// The blocks of a vector lie inside the DPF and apart from each other. A
// damaged offset could otherwise land on another block's bytes, which an
// exit may well decode to rows of the right length.
[[nodiscard]] rctype chkvec(DA_FCB* fcb, const DA_VBHEAD& h, char* v, int64_t vbvno) {
    std::vector<std::pair<int64_t, int64_t>> used;
    da_off_t fsize = *fcb->dffd->filesize;
    for (int ic = 0; ic < h.vbvspan; ++ic) {
        int64_t o = getoff(h, v, ic);
        if (o == -1) continue;
        int64_t len = getlen(h, v, ic);
        if (len < 0) len = -len;
        if (o < 0 || len == 0 || o > fsize - len) {
            hsprint("GetBlockOffset: Bad block offset: DS=%s vbn=%lld offset=%lld length=%lld filesize=%lld\n",
                    fcb->name, static_cast<long long>(vbvno * h.vbvspan + ic), static_cast<long long>(o),
                    static_cast<long long>(len), static_cast<long long>(fsize));
            return DA_INTERNAL;
        }
        used.emplace_back(o, o + len);
    }
    std::sort(used.begin(), used.end());
    for (size_t i = 1; i < used.size(); ++i)
        if (used[i].first < used[i - 1].second) {
            hsprint("GetBlockOffset: Blocks overlap: DS=%s vector=%lld offset=%lld\n", fcb->name,
                    static_cast<long long>(vbvno), static_cast<long long>(used[i].first));
            return DA_INTERNAL;
        }
    return 0;
}

[[nodiscard]] rctype loadvec(DA_FCB* fcb, DA_VBCB* vb, DA_VBVNODE* n, da_off_t off, int64_t vbvno) {
    if (n == &vb->vbvnode) {
        rctype rc = flushvec(fcb, vb);
        if (rc < 0) return rc;
    }
    rctype rc = nodebuf(vb, n);
    if (rc < 0) return rc;
    dropnode(n);
    rc = readall(fcb->mdfd, n->vbvec, vb->vbhdr.vbvecsize, off);
    if (rc < 0) return rc;
    rc = chkvec(fcb, vb->vbhdr, n->vbvec, vbvno);
    if (rc < 0) return rc;
    n->offset = off;
    n->vbvno = vbvno;
    n->gen = vb->vecgen;
    return 0;
}

[[nodiscard]] rctype loaddir(DA_FCB* fcb, DA_VBCB* vb, int level, da_off_t off) {
    DA_VBDNODE& d = vb->vbdnode[level];
    if (d.offset == off) return 0;
    d.offset = -1;
    rctype rc = readall(fcb->mdfd, &d.dir, sizeof d.dir, off);
    if (rc < 0) return rc;
    if (d.dir.level != level || d.dir.nused < 0 || d.dir.nused > DA_VBDIRN) {
        hsprint("GetBlockOffset: Bad level: %d vs. %d\n", d.dir.level, level);
        return DA_INTERNAL;
    }
    d.offset = off;
    return 0;
}

// Offset of vector vbvno through the tree; 518 when the tree has none.
[[nodiscard]] rctype walk(DA_FCB* fcb, DA_VBCB* vb, int64_t vbvno, da_off_t* voff) {
    const DA_VBHEAD& h = vb->vbhdr;
    if (vbvno >= vb->maxvbvnlevel) return DA_EOF;
    int64_t span = vb->maxvbvnlevel / DA_VBDIRN;
    int64_t rest = vbvno;
    da_off_t off = h.rootOffset;
    for (int level = h.numlevels - 1; level >= 0; --level) {
        rctype rc = loaddir(fcb, vb, level, off);
        if (rc < 0) return rc;
        int64_t index = rest / span;
        rest -= index * span;
        span /= DA_VBDIRN;
        if (index >= vb->vbdnode[level].dir.nused) return DA_EOF;
        off = vb->vbdnode[level].dir.offsets[index];
    }
    if (off < 0) return DA_EOF;
    *voff = off;
    return 0;
}

struct BlockAddr {
    da_off_t offset;
    int32_t nalloc;
    bool chained;
    bool compressed;
};

// GetBlockOffset: where block vbn is, through node (the writers' or a cursor's).
[[nodiscard]] rctype blockoffset(DA_FCB* fcb, DA_VBCB* vb, DA_VBVNODE* node, int64_t vbn, BlockAddr* a) {
    const DA_VBHEAD& h = vb->vbhdr;
    if (h.vbvecsize <= 0) return DA_EOF;
    int64_t vbvno = vbn / h.vbvspan;
    if (node != &vb->vbvnode && node->gen != vb->vecgen) dropnode(node);
    if (node->vbvno != vbvno) {
        da_off_t voff = -1;
        rctype rc = DA_EOF;
        // Sequential fast path: the vector names the next one.
        if (h.numlevels >= 2 && node->vbvno != DA_NOVBN && vbvno == node->vbvno + 1) {
            int64_t nx = getnext(h, node->vbvec);
            if (nx >= 0) {
                voff = nx;
                rc = 0;
            }
        }
        if (rc != 0) rc = walk(fcb, vb, vbvno, &voff);
        if (rc != 0) return rc;
        rc = loadvec(fcb, vb, node, voff, vbvno);
        if (rc < 0) return rc;
    }
    int ic = static_cast<int>(vbn % h.vbvspan);
    int64_t off = getoff(h, node->vbvec, ic);
    if (off < 0) return DA_EOF;
    int32_t len = getlen(h, node->vbvec, ic);
    a->offset = off;
    a->compressed = len >= 0;
    a->nalloc = len < 0 ? -len : len;
    a->chained = getbit(h, node->vbvec, ic);
    return 0;
}

[[nodiscard]] rctype appenddir(DA_FCB* fcb, int level, da_off_t* off) {
    DA_VBDIR d;
    d.level = level;
    d.nused = 0;
    for (auto& o : d.offsets) o = -1;
    *off = -1;
    return writeall(fcb->mdfd, &d, sizeof d, off);
}

[[nodiscard]] rctype addlevel(DA_FCB* fcb, DA_VBCB* vb) {
    DA_VBHEAD& h = vb->vbhdr;
    if (h.numlevels >= DA_VBMAXLEVEL) return DA_INTERNAL;
    DA_VBDIR d;
    d.level = h.numlevels;
    d.nused = 1;
    for (auto& o : d.offsets) o = -1;
    d.offsets[0] = h.rootOffset;
    da_off_t off = -1;
    rctype rc = writeall(fcb->mdfd, &d, sizeof d, &off);
    if (rc < 0) return rc;
    int32_t oldn = h.numlevels;
    int64_t oldroot = h.rootOffset;
    h.numlevels++;
    h.rootOffset = off;
    rc = wrhead(fcb, vb);
    if (rc < 0) {
        h.numlevels = oldn;
        h.rootOffset = oldroot;
        rctype rc2 = wrhead(fcb, vb);
        if (rc2 < 0) {
            hsprint("AddNewLevel: Restore of da_vbhead_t failed: DS=%s Reason=%s\n", fcb->name, hsstrer(rc2));
            return DA_STATELOST;
        }
        return rc;
    }
    vb->vbdnode[h.numlevels - 1].offset = -1;
    vb->maxvbvnlevel <<= 10;
    return 0;
}

// AddNewBlock: records where block vbn now is.
[[nodiscard]] rctype addblock(DA_FCB* fcb, DA_VBCB* vb, int64_t vbn, da_off_t boff, int32_t slen, bool chained, bool update) {
    rctype rc = geometry(fcb, vb);
    if (rc < 0) return rc;
    DA_VBHEAD& h = vb->vbhdr;
    int64_t vbvno = vbn / h.vbvspan;
    int ic = static_cast<int>(vbn % h.vbvspan);
    DA_VBVNODE& node = vb->vbvnode;
    rc = nodebuf(vb, &node);
    if (rc < 0) return rc;
    auto setslot = [&](char* v) {
        setoff(h, v, ic, boff);
        setlen(h, v, ic, slen);
        setbit(h, v, ic, chained);
    };
    // The slot in the vector held: a new block may not take a used one.
    auto fillheld = [&]() -> rctype {
        if (!update && getoff(h, node.vbvec, ic) >= 0) {
            hsprint("AddNewBlock: VBVEC slot in use: DS=%s vbn=%lld ic=%d vecic=%d\n", fcb->name,
                    static_cast<long long>(vbn), ic, ic);
            return DA_INTERNAL;
        }
        setslot(node.vbvec);
        node.dirty = 1;
        vb->vecgen++;
        return 0;
    };
    if (node.vbvno == vbvno) return fillheld();
    while (vbvno >= vb->maxvbvnlevel) {
        rc = addlevel(fcb, vb);
        if (rc < 0) return rc;
    }
    int64_t span = vb->maxvbvnlevel / DA_VBDIRN;
    int64_t rest = vbvno;
    da_off_t off = h.rootOffset;
    for (int level = h.numlevels - 1; level >= 0; --level) {
        rc = loaddir(fcb, vb, level, off);
        if (rc < 0) return rc;
        DA_VBDNODE& dn = vb->vbdnode[level];
        int64_t index = rest / span;
        rest -= index * span;
        span /= DA_VBDIRN;
        if (level > 0) {
            if (index >= dn.dir.nused) {
                if (dn.dir.nused >= DA_VBDIRN || index != dn.dir.nused) {
                    hsprint("AddNewBlock: VBDIR overflow: DS=%s vbn=%lld level=%d\n", fcb->name,
                            static_cast<long long>(vbn), level);
                    return DA_INTERNAL;
                }
                da_off_t noff = -1;
                rc = appenddir(fcb, level - 1, &noff);
                if (rc < 0) return rc;
                dn.dir.offsets[index] = noff;
                dn.dir.nused++;
                da_off_t doff = dn.offset;
                rc = writeall(fcb->mdfd, &dn.dir, sizeof dn.dir, &doff);
                if (rc < 0) return rc;
            }
            off = dn.dir.offsets[index];
            continue;
        }
        if (index < dn.dir.nused) {
            rc = loadvec(fcb, vb, &node, dn.dir.offsets[index], vbvno);
            if (rc < 0) return rc;
            return fillheld();
        }
        if (ic != 0 || index != dn.dir.nused) {
            hsprint("AddNewBlock: Bad vecic: DS=%s vbn=%lld ic=%d vecic=%d\n", fcb->name, static_cast<long long>(vbn),
                    ic, static_cast<int>(index));
            return DA_INTERNAL;
        }
        rc = flushvec(fcb, vb);
        if (rc < 0) return rc;
        dropnode(&node);
        char* v = node.vbvec;
        memset(v, 0, h.vbvecsize);
        for (int i = 0; i < h.vbvspan; ++i) setoff(h, v, i, -1);
        int64_t none = -1;
        memcpy(v + h.vbvecsize - 8, &none, 8);
        setslot(v);
        da_off_t voff = -1;
        rc = writeall(fcb->mdfd, v, h.vbvecsize, &voff);
        if (rc < 0) return rc;
        node.offset = voff;
        node.vbvno = vbvno;
        dn.dir.offsets[index] = voff;
        dn.dir.nused++;
        da_off_t doff = dn.offset;
        rc = writeall(fcb->mdfd, &dn.dir, sizeof dn.dir, &doff);
        if (rc < 0) return rc;
        // The previous vector names this one: a sequential reader needs no walk.
        if (h.numlevels >= 2 && h.lastOffset >= 0) {
            da_off_t loff = h.lastOffset + h.vbvecsize - 8;
            rc = writeall(fcb->mdfd, &voff, 8, &loff);
            if (rc < 0) return rc;
        }
        h.lastOffset = voff;
        vb->flags |= VBHDIRTY;
        vb->vecgen++;
        return 0;
    }
    return DA_INTERNAL;
}

// A sequential cursor reads the DPF in large pieces: blocks appended in
// order follow each other, so one read serves many. *src stays null when
// the block is not served this way.
[[nodiscard]] rctype readahead(DA_FCB* fcb, DA_VBCB* vb, DA_VIOCB* vc, da_off_t off, int32_t len, const char** src) {
    if (vc->rabuf && vc->ragen == vb->gen && off >= vc->raoff && off + len <= vc->raoff + vc->ralen) {
        *src = vc->rabuf + (off - vc->raoff);
        return 0;
    }
    if (len > DA_VBREADAHEAD) return 0;
    if (!vc->rabuf) vc->rabuf = static_cast<char*>(malloc(DA_VBREADAHEAD));
    if (!vc->rabuf) return 0;
    vc->ralen = 0;
    da_off_t n = std::min<da_off_t>(DA_VBREADAHEAD, *fcb->dffd->filesize - off);
    if (n < len) return 0;
    long got = 0;
    rctype rc = fcb->dffd->fdread(fcb->dffd, vc->rabuf, static_cast<long>(n), off, &got);
    if (rc < 0) return rc;
    if (got < len) return 0;
    vc->raoff = off;
    vc->ralen = static_cast<int32_t>(got);
    vc->ragen = vb->gen;
    *src = vc->rabuf;
    return 0;
}

// GetBlock: the block's bytes, raw in the end.
[[nodiscard]] rctype vgetblock(DA_FCB* fcb, void* cur, int64_t vbn, char* raw, int32_t rawroom, int32_t* rawlen) {
    DA_VBCB* vb = fcb->vbcb;
    rctype rc = needio(fcb, vb);
    if (rc < 0) return rc;
    DA_VBVNODE* node = cur ? &static_cast<DA_VIOCB*>(cur)->node : &vb->vbvnode;
    if (node != &vb->vbvnode && (rc = nodebuf(vb, node)) < 0) return rc;
    // A cursor sharing the writers' vector saves a read.
    if (node != &vb->vbvnode && vb->vbvnode.vbvno != DA_NOVBN && vb->vbhdr.vbvspan > 0 &&
        vb->vbvnode.vbvno == vbn / vb->vbhdr.vbvspan)
        node = &vb->vbvnode;
    BlockAddr a{};
    rc = blockoffset(fcb, vb, node, vbn, &a);
    if (rc != 0) return rc;
    int32_t im = fcb->xcext->iomaxbuf;
    // Unconverted bytes may go straight to the caller's buffer.
    char* dst = a.compressed ? vb->iobuf : raw;
    int32_t room = a.compressed ? vb->iobufsize : rawroom;
    int32_t total = 0;
    const char* src = nullptr;
    auto* vc = static_cast<DA_VIOCB*>(cur);
    if (!a.chained && a.compressed && vc && vc->seq) {
        rc = readahead(fcb, vb, vc, a.offset, a.nalloc, &src);
        if (rc < 0) return rc;
        total = a.nalloc;
    }
    if (!src && !a.chained) {
        if (a.nalloc > room) return DA_INTERNAL;
        rc = readall(fcb->dffd, dst, a.nalloc, a.offset);
        if (rc < 0) return rc;
        total = a.nalloc;
    } else if (!src) {
        da_off_t off = a.offset;
        int32_t nalloc = a.nalloc;
        for (int pieces = 0;; ++pieces) {
            DA_VBFIX fx;
            rc = readall(fcb->dffd, &fx, sizeof fx, off);
            if (rc < 0) return rc;
            int32_t nu = fx.nused < 0 ? -fx.nused : fx.nused;
            if (nu > nalloc - 16 || total + nu > std::max(im, rawroom) || total + nu > room || pieces > 1 << 20) {
                hsprint("GetBlock: Bad chain: DS=%s VBN=%lld\n", fcb->name, static_cast<long long>(vbn));
                return DA_INTERNAL;
            }
            rc = readall(fcb->dffd, dst + total, nu, off + 16);
            if (rc < 0) return rc;
            total += nu;
            if (fx.nused < 0 || fx.offset < 0) break;
            off = fx.offset;
            DA_VBFIX nx;
            rc = readall(fcb->dffd, &nx, sizeof nx, off);
            if (rc < 0) return rc;
            nalloc = nx.nalloc;
        }
    }
    int32_t rl = total;
    if (a.compressed) {
        rl = rawroom;
        rc = daxcunconvert(fcb->xcext, vbn, src ? src : vb->iobuf, total, raw, &rl);
        if (rc < 0) return rc;
    }
    if (vb->obslen <= 0 || rl % vb->obslen != 0) {
        hsprint("GetBlock: Bad length: DS=%s VBN=%d Obslen=%d Blocklen=%d\n", fcb->name, static_cast<int>(vbn),
                vb->obslen, rl);
        return DA_INTERNAL;
    }
    *rawlen = rl;
    return 0;
}

// PutBlock: converts and writes a block, recording where it went.
[[nodiscard]] rctype vputblock(DA_FCB* fcb, DA_BLOCK* blk) {
    DA_VBCB* vb = fcb->vbcb;
    if (blk->numobs <= 0) return 0;
    rctype rc = needio(fcb, vb);
    if (rc == 0) rc = geometry(fcb, vb);
    if (rc < 0) return rc;
    int32_t rawlen = blk->numobs * vb->obslen;
    int iolen = 0;
    rc = daxcconvert(fcb->xcext, blk->vbn, blk->blockbuf, rawlen, vb->iobuf + 16, &iolen, true);
    if (rc < 0) return rc;
    bool compressed = rc == 0;
    const char* data = compressed ? vb->iobuf + 16 : blk->blockbuf;
    int32_t len = compressed ? iolen : rawlen;
    int32_t im = fcb->xcext->iomaxbuf;
    int32_t grow = std::max(0, fcb->xoe.blockgrow);
    auto sgn = [&](int32_t n) { return compressed ? n : -n; };

    auto tonew = [&](bool update) -> rctype {
        da_off_t off = -1;
        if (compressed && grow > 0) {
            int32_t nalloc = std::min(im, len + grow) + 16;
            if (nalloc < len + 16) nalloc = len + 16;
            std::vector<char> buf(nalloc, 0);
            DA_VBFIX fx{-1, nalloc, -len};
            memcpy(buf.data(), &fx, 16);
            memcpy(buf.data() + 16, data, len);
            rctype r = writeall(fcb->dffd, buf.data(), nalloc, &off);
            if (r < 0) return r;
            blk->blockOffset = off;
            return addblock(fcb, vb, blk->vbn, off, sgn(nalloc), true, update);
        }
        rctype r = writeall(fcb->dffd, data, len, &off);
        if (r < 0) return r;
        blk->blockOffset = off;
        return addblock(fcb, vb, blk->vbn, off, sgn(len), false, update);
    };

    if (vb->maxvbn == DA_NOVBN || blk->vbn > vb->maxvbn) return tonew(false);

    BlockAddr a{};
    rc = blockoffset(fcb, vb, &vb->vbvnode, blk->vbn, &a);
    if (rc == DA_EOF) return tonew(false);
    if (rc < 0) return rc;
    // A block may hold rows already committed, so it is rewritten where it
    // is only by one write that leaves its vector entry as it stands: a
    // power loss then keeps either the old block or the new one, each whole
    // and read the same way. Anything else (another length, another form,
    // a chain of pieces) goes to a new place; the vector names it only once
    // the block is on disk, and until then the old place stays readable.
    if (a.compressed == compressed && !a.chained && a.nalloc == len) {
        da_off_t off = a.offset;
        rc = writeall(fcb->dffd, data, len, &off);
        if (rc < 0) return rc;
        blk->blockOffset = a.offset;
        return 0;
    }
    if (a.compressed == compressed && a.chained && len + 16 <= a.nalloc) {
        DA_VBFIX head;
        rc = readall(fcb->dffd, &head, sizeof head, a.offset);
        if (rc < 0) return rc;
        if (head.offset < 0) {
            std::vector<char> buf(16 + len);
            DA_VBFIX fx{-1, a.nalloc, -len};
            memcpy(buf.data(), &fx, 16);
            memcpy(buf.data() + 16, data, len);
            da_off_t off = a.offset;
            rc = writeall(fcb->dffd, buf.data(), static_cast<long>(buf.size()), &off);
            if (rc < 0) return rc;
            blk->blockOffset = a.offset;
            return 0;
        }
    }
    return tonew(true);
}

const DA_BKOPS vops = {vgetblock, vputblock};

void setmax(DA_FCB* fcb, DA_VBCB* vb) {
    hs_obsno_t n = fcb->xoe.numobs;
    int32_t bf = fcb->xoe.blockfactor;
    vb->maxvbn = (n < 1 || bf <= 0) ? DA_NOVBN : (n - 1) / bf;
}

DA_VBCB* newvbcb(DA_FCB* fcb) {
    auto* vb = static_cast<DA_VBCB*>(calloc(1, sizeof(DA_VBCB)));
    if (!vb) return nullptr;
    if (dabkinit(fcb, vb, &vops) < 0) {
        free(vb);
        return nullptr;
    }
    dropnode(&vb->vbvnode);
    for (auto& d : vb->vbdnode) d.offset = -1;
    return vb;
}

void freevbcb(DA_VBCB* vb) {
    dabkfree(vb);
    free(vb->iobuf);
    free(vb->vbvnode.vbvec);
    free(vb);
}

[[nodiscard]] rctype loadhead(DA_FCB* fcb, DA_VBCB* vb) {
    da_off_t off = fcb->dshdr.links[DA_LNKVBH];
    if (off < 0) return DA_INTERNAL;
    rctype rc = dardvbh(fcb->mdfio, &vb->vbhdr, off);
    if (rc < 0) return rc;
    DA_VBHEAD& h = vb->vbhdr;
    if (h.numlevels < 1 || h.numlevels > DA_VBMAXLEVEL) return DA_INTERNAL;
    // The vector's size follows from its span and type; a table with rows
    // has it. Anything else would index vectors past their buffer.
    bool geom = h.vbvecsize > 0 || fcb->xoe.numobs > 0;
    if ((h.vbvtype != DA_VBVSHORT && h.vbvtype != DA_VBVINT32) || h.vbvspan < 32 || h.vbvspan > 2048 ||
        h.vbvspan % 32 != 0 || (geom && h.vbvecsize != vecsize(h.vbvspan, h.vbvtype))) {
        hsprint("dalvbcb: Damaged block vector head: DS=%s vbvspan=%d vbvtype=%d vbvecsize=%d Reason=%s\n", fcb->name,
                h.vbvspan, h.vbvtype, h.vbvecsize, hsstrer(DA_INTERNAL));
        return DA_INTERNAL;
    }
    vb->maxvbvnlevel = 1;
    for (int i = 0; i < h.numlevels; ++i) vb->maxvbvnlevel *= DA_VBDIRN;
    for (auto& d : vb->vbdnode) d.offset = -1;
    rc = loaddir(fcb, vb, h.numlevels - 1, h.rootOffset);
    if (rc < 0) return rc;
    fcb->vbvspan = h.vbvspan;
    setmax(fcb, vb);
    return 0;
}

void freecur(void* p) {
    auto* c = static_cast<DA_VIOCB*>(p);
    free(c->node.vbvec);
    free(c->rabuf);
    free(c);
}

}  // namespace

[[nodiscard]] rctype daivbcb(DA_FCB* fcb) {
    DA_VBCB* vb = newvbcb(fcb);
    if (!vb) return DA_NOMEM;
    DA_VBHEAD& h = vb->vbhdr;
    dainitvbh(&h);
    // The span is settled once the columns give the row length.
    h.vbvspan = 32;
    h.vbvecsize = 0;
    h.numlevels = 1;
    h.stat.minovflsize = 0x7fffffff;
    da_off_t off = -1;
    rctype rc = appenddir(fcb, 0, &off);
    if (rc == 0) {
        h.rootOffset = off;
        rc = wrhead(fcb, vb);
    }
    if (rc < 0) {
        freevbcb(vb);
        return rc;
    }
    vb->maxvbvnlevel = DA_VBDIRN;
    fcb->vbcb = vb;
    return 0;
}

[[nodiscard]] rctype dalvbcb(DA_FCB* fcb) {
    DA_VBCB* vb = newvbcb(fcb);
    if (!vb) return DA_NOMEM;
    rctype rc = loadhead(fcb, vb);
    if (rc < 0) {
        freevbcb(vb);
        return rc;
    }
    fcb->vbcb = vb;
    return 0;
}

[[nodiscard]] rctype daflvbcb(DA_FCB* fcb) {
    DA_VBCB* vb = fcb->vbcb;
    if (!vb) return 0;
    mutex_lock(&vb->lock);
    rctype rc = dabkflush(fcb, vb, "daflvbcb");
    if (rc == 0) {
        rc = flushvec(fcb, vb);
        if (rc < 0) hsprint("daflvbcb: Unable to flush VBVEC on %s: Reason=%s\n", fcb->name, hsstrer(rc));
    }
    if (rc == 0 && (vb->flags & VBHDIRTY)) {
        rc = wrhead(fcb, vb);
        if (rc < 0) hsprint("daflvbcb: Unable to flush VBHEAD on %s Reason=%s\n", fcb->name, hsstrer(rc));
    }
    mutex_unlock(&vb->lock);
    if (rc == 0 && (fcb->flags & (DA_FCBXOE | DA_FCBDSHDR))) {
        rc = daflfcb(fcb);
        if (rc < 0) hsprint("daflvbcb: Unable to flush XOEHEAD on %s: Reason=%s\n", fcb->name, hsstrer(rc));
    }
    return rc;
}

[[nodiscard]] rctype dafvbcb(DA_FCB* fcb) {
    DA_VBCB* vb = fcb->vbcb;
    if (!vb) return 0;
    rctype rc = 0;
    if (fcb->mode != DA_OMINPUT) rc = daflvbcb(fcb);
    freevbcb(vb);
    fcb->vbcb = nullptr;
    return rc;
}

[[nodiscard]] rctype darfvbcb(DA_FCB* fcb) {
    DA_VBCB* vb = fcb->vbcb;
    if (!vb) return 0;
    mutex_lock(&vb->lock);
    dropnode(&vb->vbvnode);
    dabkstale(vb);
    vb->vecgen++;
    rctype rc = loadhead(fcb, vb);
    mutex_unlock(&vb->lock);
    return rc;
}

[[nodiscard]] rctype davgioc(DA_FID* fp, int iom, DA_IOCB** iocb) {
    DA_FCB* fcb = fcbof(fp);
    if (!fcb->vbcb || !fcb->xcext) return DA_INTERNAL;
    auto* cur = static_cast<DA_VIOCB*>(calloc(1, sizeof(DA_VIOCB)));
    if (!cur) return DA_NOMEM;
    dropnode(&cur->node);
    cur->seq = !(iom & DA_IOMRANDOM);
    rctype rc = dabkgioc(fp, iom, fcb->vbcb, cur, freecur, iocb);
    if (rc < 0) freecur(cur);
    return rc;
}

}  // namespace vrta
