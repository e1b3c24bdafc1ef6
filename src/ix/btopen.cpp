// Opening an index tree: the handle, the meta page read and checked (or
// made), the page size and cache chosen, and the segment pages loaded.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"
#include "option/op.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/btopen";
constexpr int BT_EDESC = -10;  // segment pages unreadable

int32_t intoption(const char* name, int32_t dflt) {
    void* opt = opgtgbl();
    int32_t v = 0;
    int len = 0;
    if (opt && opgetop(opt, name, &v, &len) >= 0 && v > 0) return v;
    return dflt;
}

// The page size of a new file, raised until a page holds a few entries.
int adaptpsize(uint32_t* psize, uint32_t keylen, uint32_t datalen) {
    uint64_t e = static_cast<uint64_t>(keylen) + datalen;
    uint64_t ps = *psize;
    uint64_t n = ps > 256 ? (ps - 256) / e : 0;
    while (n < 4) {
        uint64_t next = (n + 1) * (e + 8) + 256;
        if (next > BT_MAXPSIZE) break;
        ps = next;
        ++n;
    }
    if (n <= 1) return BT_EKEYLONG;
    ps = (ps + 511) & ~511ull;
    if (ps > BT_MAXPSIZE) ps = BT_MAXPSIZE;
    *psize = static_cast<uint32_t>(ps);
    return 0;
}

// Lengths that follow from the key, data and page size; BT_EKEYLONG when a
// page cannot hold two leaf entries, or two internal ones.
int setlengths(BTREE* t) {
    t->bt_cmplen = t->bt_keylen + ((t->bt_flags & B_NOEQUALS) ? 0 : t->bt_data_len);
    t->bt_lsize = bt_align4(t->bt_keylen + t->bt_data_len);
    uint32_t room = bt_pagetop(t->bt_psize) - BTDATAOFF;
    if (2 * (t->bt_lsize + 2) > room) return BT_EKEYLONG;
    // Keys past this size go to overflow pages from an internal page.
    int64_t ov = static_cast<int64_t>(room) / t->bt_minkeypage - (t->bt_lsize + 2);
    if (ov < static_cast<int64_t>(t->bt_lsize)) ov = t->bt_lsize;
    // An internal page must hold at least two entries.
    int64_t cap = (static_cast<int64_t>(room) / 2 - 2 - BINTERNAL_HEAD) & ~3LL;
    if (ov > cap) ov = cap;
    if (ov > 0xffff) ov = 0xffff;
    if (ov < static_cast<int64_t>(NOVFLSIZE)) return BT_EKEYLONG;
    t->bt_ovflsize = static_cast<indx_t>(ov);
    return bt_allocbufs(t) == 0 ? 0 : BT_ENOMEM;
}

// Cache pages for the mode, as the options and the caller ask.
void setcache(BTREE* t, const BTREEINFO* oi, bool global) {
    int64_t ps = t->bt_psize, cs;
    int mode = t->bt_openmode;
    if (oi->cachesize) {
        cs = (static_cast<int64_t>(oi->cachesize) + ps - 1) / ps * ps;
        if (cs < 20 * ps) cs = 20 * ps;
    } else if (mode & BT_OCREATE) {
        cs = 4194304;
    } else if (mode & BT_OAPPEND) {
        cs = 20971520;
    } else {
        cs = global ? intoption("INDEX_MAXMEMORY", 10485760) : 4194304;
    }
    t->bt_grow_ncache = 0;
    if (mode & (BT_OCREATE | BT_OAPPEND)) {
        t->bt_grow_ncache = static_cast<pgno_t>(cs / ps);
        if (cs > 4194304) cs = 4194304;
    }
    if (!oi->options_present) {
        cs = 41943040;
        t->bt_grow_ncache = static_cast<pgno_t>(cs / ps);
    }
    t->bt_ncache = static_cast<pgno_t>((cs + ps - 1) / ps);
}

}  // namespace

// Reads and checks page 0.
int bt_readmeta(BTREE* t, const char** why) {
    DA_IDX* fd = t->bt_fd;
    char probe[BT_MINPSIZE];
    long nread = 0;
    if (fd->mt->readidx(fd, probe, sizeof probe, 0, &nread) < 0 || nread != static_cast<long>(sizeof probe)) {
        *why = "the file is shorter than a meta page";
        return BT_ESHORT;
    }
    uint32_t magic = bt_get32(probe + offsetof(_btmeta, m_magic));
    uint32_t psize = bt_get32(probe + offsetof(_btmeta, m_psize));
    if (magic == __builtin_bswap32(BTREEMAGIC)) {
        t->bt_flags |= B_NEEDSWAP;
        psize = __builtin_bswap32(psize);
    } else if (magic != BTREEMAGIC) {
        *why = "bad magic number in the meta page";
        return BT_EINVAL;
    }
    if (psize < BT_MINPSIZE || psize > BT_MAXPSIZE || (psize & 1)) {
        *why = "bad page size in the meta page";
        return BT_EINVAL;
    }
    if (t->metapage && t->bt_psize != psize) {
        *why = "the page size changed under the handle";
        return BT_EINVAL;
    }
    if (!t->metapage && !(t->metapage = static_cast<char*>(calloc(1, psize)))) return BT_ENOMEM;
    if (fd->mt->readidx(fd, t->metapage, psize, 0, &nread) < 0 || nread != static_cast<long>(psize)) {
        *why = "the file is shorter than its meta page";
        return BT_ESHORT;
    }
    if (t->bt_flags & B_NEEDSWAP) {
        bt_swapmeta(t->metapage);
        bt_swapsegp(t->metapage + BT_METASEGOFF, bt_metamaxindex(psize));
    }
    _btmeta m;
    memcpy(&m, t->metapage, sizeof m);
    if (m.m_version != BTREEVERSION) {
        *why = "the tree's version is not 1";
        return BT_EVERSION;
    }
    t->bt_psize = psize;
    t->bt_data_len = m.m_verminor >= 2 ? m.m_data_len : 8;
    if (t->bt_data_len > psize) {
        *why = "bad data length in the meta page";
        return BT_EINVAL;
    }
    if (m.header.value_len <= 0 || static_cast<uint32_t>(m.header.value_len) > psize) {
        *why = "bad key length in the header";
        return BT_EINVAL;
    }
    if (t->bt_keylen && t->bt_keylen != static_cast<uint32_t>(m.header.value_len)) {
        *why = "the key length differs from the index's";
        return BT_EINVAL;
    }
    t->bt_keylen = m.header.value_len;
    if (m.m_segsize <= 0) {
        *why = "bad segment size in the meta page";
        return BT_EINVAL;
    }
    if (m.m_segp_dircount < -1 || m.m_segp_dircount >= BT_DIRSLOTS) {
        *why = "bad segment page directory count";
        return BT_EINVAL;
    }
    t->bt_segsize = m.m_segsize;
    t->bt_flags |= m.m_flags & SAVEMETA;
    if (m.m_segsize == BT_GLOBALSEGSIZE) t->bt_flags |= B_GLOBAL;
    t->bt_nrecs = m.m_nrecs;
    t->bt_unique_count = m.m_unique_count;
    t->bt_dircount = m.m_segp_dircount;
    t->header = m.header;
    return 0;
}

namespace {

// Meta page of a new file.
void makemeta(BTREE* t, const IX_HEADER_D* header) {
    _btmeta m;
    memset(&m, 0, sizeof m);
    m.header = *header;
    m.header.value_len = static_cast<int32_t>(t->bt_keylen);
    m.m_magic = BTREEMAGIC;
    m.m_version = BTREEVERSION;
    m.m_verminor = BTREEVERMINOR;
    m.m_psize = t->bt_psize;
    m.m_flags = t->bt_flags & SAVEMETA;
    m.m_segsize = t->bt_segsize;
    m.m_data_len = t->bt_data_len;
    m.m_segp_dircount = -1;
    memcpy(t->metapage, &m, sizeof m);
    _btdesc d;
    memset(&d, 0, sizeof d);
    d.m_maxindex = bt_metamaxindex(t->bt_psize);
    memcpy(t->metapage + BT_METASEGOFF, &d, sizeof d);
    t->header = m.header;
    t->bt_dircount = -1;
}

DA_IDX* fdof(DB* dbp) { return dbp->internal->bt_fd; }

}  // namespace

rctype bt_openrc(int rc) {
    switch (rc) {
    case 0: return 0;
    case BT_EVERSION: return IX_BADTREEVER;
    case BT_EKEYLONG: return IX_KEYTOOLONG;
    case BT_EDESC: return IX_BADDESC;
    case BT_ENOMEM: return IX_NOMEM;
    default: return IX_OPENFAIL;
    }
}

rctype bt_fail(BTREE* t, pgno_t pgno, rctype code, const char* what) {
    t->bt_errpage = pgno;
    snprintf(t->bt_errtext, sizeof t->bt_errtext, "%s", what);
    hsprint("btree: Index file %s page %u: %s\n", t->bt_fname ? t->bt_fname : "?", pgno, what);
    return code;
}

_btdesc* bt_desc(BTREE* t, int idx) { return reinterpret_cast<_btdesc*>(t->bt_segpages[idx].page); }

_btsegtree* bt_entry(BTREE* t, int idx, uint32_t i) {
    return reinterpret_cast<_btsegtree*>(t->bt_segpages[idx].page + BT_SEGDESCLEN + BT_SEGENTLEN * i);
}

uint32_t bt_segp_maxindex(BTREE* t, int idx) {
    return idx == 0 ? bt_metamaxindex(t->bt_psize) : bt_segmaxindex(t->bt_psize);
}

rctype bt_allocbufs(BTREE* t) {
    t->bt_rkey = static_cast<char*>(calloc(1, t->bt_cmplen + t->bt_keylen + 8));
    t->bt_rdata = static_cast<char*>(calloc(1, t->bt_data_len + 8));
    t->bt_ovflbuf = static_cast<char*>(calloc(1, t->bt_cmplen + 8));
    t->bt_ebuf = static_cast<char*>(calloc(1, t->bt_lsize + 8));
    return t->bt_rkey && t->bt_rdata && t->bt_ovflbuf && t->bt_ebuf ? 0 : IX_NOMEM;
}

void bt_freebufs(BTREE* t) {
    free(t->bt_rkey);
    free(t->bt_rdata);
    free(t->bt_ovflbuf);
    free(t->bt_ebuf);
    t->bt_rkey = t->bt_rdata = t->bt_ovflbuf = t->bt_ebuf = nullptr;
}

rctype bt_addsegp(BTREE* t, pgno_t pgno, char* page) {
    if (t->bt_nsegpages == t->bt_nsegpalloc) {
        int n = t->bt_nsegpalloc ? 2 * t->bt_nsegpalloc : 8;
        auto* v = static_cast<BT_SEGP*>(realloc(t->bt_segpages, n * sizeof(BT_SEGP)));
        if (!v) return IX_NOMEM;
        t->bt_segpages = v;
        t->bt_nsegpalloc = n;
    }
    t->bt_segpages[t->bt_nsegpages].pgno = pgno;
    t->bt_segpages[t->bt_nsegpages].page = page;
    t->bt_segpages[t->bt_nsegpages].dirty = 0;
    ++t->bt_nsegpages;
    return 0;
}

void bt_freesegp(BTREE* t) {
    for (int i = 1; i < t->bt_nsegpages; ++i) free(t->bt_segpages[i].page);
    t->bt_nsegpages = 0;
}

rctype __bt_load_desc(DB* dbp) {
    BTREE* t = dbp->internal;
    bt_freesegp(t);
    rctype rc = bt_addsegp(t, 0, t->metapage + BT_METASEGOFF);
    if (rc < 0) return rc;
    _btmeta m;
    memcpy(&m, t->metapage, sizeof m);
    pgno_t npages = static_cast<pgno_t>(t->bt_fd->filesize / t->bt_psize);
    auto bad = [&](pgno_t pg, const char* why) { return bt_fail(t, pg, IX_BADDESC, why); };
    pgno_t next = 0;
    for (int i = 0;; ++i) {
        pgno_t pg;
        if (i <= m.m_segp_dircount) pg = m.m_segp_directory[i];
        else if (i > BT_DIRSLOTS - 1 && next) pg = next;
        else break;
        if (pg == 0 || pg >= npages) return bad(pg, "segment page outside the file");
        if (t->bt_nsegpages > static_cast<int>(npages)) return bad(pg, "segment page chain loops");
        for (int k = 1; k < t->bt_nsegpages; ++k)
            if (t->bt_segpages[k].pgno == pg) return bad(pg, "segment page chain loops");
        char* p = static_cast<char*>(malloc(t->bt_psize));
        if (!p) return IX_NOMEM;
        long nread = 0;
        if (t->bt_fd->mt->readidx(t->bt_fd, p, t->bt_psize, static_cast<da_off_t>(pg) * t->bt_psize, &nread) < 0 ||
            nread != static_cast<long>(t->bt_psize)) {
            free(p);
            return bad(pg, "segment page cannot be read");
        }
        if (t->bt_flags & B_NEEDSWAP) bt_swapsegp(p, bt_segmaxindex(t->bt_psize));
        if ((rc = bt_addsegp(t, pg, p)) < 0) {
            free(p);
            return rc;
        }
        next = bt_desc(t, t->bt_nsegpages - 1)->m_next;
        if (i >= BT_DIRSLOTS - 1 && !next) break;
    }
    // Every page holds what its descriptor says; all but the last are full.
    t->bt_segcount = 0;
    for (int k = 0; k < t->bt_nsegpages; ++k) {
        _btdesc* d = bt_desc(t, k);
        pgno_t pg = t->bt_segpages[k].pgno;
        if (d->m_maxindex != bt_segp_maxindex(t, k)) return bad(pg, "segment page has a bad size");
        if (d->m_curindex > d->m_maxindex) return bad(pg, "segment page holds more trees than fit");
        if (k + 1 < t->bt_nsegpages && d->m_curindex != d->m_maxindex && bt_desc(t, k + 1)->m_curindex)
            return bad(pg, "segment page not full before another");
        for (uint32_t i = 0; i < d->m_curindex; ++i) {
            _btsegtree* e = bt_entry(t, k, i);
            if (e->m_rootpageno == 0 || e->m_treelen == 0 ||
                static_cast<uint64_t>(e->m_rootpageno) + e->m_treelen > npages)
                return bad(pg, "tree outside the file");
        }
        t->bt_segcount += d->m_curindex;
    }
    if ((t->bt_flags & B_GLOBAL) && t->bt_segcount > 1) return bad(0, "a global tree file holds several trees");
    return 0;
}

int __bt_open(DA_IDX* if_hdl, int flags, const BTREEINFO* openinfo, IX_HEADER_D* header, DB** db, int partno) {
    if (partno == 0) {
        if (!if_hdl || !openinfo || !db) return BT_EINVAL;
        int mode = flags ? flags : openinfo->openmode;
        if (mode != BT_OREAD && mode != BT_OAPPEND && mode != BT_OCREATE) return BT_EINVAL;
        if (openinfo->psize && (openinfo->psize < BT_MINPSIZE || openinfo->psize > BT_MAXPSIZE || (openinfo->psize & 1)))
            return BT_EINVAL;
        if ((mode & BT_OCREATE) && (openinfo->keylen == 0 || openinfo->segsize <= 0 || !header)) return BT_EINVAL;
        if (openinfo->minkeypage != 0 && openinfo->minkeypage < 2) return BT_EINVAL;
        auto* dbp = static_cast<DB*>(calloc(1, sizeof(DB)));
        auto* t = static_cast<BTREE*>(calloc(1, sizeof(BTREE)));
        if (!dbp || !t) {
            free(dbp);
            free(t);
            return BT_ENOMEM;
        }
        dbp->internal = t;
        t->bt_dbp = dbp;
        dbp->abort = __bt_abort;
        dbp->close = __bt_close;
        dbp->del = __bt_delete;
        dbp->get = __bt_get;
        dbp->range = __bt_range;
        dbp->lock = __bt_lock;
        dbp->put = __bt_put;
        dbp->seq = __bt_seq;
        dbp->sync = __bt_sync;
        dbp->fd = fdof;
        dbp->file_handle = if_hdl;
        dbp->options_present = openinfo->options_present;
        dbp->create = (mode & BT_OCREATE) != 0;
        dbp->current_op = BT_OPOPENING;
        t->bt_fd = if_hdl;
        t->bt_fname = if_hdl->name;
        t->skbp = openinfo->skbp ? openinfo->skbp : if_hdl->skb;
        t->bt_cmp = openinfo->compare;
        t->bt_openmode = mode;
        t->bt_open_in_progress = 1;
        t->bt_minkeypage = openinfo->minkeypage ? openinfo->minkeypage : 2;
        t->bt_keylen = openinfo->keylen;
        t->bt_data_len = openinfo->datalen;
        t->bt_psize = openinfo->psize;
        t->bt_segsize = openinfo->segsize;
        if (mode & BT_OCREATE) {
            if (openinfo->noequals || (openinfo->flags & B_NOEQUALS)) t->bt_flags |= B_NOEQUALS;
            if ((openinfo->flags & B_GLOBAL) || openinfo->segsize == BT_GLOBALSEGSIZE) {
                t->bt_flags |= B_GLOBAL;
                t->bt_segsize = BT_GLOBALSEGSIZE;
            }
        }
        *db = dbp;
        return 0;
    }

    DB* dbp = *db;
    BTREE* t = dbp->internal;
    const char* why = "";
    int rc = 0;
    if (t->bt_openmode & BT_OCREATE) {
        uint32_t ps = t->bt_psize ? t->bt_psize : static_cast<uint32_t>(intoption("BTREE_PAGESIZE", 8192));
        if (ps < BT_MINPSIZE) ps = BT_MINPSIZE;
        if (ps > BT_MAXPSIZE) ps = BT_MAXPSIZE;
        ps &= ~1u;
        rc = adaptpsize(&ps, t->bt_keylen, t->bt_data_len);
        if (rc == 0) {
            t->bt_psize = ps;
            t->metapage = static_cast<char*>(calloc(1, ps));
            if (!t->metapage) rc = BT_ENOMEM;
        }
        if (rc == 0) makemeta(t, header);
    } else {
        rc = bt_readmeta(t, &why);
        if (rc == 0 && (t->bt_flags & B_NEEDSWAP) && t->bt_openmode != BT_OREAD) {
            why = "a file of the other byte order can only be read";
            rc = BT_EINVAL;
        }
        if (rc == 0 && header) *header = t->header;
    }
    if (rc == 0) rc = setlengths(t);
    if (rc != 0) {
        if (*why) bt_fail(t, 0, bt_openrc(rc), why);
        else hs_trace_error(TRACEFILE, __LINE__, -1);
        return rc;
    }
    if (t->bt_data_len < 8 && !(t->bt_flags & B_NOEQUALS)) {
        bt_fail(t, 0, IX_OPENFAIL, "a tree of keys with row numbers needs 8 bytes of data");
        return BT_EINVAL;
    }
    BTREEINFO none{};
    setcache(t, openinfo ? openinfo : &none, (t->bt_flags & B_GLOBAL) != 0);
    DA_IDX* fd = t->bt_fd;
    int mode = t->bt_openmode;
    int wmode = (mode & BT_OCREATE) ? MPOOL_CREATE : (mode & BT_OAPPEND) ? MPOOL_WRITE : MPOOL_READ;
    const char* map = nullptr;
    if (mode == BT_OREAD && fd->mapaddr && !(t->bt_flags & B_NEEDSWAP) && fd->mapsize >= fd->filesize)
        map = static_cast<const char*>(fd->mapaddr);
    if (mode & BT_OCREATE) {
        if (fd->filesize != 0 && fd->mt->truncidx(fd, 0) < 0) return BT_EINVAL;
        fd->filesize = 0;
    } else if (fd->filesize < static_cast<da_off_t>(t->bt_psize)) {
        bt_fail(t, 0, IX_OPENFAIL, "the file is shorter than its meta page");
        return BT_ESHORT;
    }
    t->bt_mp = mpool_open(t->bt_fname, fd, t->bt_psize, t->bt_ncache, wmode, wmode != MPOOL_READ, map);
    if (!t->bt_mp) return BT_ENOMEM;
    t->bt_mmap = map;
    mpool_filter(t->bt_mp, bt_pgin, nullptr, t);
    if (mode & BT_OCREATE) {
        if (mpool_writenext(t->bt_mp, t->metapage) != 0) {
            bt_fail(t, 0, IX_WRITEFAIL, "the meta page cannot be written");
            return BT_EINVAL;
        }
        if (bt_addsegp(t, 0, t->metapage + BT_METASEGOFF) < 0) return BT_ENOMEM;
        t->bt_segcount = 0;
        dbp->current_op = BT_OPIDLE;
        if (__bt_meta_prep(dbp) < 0 || __bt_meta_append(dbp) < 0) return BT_EINVAL;
    } else {
        if (__bt_load_desc(dbp) < 0) return BT_EDESC;
        if (bt_checkfree(t) < 0) return BT_EDESC;
        t->bt_root = 0;
        t->bt_treelen = 0;
        if ((t->bt_flags & B_GLOBAL) && t->bt_segcount > 0) {
            t->bt_root = bt_entry(t, 0, 0)->m_rootpageno;
            t->bt_treelen = bt_entry(t, 0, 0)->m_treelen;
        }
        dbp->current_op = BT_OPOPENED;
        if (mode & BT_OAPPEND) {
            rctype r = __bt_meta_prep(dbp);
            if (r >= 0) r = __bt_meta_append(dbp);
            if (r < 0) return r == IX_NOMEM ? BT_ENOMEM : BT_EDESC;
        }
    }
    t->bt_open_in_progress = 0;
    return 0;
}

}  // namespace vrta
