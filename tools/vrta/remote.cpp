#include "remote.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "apiload.h"
#include "engopts.h"
#include "vrta.h"

namespace vrtacli {

namespace {

using yhelasg_t = int (*)(void*, void*, char*, void**, int*, void*, int*, XHEATTR**, void**, int*);
using yheldas_t = int (*)(void*, void*);
using ydedopn_t = int (*)(void*, void*, void**);
using ydedrd_t = int (*)(void*, char*, int*, char*);
using ydedcls_t = int (*)(void*);
using yhelpfr_t = int (*)(void*);
using rctext_t = int (*)(int, char*, int);
using yoeopen_t = int (*)(void*, void**, XOPNSTR*);
using yoeclos_t = int (*)(void*, int);
using yoeropn_t = int (*)(void*, int);
using yoeinfo_t = int (*)(void*, int, void*);

constexpr int RC_EOF = 518;

// The module's text of a code with what it stored beside it.
std::string rctext(int rc) {
    static rctext_t f = [] {
        ModuleEntries m;
        rctext_t p = nullptr;
        if (m.ok) m.get(p, "vrtarctext");
        return p;
    }();
    char t[600];
    if (f && f(rc, t, sizeof t) > 0) return t;
    char c[32];
    std::snprintf(c, sizeof c, "code 0x%08x", static_cast<unsigned>(rc));
    return c;
}

// The password: VRTA_PASSWORD, else asked for on a terminal without echo.
bool password(std::string* pw) {
    if (const char* e = std::getenv("VRTA_PASSWORD")) {
        *pw = e;
        return true;
    }
    termios t{};
    if (!isatty(0) || tcgetattr(0, &t) != 0) return false;
    std::fprintf(stderr, "password: ");
    termios q = t;
    q.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(0, TCSANOW, &q);
    std::getline(std::cin, *pw);
    tcsetattr(0, TCSANOW, &t);
    std::fprintf(stderr, "\n");
    return true;
}

// A text in the options' own quoting; false when it cannot be quoted.
bool quoted(const std::string& v, std::string* out) {
    char q = v.find('"') == std::string::npos ? '"' : '\'';
    if (v.find(q) != std::string::npos || v.find('\n') != std::string::npos) return false;
    *out = q + v + q;
    return true;
}

}  // namespace

int takeRemote(std::vector<std::string>& args, RemoteArgs* r) {
    std::vector<std::string> rest;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string* to = args[i] == "--name-server" ? &r->nameserver
                          : args[i] == "--user"      ? &r->user
                          : args[i] == "--road"      ? &r->road
                                                     : nullptr;
        if (!to) {
            rest.push_back(args[i]);
            continue;
        }
        if (i + 1 >= args.size()) return fail(args[i] + " needs a value", 2);
        *to = args[++i];
    }
    args.swap(rest);
    if (!r->nameserver.empty() || !r->user.empty()) {
        size_t colon = r->nameserver.rfind(':');
        if (colon == std::string::npos || colon == 0 || colon + 1 == r->nameserver.size())
            return fail("--name-server wants HOST:PORT", 2);
        if (r->user.empty()) return fail("--name-server needs --user USER", 2);
    }
    if (!r->road.empty() && r->road != "wire" && r->road != "direct") return fail("--road is wire or direct", 2);
    if (!r->road.empty() && r->nameserver.empty()) return fail("--road needs --name-server", 2);
    return 0;
}

RemoteDomain::~RemoteDomain() {
    if (assigned_) reinterpret_cast<yheldas_t>(tbl_->xhen.yheldas)(engid_, &ref_);
    if (opts_) reinterpret_cast<yhelpfr_t>(tbl_->xhen.yhelpfr)(opts_);
}

int RemoteDomain::assign(const std::string& cmd, const RemoteArgs& r, const std::string& domain) {
    commandOutput();  // the module's diagnostics go to standard error from here on
    tbl_ = engineVector(&engid_);
    if (!tbl_) return 1;
    size_t colon = r.nameserver.rfind(':');
    std::string host, port, user;
    if (!quoted(r.nameserver.substr(0, colon), &host) || !quoted(r.nameserver.substr(colon + 1), &port) ||
        !quoted(r.user, &user))
        return fail(cmd + ": the name server or user cannot be quoted", 2);
    EngineOptions eo;
    // The wire road keeps the direct path off; the engine then reads rows
    // over the data port even on this machine.
    std::string text = "HOST=" + host + " SERV=" + port + " USER=" + user + (r.road == "wire" ? " FASTOPT=NO" : "");
    if (int st = engineOptions(cmd, text, OptKind::Domain, &eo)) return st;
    opts_ = eo.domain;
    std::string pw;
    if (!password(&pw)) return fail(cmd + ": no password: set VRTA_PASSWORD or run on a terminal", 2);
    if (pw.size() > 128) return fail(cmd + ": the password is longer than 128 characters", 2);
    // The password goes straight into the block, so that no quoting can change it.
    std::memset(eo.domain->pass, 0, sizeof eo.domain->pass);
    std::memcpy(eo.domain->pass, pw.data(), pw.size());
    std::memset(ref_.libref, ' ', 8);
    std::memcpy(ref_.libref, "REMOTE", 6);
    std::string name = domain;
    void* pn = name.data();
    int sz = static_cast<int>(name.size());
    int format = 0, flags = 0;
    void* tok = nullptr;
    XHEATTR* attr = nullptr;
    int rc = reinterpret_cast<yhelasg_t>(tbl_->xhen.yhelasg)(engid_, &ref_, nullptr, &pn, &sz, eo.domain, &format,
                                                               &attr, &tok, &flags);
    std::memset(eo.domain->pass, 0, sizeof eo.domain->pass);
    // An unknown server version is reported and the domain is usable.
    if (rc < 0 && static_cast<unsigned>(rc) != 0x8001000bu)
        return fail(cmd + ": domain " + domain + " could not be assigned: " + rctext(rc));
    if (rc != 0) std::fprintf(stderr, "vrta: %s: %s\n", cmd.c_str(), rctext(rc).c_str());
    assigned_ = true;
    return 0;
}

int RemoteDomain::tables(const std::string& cmd, std::vector<std::string>* names) {
    void* dir = nullptr;
    int rc = reinterpret_cast<ydedopn_t>(tbl_->xhen.ydedopn)(engid_, &ref_, &dir);
    if (rc < 0) return fail(cmd + ": the tables could not be listed: " + rctext(rc));
    char name[33], type[8];
    int nl = 0;
    // Bounded: a server that never says "no more" does not keep us here.
    for (int i = 0; i < 10000000; ++i) {
        rc = reinterpret_cast<ydedrd_t>(tbl_->xhen.ydedrd)(dir, name, &nl, type);
        if (rc != 0) break;
        names->emplace_back(name, nl);
    }
    int crc = reinterpret_cast<ydedcls_t>(tbl_->xhen.ydedcls)(dir);
    if (rc != RC_EOF) return fail(cmd + ": the list of tables broke off: " + rctext(rc));
    if (crc < 0) return fail(cmd + ": " + rctext(crc));
    return 0;
}

RemoteTable::~RemoteTable() {
    if (fid_) reinterpret_cast<yoeclos_t>(tbl_->xhen.yoeclos)(fid_, 0);
}

int RemoteTable::open(const std::string& cmd, RemoteDomain& d, const std::string& table, vrta::HPOOPT* opts,
                      const std::string& road) {
    tbl_ = d.tbl_;
    if (table.empty() || table.size() > 32) return fail(cmd + ": a table name has 1 to 32 characters", 2);
    XOPNSTR q{};
    q.peng_lib = d.ref_.englib;
    q.peng_op = opts;
    std::memset(q.memname, ' ', 32);
    std::memcpy(q.memname, table.data(), table.size());
    std::memset(q.memtype, ' ', 8);
    q.openmode = XO_INPUT;
    q.fast_path = &fast_;
    int rc = reinterpret_cast<yoeopen_t>(tbl_->xhen.yoeopen)(d.engid_, &fid_, &q);
    if (rc < 0 || !fid_) {
        fid_ = nullptr;
        return fail(cmd + ": table " + table + " could not be opened: " + rctext(rc));
    }
    auto info = reinterpret_cast<yoeinfo_t>(tbl_->xhen.yoeinfo);
    int direct = 0;
    if (info(fid_, HPOINFO_INFOSTR, &info_) != 0 || info(fid_, HPOINFO_DIRECT, &direct) != 0)
        return fail(cmd + ": the engine could not describe " + table);
    direct_ = direct != 0;
    if (road == "direct" && !direct_)
        return fail(cmd + ": " + table + " is read over the wire here: the direct path needs the server on this "
                          "machine and the domain options allowing it",
                    1);
    for (int v = 0; v < info_.num_vars && q.namestr; ++v) {
        const NAMESTR& n = q.namestr[v];
        ColInfo c;
        c.name.assign(n.name, n.namel);
        c.label.assign(n.label, n.labell);
        c.type = n.ntype;
        c.pos = n.npos;
        c.len = n.nlng;
        cols_.push_back(c);
    }
    return 0;
}

int RemoteTable::blockfactor() const { return info_.rec_len > 0 ? info_.bufsize / info_.rec_len : 0; }

std::vector<int> RemoteTable::sortOrder() const {
    auto info = reinterpret_cast<yoeinfo_t>(tbl_->xhen.yoeinfo);
    int32_t n = 0;
    if (info(fid_, HPOINFO_SORTEDBY, &n) != 0 || n <= 0) return {};
    std::vector<int32_t> v(static_cast<size_t>(n));
    if (info(fid_, HPOINFO_SORTVARS, v.data()) != 0) return {};
    return std::vector<int>(v.begin(), v.end());
}

int RemoteTable::rows(const std::string& cmd, const std::function<bool(const unsigned char*)>& each) {
    if (passes_++ > 0) {
        int rc = reinterpret_cast<yoeropn_t>(tbl_->xhen.yoeropn)(fid_, XO_INPUT);
        if (rc < 0) return fail(cmd + ": the table could not be read again: " + rctext(rc));
    }
    for (;;) {
        void* row = nullptr;
        int rc = fast_.getn(fast_.fpfid, &row);
        if (rc == VRTA_RC_ENDROWS) return 0;
        if (rc < 0) return fail(cmd + ": reading rows failed: " + rctext(rc));
        if (!each(static_cast<const unsigned char*>(row))) return 0;
    }
}

}  // namespace vrtacli
