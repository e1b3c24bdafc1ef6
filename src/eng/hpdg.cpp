// Row reads: the first read starts a stream of row blocks on the table's
// data port (or points the direct path's cursor at the first row), and a
// few small entries then hand out one row after another by moving a pointer
// in the block. The host calls through fast->getn, which each entry patches
// to the one that serves the next row, so that a row in the middle of a
// block costs a call and a subtraction.
#include <byteswap.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdo.h"
#include "eng/hpdutl.h"
#include "hs/hs.h"
#include "ssup/xp.h"
#include "vrta/directapi.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;

hpddcb D(void* fid) { return static_cast<hpddcb>(fid); }

int native(const hpddcb dcb) { return hpdostag(dcb->lib->server->osname)->native; }

// The data port failed: it is closed, the read is over, and the host gets
// no part of the block.
rctype portlost(hpddcb dcb, const char* why) {
    if (why) xrmksub(1, why, -1);
    xpmlog(MSGGRP, 75);
    if (dcb->dopen) {
        dcb->dopen->eof = 1;
        hpdsofree(dcb->dopen);
        dcb->dopen = nullptr;
    }
    dcb->eof = 1;
    dcb->obsnum = 0;
    dcb->fast->getn = dcb->getnc;
    return HPD_RC_FAIL;
}

// The end of the rows: nothing more is read until the table is pointed or
// reopened.
rctype endrows(hpddcb dcb) {
    dcb->eof = 1;
    dcb->obsnum = 0;
    dcb->fast->getn = dcb->getnc;
    return HPO_RC_EOF;
}

// Reads the next block of rows of rowsz bytes from the data port: the rows
// lie at reca, obsnum of them; 0 rows at the end of the stream.
rctype readblock(hpddcb dcb, long rowsz) {
    YXSOCK_OPEN* so = dcb->dopen;
    if (!so) return portlost(dcb, "the data port is not open");
    int fd = yxsfd(so);
    // 1.
    if (!dcb->eof && dcb->syncread) {
        char zero = 0;
        if (hpcwrit(fd, &zero, 1, so->gcb) != 0) return portlost(dcb, "the data port closed");
    }
    // 2, 3.
    int32_t len;
    if (hpcread(fd, &len, 4, so->brk, so->gcb, 1, &so->fds) != 0)
        return portlost(dcb, "the data port closed before the next block");
    if (dcb->swap) len = static_cast<int32_t>(bswap_32(static_cast<uint32_t>(len)));
    bool plain = len < 0;
    // The plain flag is the sign; a length past the block buffer is no block
    // this open asked for.
    long n = plain ? -static_cast<long>(len) : len;
    if (n > dcb->recordl) {
        char t[96];
        std::snprintf(t, sizeof t, "a block of %d bytes came where %ld at most were expected", len, dcb->recordl);
        return portlost(dcb, t);
    }
    if (rctype rc = hpdgrow(so, n); rc) return rc;
    if (n > 0 && hpcread(fd, so->reca, static_cast<int>(n), so->brk, so->gcb, 1, &so->fds) != 0)
        return portlost(dcb, "the data port closed inside a block");
    // 4.
    if (!plain && n > 0) {
        int got = dcb->comprtn ? dcb->comprtn(1, dcb->recordc, so->reca, static_cast<int>(dcb->recordl),
                                              static_cast<int>(n))
                               : -1;
        if (got < 0) {
            xpslog("%1z-Error from decompression routine");
            return portlost(dcb, "a compressed block does not decode");
        }
        n = got;
        dcb->reca = dcb->recordc;
    } else {
        dcb->reca = static_cast<char*>(so->reca);
    }
    // 5. A remainder shorter than a row is no row.
    dcb->obsnum = n / rowsz;
    dcb->highobs += dcb->obsnum;
    return 0;
}

// 6. The stream has no more rows: the server is told, or the port closed.
rctype streamend(hpddcb dcb) {
    if (dcb->dopen && !dcb->syncread) {
        hpdsofree(dcb->dopen);
        dcb->dopen = nullptr;
    } else if (dcb->dopen && !dcb->rewind) {
        char one = 1;
        hpcwrit(yxsfd(dcb->dopen), &one, 1, dcb->dopen->gcb);  // a dead port needs no telling
        dcb->rewind = 1;
    }
    return endrows(dcb);
}

// The first row of the block just read (step 8): the entry that serves
// the rest of the block takes it, and puts the between-blocks entry back
// after the last row.
rctype firstrow(hpddcb dcb, void** recptr, hpgetfn inblock) {
    dcb->fast->getn = inblock;
    return inblock(dcb, recptr);
}

// The projected columns of a row of the table, packed into out.
void project(const hpddcb dcb, const char* row, char* out) {
    for (int i = 0; i < dcb->nproj; ++i) {
        std::memcpy(out, row + dcb->projpos[i], dcb->projlen[i]);
        out += dcb->projlen[i];
    }
}

// The direct path, block by block: reads the next block when this one is
// used up, and hands out the row. Rows past the last one asked for are cut
// from the block when it is read, so that the entries below need no test
// of the end per row; a projection builds its row here.
[[gnu::noinline]] rctype directrow(hpddcb dcb, void* iocb, void** recptr, bool withnumbers) {
    if (dcb->obsnum == 0) {
        // Row numbers only grow: past the end asked for, nothing is read.
        if (dcb->endobs > 0 && dcb->pos >= dcb->endobs) return endrows(dcb);
        long n = 0;
        void* p = nullptr;
        int64_t* ov = nullptr;
        int rc = spreadv(iocb, &n, &p, &ov);
        if (rc < 0) {
            char t[512];
            vrtaerrtext(rc, t, sizeof t);
            char m[600];
            std::snprintf(m, sizeof m, "Error from spreadv-%s", t);
            xpslog("%s", m);
            xrmksub(1, m, -1);
            return HPD_RC_FAIL;
        }
        if (n <= 0) return endrows(dcb);
        dcb->highobs += n;
        dcb->obsvec = withnumbers ? ov : nullptr;
        if (dcb->endobs > 0) {
            if (dcb->obsvec) {
                while (n > 0 && dcb->obsvec[n - 1] > dcb->endobs) --n;
            } else {
                n = static_cast<long>(std::min<int64_t>(n, dcb->endobs - dcb->pos));
            }
            if (n <= 0) return endrows(dcb);
        }
        dcb->obsnum = dcb->numob = n;
        dcb->reca = static_cast<char*>(p);
    }
    char* row = dcb->reca;
    dcb->pos = dcb->obsvec ? dcb->obsvec[dcb->numob - dcb->obsnum] : dcb->pos + 1;
    dcb->reca += dcb->rowlen;
    dcb->obsnum -= 1;
    dcb->obs += 1;
    dcb->recno += 1;
    if (dcb->nproj > 0) {
        project(dcb, row, dcb->recordr);
        row = dcb->recordr;
    }
    *recptr = row;
    return 0;
}

// A row of the block in hand, whole: the common case on the direct path,
// a pointer moved and a few counts, with no call below.
template <bool withnumbers>
inline bool directnext(hpddcb dcb, void** recptr) {
    if (dcb->obsnum <= 0 || dcb->nproj > 0) [[unlikely]]
        return false;
    *recptr = dcb->reca;
    if (withnumbers && dcb->obsvec) dcb->pos = dcb->obsvec[dcb->numob - dcb->obsnum];
    else dcb->pos += 1;
    dcb->reca += dcb->rowlen;
    dcb->obsnum -= 1;
    dcb->obs += 1;
    dcb->recno += 1;
    return true;
}

}  // namespace

rctype hpogterm(hpddcb dcb) {
    rctype rc = 0;
    if (dcb->getstart && !dcb->eof && dcb->sopen && !dcb->sopen->eof) {
        DS_YOEGET_TERM q{dcb->openid};
        if (hpdsend(dcb->sopen, DSM_YOEGET_TERM, native(dcb), dcb->lib->level, &DS_OPENID_D, &q) != 0) {
            dcb->sopen->eof = 1;
            xpmlog(MSGGRP, 75);
            rc = HPD_RC_FAIL;
        }
    }
    if (dcb->dopen) hpdsofree(dcb->dopen);
    dcb->dopen = nullptr;
    dcb->getstart = 0;
    dcb->eof = 0;
    dcb->rewind = 0;
    dcb->obsnum = 0;
    dcb->obs = dcb->pos = dcb->recno = dcb->highobs = 0;
    dcb->getfirst = dcb->firstobs;
    if (dcb->fast) dcb->fast->getn = dcb->getnc;
    return rc;
}

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpgetnc(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    // 1.
    if (dcb->eof) return HPO_RC_EOF;
    if (!dcb->lib || !dcb->sopen || dcb->sopen->eof) return hpderrtxt(MSGGRP, 79);
    // 2.
    if (dcb->resync) resync(dcb, 1);
    // 3. A WHERE clause would be sent here; this engine sets none yet.
    // 4. The direct path: the cursor goes to the first row and the fast
    // entry stays on the one that reads it, block by block.
    dcb->obs = 0;
    dcb->pos = dcb->getfirst - 1;
    dcb->obsnum = 0;
    if (dcb->pnt && dcb->iocb && !dcb->keep) {
        if (int rc = spsetloc(dcb->iocb, dcb->getfirst); rc < 0) {
            char t[512], m[600];
            vrtaerrtext(rc, t, sizeof t);
            std::snprintf(m, sizeof m, "Error from spreadv-%s", t);
            xrmksub(1, m, -1);
            return HPD_RC_FAIL;
        }
        dcb->getstart = 1;
        dcb->fast->getn = dcb->getnfs;
        return dcb->getnfs(dcb, recptr);
    }
    // 5.
    if (!dcb->dopen) {
        if (rctype rc = hpocsrv(dcb, dcb->portno); rc) return rc;
    }
    // 6.
    DS_YOEGET_START q{};
    q.openid = dcb->openid;
    unsigned char cols[4 * 1024];
    int np = std::min(dcb->nproj, 1024);
    for (int i = 0; i < np; ++i) hpdput4(cols + 4 * i, dcb->cols[i]);
    q.nvar0 = reinterpret_cast<const char*>(cols);
    q.nvarlen = 4 * np;
    q.firstobs = dcb->getfirst;
    q.flags = (dcb->syncread ? 1 : 0) | (dcb->seqwhere ? 2 : 0) | (dcb->nobyindex ? 4 : 0);
    q.epos = dcb->endobs;
    char parr[8];
    int parrl = 0;
    char n8[8] = {'V', 'R', 'T', 'A', 'P', 'A', 'R', 'R'};
    if (q.epos <= 1 && hpogmac(dcb->mactbl, n8, parr, sizeof parr - 1, &parrl) == 0 && parrl == 3 &&
        std::memcmp(parr, "YES", 3) == 0)
        q.epos = -1;
    int nat = native(dcb);
    if (hpdsend(dcb->sopen, DSM_YOEGET_START, nat, dcb->lib->level, &DS_YOEGET_START_D, &q) != 0) {
        dcb->sopen->eof = 1;
        xpmlog(MSGGRP, 75);
        return HPD_RC_FAIL;
    }
    dcb->getstart = 1;
    dcb->rewind = 0;
    // 7, 8.
    DS_HDR_REPLY h;
    HPD_RCTX c{dcb->name, static_cast<int>(strnlen(dcb->name, 32)), dcb->lib->server->osname};
    if (rctype rc = hpdnext(dcb->sopen, nat, dcb->lib->level, &h, &c); rc) return rc;
    DS_YOEGET_START_REPLY_452 r{};
    YXSOCK_OPEN* so = dcb->sopen;
    if (dsparse(r, dcb->lib->level, static_cast<const unsigned char*>(so->reca), so->recl) != 0) {
        so->eof = 1;
        return HPD_RC_FAIL;
    }
    if (dcb->wheremsg && r.treel > 0) xpslog("%s", std::string(r.tree, r.treel).c_str());
    hpdrmsg(h.rclass, r.msg, r.msglen);
    if (h.rcode == 1284) return streamend(dcb);  // a success without rows
    // 9.
    if (rctype rc = readblock(dcb, dcb->reclen); rc) return rc;
    if (dcb->obsnum == 0) return streamend(dcb);
    return firstrow(dcb, recptr, dcb->point ? dcb->getnfr : dcb->getnf);
}

extern "C" rctype hpgetbc(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    if (dcb->eof) return HPO_RC_EOF;
    if (rctype rc = readblock(dcb, dcb->reclen); rc) return rc;
    if (dcb->obsnum == 0) return streamend(dcb);
    return firstrow(dcb, recptr, dcb->getnf);
}

extern "C" rctype hpgtbrc(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    if (dcb->eof) return HPO_RC_EOF;
    if (rctype rc = readblock(dcb, dcb->reclen + 8L); rc) return rc;
    if (dcb->obsnum == 0) return streamend(dcb);
    return firstrow(dcb, recptr, dcb->getnfr);
}

extern "C" rctype hpgetnf(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    dcb->obs += 1;
    *recptr = dcb->reca;
    dcb->reca += dcb->reclen;
    dcb->pos = dcb->obs;
    dcb->recno += 1;
    dcb->getrpos = 0;
    if (--dcb->obsnum == 0) dcb->fast->getn = dcb->getnbc;
    return 0;
}

extern "C" rctype hpgetfr(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    int64_t id;
    std::memcpy(&id, dcb->reca, 8);
    if (dcb->swap) id = static_cast<int64_t>(bswap_64(static_cast<uint64_t>(id)));
    rctype rc = 0;
    // A negative id marks a row another user holds: it is handed out all
    // the same, with a warning (or, for a reader that wants to know, a failure).
    if (id < 0 && !dcb->norec) {
        id = -id;
        rc = HPO_RC_HELD;
        if (!dcb->verbose && dcb->shrflag2) {
            xrmksub(3, "UPDATE  ", 8, dcb->name, 32, "conflicting use", -1);
            rc = HPD_RC_INUSE;
        }
    }
    dcb->pos = id;
    *recptr = dcb->reca + 8;
    dcb->reca += dcb->reclen + 8;
    dcb->obs += 1;
    dcb->recno += 1;
    if (--dcb->obsnum == 0) {
        if (dcb->numobs > 0) {
            dcb->fast->getn = dcb->getnbrc;
        } else {
            dcb->n.flag = 4;
            dcb->n.pos = dcb->pos;
            dcb->fast->getn = dcb->getnbrc;
        }
    } else {
        dcb->fast->getn = dcb->getnfr;
    }
    return rc;
}

extern "C" rctype hpgetfd(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    return directnext<true>(dcb, recptr) ? 0 : directrow(dcb, dcb->iocb, recptr, true);
}

extern "C" rctype hpgetfs(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    return directnext<false>(dcb, recptr) ? 0 : directrow(dcb, dcb->iocb, recptr, false);
}

extern "C" rctype hpgtwfd(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    return directnext<true>(dcb, recptr) ? 0 : directrow(dcb, dcb->wiocb, recptr, true);
}

extern "C" rctype hpgtwfs(void* fid, void** recptr) {
    hpddcb dcb = D(fid);
    return directnext<false>(dcb, recptr) ? 0 : directrow(dcb, dcb->wiocb, recptr, false);
}
