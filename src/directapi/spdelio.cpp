// Deleting rows through the direct access API. A row leaves the table and
// every index together, and a table that tracks its changes gets a backup row
// for each deletion.
//
// Every index is opened for update, and so marked dirty on disk, before the
// first row goes, and is marked clean again only after the table's deletions
// are on disk and the index has taken them all: a process that dies on the
// way leaves indexes to be rebuilt, never clean and wrong. An index that was
// already left unfinished stays so, untouched.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "ix/ixfe.h"
#include "sda/daidx.h"
#include "sda/darc.h"
#include "sda/daods.h"

using namespace vrta;

namespace {

constexpr int SP_IOMDELREAD = DA_IOMREAD | DA_IOMRANDOM | DA_IOMBYROW | DA_IOMLIVE;  // 281
constexpr int SP_IOMBACKUP = DA_IOMREAD | DA_IOMSEQ | DA_IOMBYROW;
constexpr rctype SP_IXREQ = static_cast<rctype>(0x8000050fu);  // the index request failed

struct SP_IX {
    IX_FILE_T* fp;
    char name[33];
    rctype rc;
};

struct SP_DC {
    SP_FID* spfid;
    DA_XOEODS* xoehdr;
    DA_IOCB* iocb;
    DA_IOB iob;
    char* obsbuf;
    int nindexes;
    int interrupt;
    int maxthreads;
    int flags;           // 1: rows are read before they go (indexes or backup need them)
    DA_IOCB* bkiocb;     // appends backup rows
    DA_IOB bkiob;
    char* bkbuf;
    SP_IX* ixfiles;      // the indexes kept in step
    int nopen;
    int64_t ndeleted;    // rows gone from the table
};

// Now as a datetime: seconds since 1 January 1960.
double hsdttme() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + 315619200.0 + ts.tv_nsec / 1e9;
}

bool dynamic(const SP_FID* s) { return (s->dafid->fidflags & DA_FIDDYNAMIC) != 0; }

// Files the failure of one step of a deletion and returns the wrapped code.
rctype DeleteError(SP_DC* dc, hs_obsno_t obsnum, const char* oper, rctype rc) {
    char text[512];
    const u_sname& m = dc->spfid->dsname;
    std::snprintf(text, sizeof text, "Error deleting row %lld: Member=%.*s Operation=%s Reason=%s",
                  static_cast<long long>(obsnum), m.len, m.name, oper, hsstrer(rc));
    hsprint("%s\n", text);
    return spmkerr(m.name, m.len, rc);
}

rctype IndexDeleteError(SP_DC* dc, hs_obsno_t obsnum, const SP_IX& ix, const char* oper, rctype rc) {
    char text[512];
    const u_sname& m = dc->spfid->dsname;
    std::snprintf(text, sizeof text, "Index error deleting row %lld: Member=%.*s Index=%s Operation=%s Reason=%s",
                  static_cast<long long>(obsnum), m.len, m.name, ix.name, oper, hsstrer(rc));
    hsprint("%s\n", text);
    return spmkerr(m.name, m.len, rc);
}

// A failure to finish or abort an index, worded with the operation's name.
void IndexError(SP_DC* dc, const SP_IX& ix, const char* oper, rctype rc) {
    const u_sname& m = dc->spfid->dsname;
    hsprint("Index error: Member=%.*s Index=%s Operation=%s Reason=%s\n", m.len, m.name, ix.name, oper, hsstrer(rc));
}

// Every index of the table opened for update. One that was left unfinished
// (or needs a repair) is left as it is, marked for rebuild; one of a kind
// that takes no changes refuses the deletion.
rctype openindexes(SP_DC* dc) {
    DA_FID* fp = dc->spfid->dafid;
    std::vector<std::string> names;
    for (DA_ICB* icb = static_cast<DA_ICB*>(fcbof(fp)->icbs); icb; icb = icb->next) {
        if (!(icb->kstr.keyflags & DA_IDXFHBX)) return SP_IXREQ;
        names.emplace_back(icb->kstr.name, static_cast<size_t>(icb->kstr.name_l));
    }
    dc->ixfiles = static_cast<SP_IX*>(std::calloc(names.size() + 1, sizeof(SP_IX)));
    if (!dc->ixfiles) return SP_NOMEM;
    for (const std::string& n : names) {
        IX_FILE_T* f = nullptr;
        rctype rc = ixappnd(fp, n.c_str(), 0, &dc->interrupt, dc->maxthreads, &f);
        if (rc == IX_NEEDREPAIR || rc == IX_NOREPAIR) continue;
        if (rc < 0) return rc;
        if (rc == IX_LEFTDIRTY) {
            // Its contents can't be vouched for: it stays dirty, to be rebuilt.
            rc = f->fp.abort(f);
            if (rc < 0) return rc;
            continue;
        }
        SP_IX& x = dc->ixfiles[dc->nopen++];
        x.fp = f;
        std::snprintf(x.name, sizeof x.name, "%s", n.c_str());
    }
    // The dirty marks reach the disk before any row goes.
    return dc->nopen > 0 ? fp->mt->force(fp, 0) : 0;
}

// The backup row: the row as it was, with the time, its number and the
// deleted mark in the table's last three columns.
rctype UpdateBackup(SP_DC* dc, hs_obsno_t obsnum) {
    DA_FID* fp = dc->spfid->dafid;
    int nv = fp->numvar;
    if (nv < 3 || !dc->bkiocb) return DA_BADARG;
    const DA_NAMESTR* v = fp->vars;
    int32_t obslen = dc->xoehdr->ioreclen;
    std::memcpy(dc->bkbuf, dc->obsbuf, obslen);
    const DA_NAMESTR &t = v[nv - 3], &o = v[nv - 2], &d = v[nv - 1];
    if (t.nlng != 8 || o.nlng != 8 || d.nlng != 1) return DA_BADARG;
    double now = hsdttme();
    double on = static_cast<double>(obsnum);
    std::memcpy(dc->bkbuf + t.npos, &now, 8);
    std::memcpy(dc->bkbuf + o.npos, &on, 8);
    dc->bkbuf[d.npos] = 1;
    dc->bkiob.bufptr = dc->bkbuf;
    dc->bkiob.numobs = 1;
    return dc->bkiocb->mt->dawritev(dc->bkiocb, 1);
}

}  // namespace

extern "C" {

int spfreedel(void* vdcp, int abort) {
    auto* dc = static_cast<SP_DC*>(vdcp);
    if (!dc) return DA_BADARG;
    rctype rc = 0;
    if (dc->nopen > 0) {
        DA_FID* fp = dc->spfid->dafid;
        // With no row gone there is nothing to undo: the indexes are finished as they were.
        if (dc->ndeleted == 0) abort = 0;
        // The table's deletions on disk first: an index is clean only behind them.
        if (!abort && (rc = fp->mt->force(fp, 0)) < 0) abort = 1;
        for (int i = 0; i < dc->nopen; ++i) {
            SP_IX& x = dc->ixfiles[i];
            x.rc = abort ? x.fp->fp.abort(x.fp) : x.fp->fp.finish(x.fp);
            if (x.rc < 0) {
                IndexError(dc, x, abort ? "IXABORT" : "IXFINISH", x.rc);
                if (rc >= 0) rc = x.rc;
            }
        }
    }
    std::free(dc->ixfiles);
    if (dc->iocb) {
        rctype irc = dc->iocb->mt->freeiocb(dc->iocb);
        if (rc >= 0 && irc < 0) rc = irc;
    }
    if (dc->bkiocb) {
        rctype brc = dc->bkiocb->mt->freeiocb(dc->bkiocb);
        if (rc >= 0 && brc < 0) rc = brc;
    }
    std::free(dc->obsbuf);
    std::free(dc->bkbuf);
    std::free(dc);
    return rc;
}

int spnewdel(void* vfid, void** newdcp) {
    if (!newdcp) return DA_BADARG;
    *newdcp = nullptr;
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !s->dafid->xoehdr) return DA_BADARG;
    if (s->opnmode != DA_OMUPDATE) return DA_BADARG;
    auto* dc = static_cast<SP_DC*>(std::calloc(1, sizeof(SP_DC)));
    if (!dc) return SP_NOMEM;
    dc->spfid = s;
    dc->xoehdr = s->dafid->xoehdr;
    dc->maxthreads = 1;
    dc->nindexes = dc->xoehdr->nindexes;
    int32_t obslen = dc->xoehdr->ioreclen;
    bool backup = (dc->xoehdr->flags & DA_XOEBACKUP) != 0;
    rctype rc = 0;
    if (dc->nindexes > 0 || backup) {
        dc->flags = 1;
        dc->obsbuf = static_cast<char*>(std::malloc(obslen));
        if (!dc->obsbuf) rc = SP_NOMEM;
    }
    if (!rc && dc->flags) {
        rc = getiocb(s->dafid, SP_IOMDELREAD, &dc->iocb);
        if (!rc) {
            dc->iob.bufptr = dc->obsbuf;
            dc->iob.locator = -1;
            rc = dc->iocb->mt->setbuf(dc->iocb, &dc->iob, obslen);
        }
    }
    if (!rc && backup) {
        dc->bkbuf = static_cast<char*>(std::malloc(obslen));
        if (!dc->bkbuf) rc = SP_NOMEM;
        if (!rc) rc = getiocb(s->dafid, SP_IOMBACKUP, &dc->bkiocb);
        if (!rc) {
            dc->bkiob.bufptr = dc->bkbuf;
            dc->bkiob.locator = -1;
            rc = dc->bkiocb->mt->setbuf(dc->bkiocb, &dc->bkiob, obslen);
        }
        if (!rc) rc = dc->bkiocb->mt->setloc(dc->bkiocb, dc->xoehdr->numobs + 1);
    }
    if (!rc && dc->nindexes > 0) {
        bool dyn = dynamic(s);
        rc = dyn ? s->dafid->mt->setshare(s->dafid, DA_SHRUPDATE) : 0;
        if (!rc) {
            rc = openindexes(dc);
            if (dyn) {
                rctype crc = s->dafid->mt->setshare(s->dafid, DA_SHRCLEAR);
                if (!rc) rc = crc;
            }
        }
    }
    if (rc < 0) {
        daignore(spfreedel(dc, 1));
        return spmkerr(s->dsname.name, s->dsname.len, rc);
    }
    *newdcp = dc;
    return 0;
}

int spdelobs(void* vdcp, int64_t obsnum) {
    auto* dc = static_cast<SP_DC*>(vdcp);
    if (!dc || obsnum < 1) return DA_BADARG;
    DA_FID* fp = dc->spfid->dafid;
    bool dyn = dynamic(dc->spfid);
    rctype rc = dyn ? fp->mt->setshare(fp, DA_SHRUPDATE) : 0;
    if (rc < 0) return DeleteError(dc, obsnum, "SETSHARE", rc);
    if (dc->flags & 1) {
        dc->iob.locator = obsnum;
        rc = dc->iocb->mt->dareadv(dc->iocb, 1);
        dc->iob.locator = -1;
        // A row that is already gone reads as the next live one, or not at all.
        if (rc >= 0 && (dc->iob.numobs < 1 || dc->iocb->curobs - 1 != obsnum)) rc = DA_NOTFOUND;
        if (rc < 0) {
            if (dyn) daignore(fp->mt->setshare(fp, DA_SHRCLEAR));
            return DeleteError(dc, obsnum, "DAREADV", rc);
        }
    }
    ++dc->ndeleted;  // counted before: a failed delobs may have half happened
    rc = fp->mt->delobs(fp, obsnum);
    if (rc < 0) {
        if (dyn) daignore(fp->mt->setshare(fp, DA_SHRCLEAR));
        return DeleteError(dc, obsnum, "DADELOBS", rc);
    }
    for (int i = 0; i < dc->nopen; ++i) {
        SP_IX& x = dc->ixfiles[i];
        rc = x.fp->fp.del(x.fp, dc->obsbuf, obsnum);
        if (rc < 0) {
            if (dyn) daignore(fp->mt->setshare(fp, DA_SHRCLEAR));
            return IndexDeleteError(dc, obsnum, x, "IXDELETE", rc);
        }
    }
    if (dc->xoehdr->flags & DA_XOEBACKUP) {
        rc = UpdateBackup(dc, obsnum);
        if (rc < 0) {
            if (dyn) daignore(fp->mt->setshare(fp, DA_SHRCLEAR));
            return DeleteError(dc, obsnum, "DAWRITEV", rc);
        }
    }
    // Clearing the share also makes the delete durable: its failure counts.
    if (dyn && (rc = fp->mt->setshare(fp, DA_SHRCLEAR)) < 0) return DeleteError(dc, obsnum, "SETSHARE", rc);
    return 0;
}

}  // extern "C"
