#include "whscan.h"

#include <cstdio>

#include "vrta.h"
#include "vrta/vrtawh.h"

namespace vrtacli {

namespace {

struct WhApi {
#define WH_FN(n) decltype(&::n) n = nullptr;
    WH_FN(vrtawhparse)
    WH_FN(vrtawhfree)
    WH_FN(spnewwh)
    WH_FN(spfreewh)
    WH_FN(spwhset)
    WH_FN(spwhget)
    WH_FN(spwhobsvec)
    WH_FN(spwhthreads)
    WH_FN(spwhexplain)
#undef WH_FN
};

const WhApi* whApi() {
    static WhApi api;
    static int state = 0;  // 0 not tried, 1 loaded, 2 failed
    if (state) return state == 1 ? &api : nullptr;
    ModuleEntries m;
    if (m.ok) {
#define WH_GET(n) m.get(api.n, #n);
        WH_GET(vrtawhparse) WH_GET(vrtawhfree) WH_GET(spnewwh) WH_GET(spfreewh) WH_GET(spwhset) WH_GET(spwhget)
        WH_GET(spwhobsvec) WH_GET(spwhthreads) WH_GET(spwhexplain)
#undef WH_GET
    }
    state = m.ok ? 1 : 2;
    return state == 1 ? &api : nullptr;
}

constexpr long BUFROWS = 4096;

}  // namespace

WhereScan::~WhereScan() {
    if (wh) whApi()->spfreewh(wh);
}

int WhereScan::open(const char* cmd, const OpenTable& t, const std::string& clause, int threads) {
    const WhApi* wa = whApi();
    if (!wa) return 1;
    std::string c = cmd;
    std::vector<ColInfo> cols = columns(t);
    std::vector<VRTAWHCOL> wc;
    for (const ColInfo& ci : cols)
        wc.push_back(VRTAWHCOL{ci.name.c_str(), static_cast<int>(ci.name.size()), ci.type, ci.len, ci.pos});
    void* bytes = nullptr;
    int nbytes = 0;
    char msg[512];
    int rc = wa->vrtawhparse(clause.data(), static_cast<int>(clause.size()), wc.data(), static_cast<int>(wc.size()),
                             &bytes, &nbytes, msg, sizeof msg);
    if (rc != 0) {
        std::string m = msg[0] ? msg : t.api->text(rc);
        int col = 0;
        if (std::sscanf(msg, "at column %d:", &col) == 1 && col >= 1 && col <= static_cast<int>(clause.size()) + 1)
            m += "\n  " + clause + "\n  " + std::string(col - 1, ' ') + "^";
        return fail(c + ": " + m);
    }
    wire.assign(static_cast<unsigned char*>(bytes), static_cast<unsigned char*>(bytes) + nbytes);
    wa->vrtawhfree(bytes);
    VRTAINFO vi;
    if ((rc = t.api->vrtainfo(t.fid, VRTAINFO_ALL, &vi)) != 0) return fail(c + ": " + t.api->text(rc));
    obslen = vi.obslen;
    long bufsize = BUFROWS * (obslen + 8);
    buf.resize(static_cast<size_t>(BUFROWS) * obslen);
    if ((rc = wa->spnewwh(t.fid, bufsize, 0, 0, &wh)) < 0) {
        wh = nullptr;
        return fail(c + ": cannot make a WHERE cursor: " + t.api->text(rc));
    }
    if (threads > 0 && (rc = wa->spwhthreads(wh, threads)) < 0) return fail(c + ": " + t.api->text(rc));
    return rewind(cmd);
}

int WhereScan::rewind(const char* cmd) {
    const WhApi* wa = whApi();
    int st = 0;
    // The rows are read in one stream: the plan may take row numbers
    // straight from an index.
    constexpr int SEQUENTIAL = 0x02;
    int rc = wa->spwhset(wh, wire.data(), SEQUENTIAL, 0, nullptr, &flags, &st);
    if (rc < 0) return fail(std::string(cmd) + ": the clause cannot be planned: " + directApi()->text(rc));
    // A plan that dropped part of the clause would give more rows than asked
    // for; a host tests them again, this tool cannot.
    if (flags & VRTAWH_FSOME) return fail(std::string(cmd) + ": part of the clause cannot be evaluated here");
    return 0;
}

int WhereScan::each(const char* cmd, const std::function<void(const unsigned char*, int64_t)>& fn) {
    const WhApi* wa = whApi();
    for (;;) {
        long n = 0;
        int rc = wa->spwhget(wh, buf.data(), &n);
        if (rc == VRTA_RC_NOMORE) return 0;
        if (rc < 0) return fail(std::string(cmd) + ": reading rows failed: " + directApi()->text(rc));
        const int64_t* obs = wa->spwhobsvec(wh);
        for (long i = 0; i < n; i++) fn(buf.data() + i * obslen, obs[i]);
    }
}

std::string WhereScan::explain() const {
    char text[8192];
    int n = whApi()->spwhexplain(wh, text, sizeof text);
    return n > 0 ? std::string(text, n) : std::string();
}

}  // namespace vrtacli
