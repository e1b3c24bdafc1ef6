// Tables reached through the engine's entries as a host reaches them: a
// name server and a data server on loopback, domains assigned by name,
// tables made through the storage layer, opened with hpoopen and read
// through the fast vector.
#pragma once
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "eng/hpdc.h"
#include "eng/hpdl.h"
#include "eng/hpdo.h"
#include "eng/hpdutl.h"
#include "srvutil.h"
#include "testutil.h"
#include "vrta/directapi.h"
#include "wireutil.h"

namespace wiretest {

// A table made through the storage layer: row i (from 1) of the columns
// comes from fill; rows listed in del are deleted afterwards.
struct TableSpec {
    std::vector<VRTACOLDEF> cols;
    long rows = 0;
    std::function<void(long, char*)> fill;
    const char* compress = nullptr;
    const char* encrypt = nullptr;
    const char* key = nullptr;
    const char* label = nullptr;
    std::vector<long> del;
};

inline void makeTable(const std::string& domain, const std::string& name, const TableSpec& t) {
    void* lib = nullptr;
    ASSERT_EQ(splasgn(domain.c_str(), &lib), 0);
    VRTACREATE cr{};
    cr.ncols = static_cast<int>(t.cols.size());
    cr.cols = t.cols.data();
    cr.compress = t.compress;
    cr.encrypt = t.encrypt;
    cr.ekey = t.key;
    cr.label = t.label;
    void* fid = nullptr;
    ASSERT_EQ(vrtacreate(lib, name.c_str(), -1, &cr, &fid), 0) << name;
    int len = 0;
    for (const auto& c : t.cols) len += c.length;
    if (t.rows > 0) {
        std::vector<char> buf(static_cast<size_t>(len) * t.rows);
        for (long i = 0; i < t.rows; ++i) t.fill(i + 1, buf.data() + i * len);
        void* io = nullptr;
        ASSERT_EQ(spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io), 0);
        ASSERT_EQ(spwritev(io, t.rows), 0);
        spfreeio(io);
    }
    ASSERT_EQ(vrtaclose(fid), 0);
    if (!t.del.empty()) {
        ASSERT_EQ(vrtaupdate(lib, name.c_str(), -1, nullptr, t.key, 0, nullptr, 0, 0, &fid), 0);
        vrta::DA_FID* fp = vrta::spfidof(fid)->dafid;
        for (long r : t.del) ASSERT_EQ(fp->mt->delobs(fp, r), 0) << r;
        ASSERT_EQ(vrtaclose(fid), 0);
    }
    spldeasgn(lib);
}

// The rows of a table as the direct access API reads them, live rows only.
inline std::vector<std::string> directRows(const std::string& domain, const std::string& name, const char* key = nullptr) {
    std::vector<std::string> out;
    void* lib = nullptr;
    void* fid = nullptr;
    EXPECT_EQ(splasgn(domain.c_str(), &lib), 0);
    EXPECT_EQ(vrtaopen(lib, name.c_str(), -1, nullptr, 0, key, 0, nullptr, 0, 0, &fid), 0);
    if (!fid) return out;
    int32_t len = 0;
    vrtainfo(fid, VRTAINFO_OBSLEN, &len);
    std::vector<char> buf(static_cast<size_t>(len) * 100);
    void* io = nullptr;
    EXPECT_EQ(spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io), 0);
    for (int k = 0; k < 1000000; ++k) {
        long n = 0;
        void* p = nullptr;
        int64_t* ov = nullptr;
        if (spreadv(io, &n, &p, &ov) != 0 || n <= 0) break;
        for (long i = 0; i < n; ++i) out.emplace_back(static_cast<char*>(p) + i * len, len);
    }
    spfreerd(io);
    vrtaclose(fid);
    spldeasgn(lib);
    return out;
}

// A name server and a data server on loopback, and the engine's block.
class Remote {
public:
    Remote() {
        runtimeUp();
        pw = dir.file("pw");
        EXPECT_TRUE(addUser(pw, "alice", "secret1"));
        oldbind_ = vrta::HPDBINDADDR;
        vrta::HPDBINDADDR = "127.0.0.1";
    }
    ~Remote() {
        vrta::HPDBINDADDR = oldbind_;
        while (hpd.lib) vrta::hpdlfree(hpd.lib);
        for (vrta::HPDSERV* s = hpd.serv; s;) {
            vrta::HPDSERV* n = s->next;
            vrta::hpdsfree(s);
            s = n;
        }
    }
    // Starts the servers; the map names each domain directory made here.
    void start(const std::vector<std::string>& domains, std::vector<std::string> servargs = {}) {
        sv = dataServer(dir, pw, servargs);
        std::string map;
        for (const auto& d : domains) {
            mkdir(dir.file(d).c_str(), 0755);
            map += d + " " + dir.file(d) + " 127.0.0.1 " + sv->portText() + "\n";
        }
        vrtatest::writeFile(dir.file("map"), map);
        ns = std::make_unique<Server>("vrtaname", std::vector<std::string>{"--port", "0", "--map", dir.file("map")},
                                      dir.file("name.log"));
        EXPECT_GT(ns->port(), 0) << ns->log();
    }
    std::string domain(const std::string& d) const { return dir.file(d); }
    // Options of an assign through the name server; debug bits added.
    vrta::HPDOPT opt(int bits = 0) const {
        vrta::HPDOPT o = loopOpt(ns->portText(), "alice", "secret1");
        o.backup = 1;
        o.debug |= bits;
        return o;
    }
    vrta::rctype assign(vrta::yhlibref* ref, const char* libref, const std::string& name, vrta::HPDOPT* o) {
        std::memset(ref, 0, sizeof *ref);
        std::memset(ref->libref, ' ', 8);
        std::memcpy(ref->libref, libref, std::strlen(libref));
        std::string n = name;
        void* pn = n.data();
        int sz = static_cast<int>(n.size());
        int fmt = 0, flags = 0;
        void* tok = nullptr;
        return hpdlasg(&hpd, ref, nullptr, &pn, &sz, o, &fmt, nullptr, &tok, &flags);
    }

    vrtatest::TempDir dir;
    std::string pw;
    vrta::HPDECB hpd{};
    std::unique_ptr<Server> sv, ns;

private:
    const char* oldbind_;
};

// An open request for a table of an assigned domain.
inline XOPNSTR openReq(const vrta::yhlibref& ref, const std::string& table, int mode = XO_INPUT) {
    XOPNSTR o{};
    o.peng_lib = ref.englib;
    std::memset(o.memname, ' ', 32);
    std::memcpy(o.memname, table.data(), std::min<size_t>(table.size(), 32));
    std::memset(o.memtype, ' ', 8);
    o.openmode = mode;
    return o;
}

// Every row an open hands out through its fast vector (at most limit), as
// bytes; *rc gets the code that ended the read.
inline std::vector<std::string> readAll(void* fid, XOFPENT* fast, int reclen, vrta::rctype* rc, long limit = 10000000) {
    std::vector<std::string> out;
    *rc = 0;
    for (long i = 0; i < limit; ++i) {
        void* row = nullptr;
        *rc = fast->getn(fast->fpfid ? fast->fpfid : fid, &row);
        if (*rc != 0) break;
        out.emplace_back(static_cast<char*>(row), reclen);
    }
    return out;
}

}  // namespace wiretest
