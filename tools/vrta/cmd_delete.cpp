// vrta delete: deletes the rows of a table that satisfy a WHERE clause,
// through the module's delete context, which keeps the indexes right.
#include <cstdio>
#include <string>
#include <vector>

#include "apiload.h"
#include "vrta.h"
#include "whscan.h"

namespace vrtacli {
namespace {

struct DelApi {
    decltype(&::vrtaupdate) vrtaupdate = nullptr;
    decltype(&::spnewdel) spnewdel = nullptr;
    decltype(&::spdelobs) spdelobs = nullptr;
    decltype(&::spfreedel) spfreedel = nullptr;
};

int run(const std::vector<std::string>& args) {
    std::string key, clause;
    bool hasWhere = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--where" || a == "--key") {
            if (i + 1 >= args.size()) return fail("delete: " + a + " needs a value", 2);
            if (a == "--where") {
                if (hasWhere) return fail("delete: give --where once", 2);
                clause = args[++i];
                hasWhere = true;
            } else {
                key = args[++i];
            }
        } else if (a.size() > 1 && a[0] == '-') {
            return fail("delete: unknown option '" + a + "' (try --help)", 2);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 2) return fail("delete: needs DOMAIN_DIR TABLE --where 'CLAUSE' (try --help)", 2);
    // Deleting every row is asked for in so many words, never by leaving
    // the clause out.
    if (!hasWhere) return fail("delete: needs --where 'CLAUSE' (--where 1 deletes every row)", 2);
    DelApi da;
    {
        ModuleEntries m;
        if (!m.ok) return 1;
        m.get(da.vrtaupdate, "vrtaupdate");
        m.get(da.spnewdel, "spnewdel");
        m.get(da.spdelobs, "spdelobs");
        m.get(da.spfreedel, "spfreedel");
        if (!m.ok) return 1;
    }
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    const std::string& name = pos[1];
    if (!validName(name)) return fail("'" + name + "' is not a table name (1 to 32 letters, digits or _)");
    if (!hasTable(dom, name)) return fail("no table '" + name + "' in the domain");
    OpenTable t;
    t.api = dom.api;
    int rc = da.vrtaupdate(dom.lib, name.c_str(), static_cast<int>(name.size()), nullptr,
                           key.empty() ? nullptr : key.c_str(), 0, nullptr, -1, 0, &t.fid);
    if (rc < 0) {
        t.fid = nullptr;
        return fail("delete: cannot open the table '" + name + "' for update: " + dom.api->text(rc));
    }
    // The rows first, then the deletions: the scan never sees its own work.
    std::vector<int64_t> rows;
    {
        WhereScan ws;
        if (int st = ws.open("delete", t, clause, 0)) return st;
        if (int st = ws.each("delete", [&](const unsigned char*, int64_t obs) { rows.push_back(obs); })) return st;
    }
    void* dc = nullptr;
    rc = da.spnewdel(t.fid, &dc);
    if (rc < 0) return fail("delete: " + dom.api->text(rc));
    int64_t done = 0;
    for (int64_t obs : rows) {
        rc = da.spdelobs(dc, obs);
        if (rc < 0) break;
        ++done;
    }
    int frc = da.spfreedel(dc, rc < 0 ? 1 : 0);
    FILE* out = commandOutput();
    std::fprintf(out, "%lld rows deleted\n", static_cast<long long>(done));
    std::fflush(out);
    if (rc < 0) return fail("delete: row " + std::to_string(rows[done]) + ": " + dom.api->text(rc));
    if (frc < 0) return fail("delete: " + dom.api->text(frc));
    return 0;
}

Register reg({"delete", "delete the rows of a table that satisfy a WHERE clause",
              "usage: vrta delete DOMAIN_DIR TABLE --where 'CLAUSE' [--key KEY]\n"
              "\n"
              "Deletes the rows that satisfy CLAUSE (see vrta where for the language) and\n"
              "says how many went. Indexes are kept in step with the rows. --where 1\n"
              "deletes every row.\n",
              run});

}  // namespace
}  // namespace vrtacli
