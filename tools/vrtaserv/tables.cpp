// Table requests: open with the stream of column and index records behind
// its reply, close, repair, and the list of a domain's members. Tables are
// opened through the storage layer's direct API, the same files an engine
// on this machine opens for its direct path; the cross-process locks of
// that layer keep the two honest.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "../srvcom/srvcom.h"
#include "eng/hpdmsg.h"
#include "eng/hpdo.h"
#include "eng/hpdutl.h"
#include "hs/hs.h"
#include "serv.h"
#include "ssup/xp.h"
#include "vrta/directapi.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace vrtaserv {

std::mutex apilock;

namespace {

// Codes of the storage layer that the engine hears as something particular.
constexpr rctype DA_NOTFOUND = static_cast<rctype>(0x80000225u);
// A lock refused, locked by another process for reading or writing, in use by
// another task, an open mode in conflict: all "in use" to the engine.
constexpr rctype DA_INUSE[] = {static_cast<rctype>(0x80000222u), static_cast<rctype>(0x80000230u),
                               static_cast<rctype>(0x80000231u), static_cast<rctype>(0x8000023du),
                               static_cast<rctype>(0x8000023eu)};
// Reply codes the engine classifies.
constexpr int RC_NOTFOUND = 2104;
constexpr int RC_INUSE = 2550;
// The value a double has when it is missing.
constexpr uint64_t MISSING = 0xffff000000000000ull;

std::string trim(const char* p, int n) {
    while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == 0)) --n;
    return std::string(p, n);
}

void pad(char* to, int width, const std::string& from) {
    std::memset(to, ' ', width);
    std::memcpy(to, from.data(), std::min<size_t>(from.size(), width));
}

// The thing numbered id in one of the session's tables, or null.
template <class T>
T* slot(std::vector<T>& v, int id) {
    return id >= 1 && id <= static_cast<int>(v.size()) ? &v[id - 1] : nullptr;
}

// A refusal with the class and code the engine turns into its own code.
rctype refuse(Session& s, int id, int rcode, const std::string& why) {
    DS_HDR_REPLY h{id, 0, {}, rcode, HPD_RCLASS_FAIL};
    DS_MSG_REPLY r{};
    r.msg = why.data();
    r.msglen = static_cast<int32_t>(why.size());
    srvlog("connection %ld: request %d refused: %s", s.conn, id, why.c_str());
    return hpdsendr(s.so, h, s.native, s.level, &DS_MSG_REPLY_D, &r);
}

// A failed storage call as a reply code: not found and in use have codes
// of their own, anything else travels as text.
int rcodeof(const std::string& text) {
    auto has = [&](rctype rc) {
        const char* t = hsstrer(rc);
        return t && *t && text.find(t) != std::string::npos;
    };
    if (has(DA_NOTFOUND)) return RC_NOTFOUND;
    for (rctype rc : DA_INUSE)
        if (has(rc)) return RC_INUSE;
    return 0;
}

// One column record behind an open reply.
rctype sendcolumn(Session& s, int varnum, const VRTA_NAMESTR* np) {
    const VRTA_NAME7& n = np->n7;
    DS_YOEOPEN_NAMESTR_REPLY r{};
    r.varnum = varnum;
    std::memset(r.ns.name, ' ', sizeof r.ns.name);
    pad(r.ns.nname, 32, std::string(np->name ? np->name : "", std::max<int>(n.name_l, 0)));
    r.ns.ntype = static_cast<char>(n.type);
    r.ns.nsubtype = static_cast<char>(n.subtype);
    r.ns.nsort = static_cast<char>(n.sort);
    r.ns.nfj = static_cast<char>(n.justify);
    r.ns.nlabel = np->label ? np->label : "";
    r.ns.nlabell = np->label ? n.label_l : 0;
    r.ns.flags = n.flags;
    r.ns.npos = n.npos;
    r.ns.nlng = static_cast<int16_t>(n.nlng);
    r.ns.nvar0 = n.nvar0;
    pad(r.ns.nform, 32, std::string(np->nform ? np->nform : "", std::max<int>(n.nform_l, 0)));
    r.ns.nfl = n.nfl;
    r.ns.nfd = n.nfd;
    pad(r.ns.niform, 32, std::string(np->niform ? np->niform : "", std::max<int>(n.niform_l, 0)));
    r.ns.nifl = n.nifl;
    r.ns.nifd = n.nifd;
    r.npos2 = n.npos2;
    r.nipos = n.nipos;
    r.nlng2 = n.nlng2;
    r.nprec = static_cast<int32_t>(n.nprec);
    r.nscale = n.nscale;
    r.ntattr = static_cast<int16_t>(n.ntattr);
    r.ntype2 = static_cast<char>(n.ntype2);
    r.min = r.max = "";
    DS_HDR_REPLY h{DSM_YOEOPEN, 0, {}, 0, 0};
    return hpdsendr(s.so, h, s.native, s.level, &DS_YOEOPEN_NAMESTR_REPLY_D, &r);
}

}  // namespace

rctype tableopen(Session& s, const unsigned char* body, long len) {
    DS_YOEOPEN q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YOEOPEN);
    void** lib = slot(s.libs, q.libid);
    std::string name = trim(q.memname, 32), type = trim(q.memtype, 8);
    if (!lib || !*lib) return refuse(s, DSM_YOEOPEN, 0, "The domain " + std::to_string(q.libid) + " is not assigned.");
    char type8[9];
    std::snprintf(type8, sizeof type8, "%-8s", type.empty() ? "DATA" : type.c_str());
    // The table's key: 12 bytes are the scrambled password slots the engine
    // makes of its option; anything else is the key as it stands.
    std::string key;
    if (q.ekeylen == 12) {
        char k[12];
        yhpwdcr(reinterpret_cast<const unsigned char*>(q.ekey), k);
        key = trim(k, 12);
    } else if (q.ekeylen > 0) {
        key = trim(q.ekey, std::min(q.ekeylen, 40));
    }
    bool update = (q.opnmode & 4) != 0;
    if (!(q.opnmode & 1) && !update)
        return refuse(s, DSM_YOEOPEN, 0, "Only input and update opens are served; " + name + " was not opened.");
    void* fid = nullptr;
    std::string err;
    {
        std::lock_guard<std::mutex> g(apilock);
        int gen = q.gennum == -1000 ? 0 : q.gennum;
        const char* k = key.empty() ? nullptr : key.c_str();
        int rc = update ? vrtaupdate(*lib, name.data(), static_cast<int>(name.size()), type8, k, q.encoding_cei,
                                     nullptr, 0, 0, &fid)
                        : vrtaopen(*lib, name.data(), static_cast<int>(name.size()), type8, gen, k, q.encoding_cei,
                                   nullptr, 0, 0, &fid);
        if (rc < 0 || !fid) err = apitext(rc);
    }
    if (!fid) return refuse(s, DSM_YOEOPEN, rcodeof(err), err);
    VRTAINFO in{};
    vrtainfo(fid, VRTAINFO_ALL, &in);
    Table t;
    t.fid = fid;
    t.name = name;
    t.obslen = in.obslen;
    // Blocks of as many rows as the engine's network block holds.
    t.blockfactor = static_cast<int>(std::max<long>(1, std::min<long>(q.blocksize, 1L << 24) / std::max(in.obslen, 1)));
    t.compress = q.compress ? 1 : 0;
    int port = 0;
    std::string why;
    if (portopen(s, t, q.afunix != 0, &port, &why) != 0) {
        std::lock_guard<std::mutex> g(apilock);
        vrtaclose(fid);
        return refuse(s, DSM_YOEOPEN, 0, why);
    }
    s.tables.push_back(t);
    int openid = static_cast<int>(s.tables.size());
    VRTASORTINFO si{};
    std::string vars;
    if (vrtainfo(fid, VRTAINFO_SORT, &si) == 0)
        for (int i = 0; i < std::min(si.nvars, 128); ++i) {
            unsigned char b[4];
            hpdput4(b, si.var[i]);
            vars.append(reinterpret_cast<char*>(b), 4);
        }

    DS_YOEOPEN_REPLY r{};
    r.msg = r.label = r.spare1 = r.unixpath = r.vars = r.rangeinfo = r.dsn_clust = "";
    r.openid = openid;
    r.numobs = in.numobs;
    r.obslen = in.obslen;
    r.blocksize = in.blocksize;
    r.blockfactor = t.blockfactor;
    r.portno = port;
    r.unixpath = t.upath.c_str();
    r.unixpathl = static_cast<int32_t>(t.upath.size());
    r.nvar = in.numvar;
    r.nindexes = in.numindex;
    r.ridsize = 48;
    r.idxsegsize = static_cast<int32_t>(in.idxsegsize);
    std::memcpy(r.dstype, in.dstype, 8);
    pad(r.who_created, 8, "");
    pad(r.who_modified, 8, "");
    r.label = in.label;
    r.labell = in.label_l;
    r.ndel = in.numdelete;
    pad(r.collate, 8, "");
    r.nvars = static_cast<int32_t>(vars.size() / 4);
    r.vars = vars.data();
    r.varslen = static_cast<int32_t>(vars.size());
    std::memcpy(r.diskcomp, in.diskcomp, 8);
    r.encrypt = std::memcmp(in.encrypt, "        ", 8) != 0 ? 1 : 0;
    pad(r.lang, 4, "");
    pad(r.aclowner, 8, "");
    pad(r.aclusern, 8, "");
    pad(r.sysname, 8, "");
    pad(r.grpname, 8, "");
    r.datasize = in.numobs * in.obslen;
    r.genhigh = 0;
    std::memset(r.ekey, ' ', sizeof r.ekey);
    // The key goes back in its slots, so that an engine on this machine
    // opens the table's files with it.
    if (q.ekeylen == 12) {
        r.ekeylen = 12;
        std::memcpy(r.ekey, q.ekey, 12);
    }
    std::memset(r.dsreqv, ' ', sizeof r.dsreqv);
    DS_HDR_REPLY h{DSM_YOEOPEN, 0, {}, 0, 0};
    if (rctype rc = hpdsendr(s.so, h, s.native, s.level, &DS_YOEOPEN_REPLY_D, &r); rc) return rc;
    srvlog("connection %ld: open %s %s for %s as table %d: %lld rows of %d columns, %d rows a block%s", s.conn,
           name.c_str(), type.c_str(), update ? "update" : "input", openid, static_cast<long long>(in.numobs),
           in.numvar, t.blockfactor, t.compress ? ", compressed" : "");

    // The engine answers one byte: 0 goes on with the stream, anything
    // else drops it.
    s.so->nread = 1;
    if (yxsread(s.so) != 0 || s.so->recl != 1) return HPD_RC_FAIL;
    if (static_cast<char*>(s.so->reca)[0] != 0) {
        srvlog("connection %ld: the engine dropped the open of table %d", s.conn, openid);
        std::lock_guard<std::mutex> g(apilock);
        vrtaclose(fid);
        portclose(s.tables[openid - 1]);
        s.tables[openid - 1].fid = nullptr;
        return 0;
    }
    for (int v = 1; v <= in.numvar; ++v) {
        VRTA_NAMESTR* np = nullptr;
        if (vrtagetnpp(fid, v, &np) != 0 || !np) return refuse(s, DSM_YOEOPEN, 0, "Column " + std::to_string(v) + " cannot be read.");
        if (rctype rc = sendcolumn(s, v, np); rc) return rc;
    }
    if (in.numindex > 0) {
        std::vector<u_sname> names(in.numindex);
        vrtainfo(fid, VRTAINFO_INDEXNAMES, names.data());
        for (const u_sname& n : names) {
            DS_YOEOPEN_INDEX_REPLY x{};
            pad(x.name, 32, std::string(n.name, std::max<int>(0, std::min<int>(n.len, 32))));
            x.min = x.max = x.var0 = "";
            DS_HDR_REPLY xh{DSM_YOEOPEN, 0, {}, 0, 0};
            if (rctype rc = hpdsendr(s.so, xh, s.native, s.level, &DS_YOEOPEN_INDEX_REPLY_D, &x); rc) return rc;
        }
    }
    return 0;
}

rctype tableclose(Session& s, const unsigned char* body, long len) {
    DS_YOECLOS q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YOECLOS);
    Table* t = slot(s.tables, q.openid);
    if (!t || !t->fid) return refuse(s, DSM_YOECLOS, 0, "The table " + std::to_string(q.openid) + " is not open.");
    int64_t rows = 0;
    vrtainfo(t->fid, VRTAINFO_NUMOBS, &rows);
    int rc;
    std::string err;
    {
        std::lock_guard<std::mutex> g(apilock);
        rc = vrtaclose(t->fid);
        if (rc < 0) err = apitext(rc);
    }
    t->fid = nullptr;
    portclose(*t);
    srvlog("connection %ld: close of table %d%s", s.conn, q.openid, rc < 0 ? " failed" : "");
    if (rc < 0) return refuse(s, DSM_YOECLOS, 0, err);
    DS_YOECLOS_REPLY r{};
    r.msg = "";
    r.lastobs = rows;
    pad(r.uniqds, 32, "");
    pad(r.uniqvar, 8, "");
    pad(r.uniqind, 32, "");
    std::memcpy(&r.pct, &MISSING, 8);
    DS_HDR_REPLY h{DSM_YOECLOS, 0, {}, 0, 0};
    return hpdsendr(s.so, h, s.native, s.level, &DS_YOECLOS_REPLY_D, &r);
}

rctype tablefix(Session& s, const unsigned char* body, long len) {
    DS_YOEFIX q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YOEFIX);
    void** lib = slot(s.libs, q.libid);
    std::string name = trim(q.memname, 32);
    if (!lib || !*lib) return refuse(s, DSM_YOEFIX, 0, "The domain " + std::to_string(q.libid) + " is not assigned.");
    // Opening for update is what checks a table and its indexes here: a
    // table the storage layer cannot open is not repaired but reported.
    void* fid = nullptr;
    std::string err;
    {
        std::lock_guard<std::mutex> g(apilock);
        int rc = vrtaupdate(*lib, name.data(), static_cast<int>(name.size()), "DATA    ", nullptr, 0, nullptr, 0, 0, &fid);
        if (rc < 0 || !fid) err = apitext(rc);
    }
    if (!fid) return refuse(s, DSM_YOEFIX, rcodeof(err), err);
    int n = 0;
    vrtainfo(fid, VRTAINFO_NINDEXES, &n);
    std::vector<u_sname> names(std::max(n, 0));
    if (n > 0) vrtainfo(fid, VRTAINFO_INDEXNAMES, names.data());
    {
        std::lock_guard<std::mutex> g(apilock);
        vrtaclose(fid);
    }
    DS_YOEFIX_REPLY r{n};
    DS_HDR_REPLY h{DSM_YOEFIX, 0, {}, 0, 0};
    if (rctype rc = hpdsendr(s.so, h, s.native, s.level, &DS_YOEFIX_REPLY_D, &r); rc) return rc;
    // Each index record's rcode names what became of it: 119, no repair needed.
    h.rcode = 119;
    for (const u_sname& x : names) {
        DS_YOEFIX_INDEX_REPLY ix{};
        const char* t = "needed no repair";
        ix.msg = t;
        ix.msglen = static_cast<int32_t>(std::strlen(t));
        pad(ix.name, 32, std::string(x.name, std::max<int>(0, std::min<int>(x.len, 32))));
        if (rctype rc = hpdsendr(s.so, h, s.native, s.level, &DS_YOEFIX_INDEX_REPLY_D, &ix); rc) return rc;
    }
    srvlog("connection %ld: repair of %s: %d indexes checked", s.conn, name.c_str(), n);
    return 0;
}

rctype diropen(Session& s, const unsigned char* body, long len) {
    DS_YDEDOPN q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YDEDOPN);
    void** lib = slot(s.libs, q.libid);
    if (!lib || !*lib) return refuse(s, DSM_YDEDOPN, 0, "The domain " + std::to_string(q.libid) + " is not assigned.");
    // The whole list is taken at once: the client reads it at its own pace.
    std::vector<std::string> names;
    void* d = nullptr;
    if (spopendir(*lib, &d) == 0 && d) {
        char n[33];
        int nl = 0;
        for (int i = 0; i < 1000000 && spreaddir(d, n, &nl) == 0; ++i) names.emplace_back(n, std::min(nl, 32));
        spclosedir(d);
    }
    std::reverse(names.begin(), names.end());  // handed out from the back
    s.dirs.push_back(std::move(names));
    DS_YDEDOPN_REPLY r{};
    r.msg = "";
    r.id = static_cast<int32_t>(s.dirs.size());
    DS_HDR_REPLY h{DSM_YDEDOPN, 0, {}, 0, 0};
    srvlog("connection %ld: member list %d of domain %d: %zu members", s.conn, r.id, q.libid, s.dirs.back().size());
    return hpdsendr(s.so, h, s.native, s.level, &DS_YDEDOPN_REPLY_D, &r);
}

rctype dirread(Session& s, const unsigned char* body, long len) {
    DS_YDEDRD q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YDEDRD);
    auto* d = slot(s.dirs, q.id);
    if (!d) return refuse(s, DSM_YDEDRD, 0, "The member list " + std::to_string(q.id) + " is not open.");
    // Up to numpair members of 40 bytes each: name (32) and type (8),
    // blank-padded; none left is an empty list.
    std::string info;
    for (int i = 0; i < std::max(q.numpair, 0) && !d->empty() && i < 10000; ++i) {
        char pair[40];
        pad(pair, 32, d->back());
        pad(pair + 32, 8, "DATA");
        info.append(pair, 40);
        d->pop_back();
    }
    DS_YDEDRD_REPLY r{};
    r.msg = "";
    r.info = info.data();
    r.pairinfo = static_cast<int32_t>(info.size());
    DS_HDR_REPLY h{DSM_YDEDRD, 0, {}, 0, 0};
    return hpdsendr(s.so, h, s.native, s.level, &DS_YDEDRD_REPLY_D, &r);
}

rctype dirclose(Session& s, const unsigned char* body, long len) {
    DS_YDECLS q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YDECLS);
    auto* d = slot(s.dirs, q.id);
    if (!d) return refuse(s, DSM_YDECLS, 0, "The member list " + std::to_string(q.id) + " is not open.");
    d->clear();
    return msgreply(s, DSM_YDECLS, 0, "");
}

void sessionend(Session& s) {
    std::lock_guard<std::mutex> g(apilock);
    for (Table& t : s.tables) {
        if (t.fid) vrtaclose(t.fid);
        portclose(t);
    }
    for (void* lib : s.libs)
        if (lib) spldeasgn(lib);
}

}  // namespace vrtaserv
