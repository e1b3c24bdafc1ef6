// vrta print: a table's rows, aligned or as CSV.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <cctype>
#include <string>
#include <vector>

#include "apiload.h"
#include "csv.h"
#include "rowout.h"
#include "engopts.h"
#include "ixrows.h"
#include "remote.h"
#include "vrta.h"

namespace vrtacli {
namespace {

constexpr long BUFROWS = 1024;

bool count(const std::string& s, int64_t* n) {
    char* e = nullptr;
    long long v = std::strtoll(s.c_str(), &e, 10);
    if (s.empty() || *e || v < 0) return false;
    *n = v;
    return true;
}

// Calls each(row) for every live row from row `from` up to row `until`, at
// most `limit` rows.
int scan(const OpenTable& t, int obslen, int64_t from, int64_t limit, int64_t until,
         const std::function<void(const unsigned char*)>& each) {
    const DirectApi* api = t.api;
    std::vector<unsigned char> buf(static_cast<size_t>(BUFROWS) * obslen);
    void* io = nullptr;
    int rc = api->spnewrd(t.fid, static_cast<long>(buf.size()), buf.data(), &io);
    if (rc < 0) return fail("print: cannot read the table: " + api->text(rc));
    if (from > 1 && (rc = api->spsetloc(io, from)) < 0) {
        api->spfreerd(io);
        return fail("print: cannot position the table: " + api->text(rc));
    }
    int64_t done = 0;
    // Row numbers: as the cursor reports them when rows are deleted, else
    // counted on from `from`.
    int64_t next = from;
    bool past = false;
    while (done < limit && !past) {
        long n = 0;
        void* p = nullptr;
        int64_t* obs = nullptr;
        rc = api->spreadv(io, &n, &p, &obs);
        if (rc < 0) {
            api->spfreerd(io);
            return fail("print: reading rows failed: " + api->text(rc));
        }
        if (n <= 0) break;
        for (long i = 0; i < n && done < limit; ++i, ++done) {
            if ((obs ? obs[i] : next + i) > until) {
                past = true;
                break;
            }
            each(static_cast<unsigned char*>(p) + i * obslen);
        }
        next += n;
    }
    api->spfreerd(io);
    return 0;
}

int run(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    RemoteArgs ra;
    if (int st = takeRemote(args, &ra)) return st;
    std::string key, opt;
    bool csv = false, hasopt = false;
    int64_t first = -1, last = -1;
    IndexLookup look;
    bool haseq = false, hasrange = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--csv") {
            csv = true;
        } else if (a == "--opt") {
            if (i + 1 >= args.size() || hasopt) return fail("print: give --opt once, with a text of options", 2);
            opt = args[++i];
            hasopt = true;
        } else if (a == "--key") {
            if (i + 1 >= args.size()) return fail("print: --key needs a value", 2);
            key = args[++i];
        } else if (a == "--first" || a == "--last") {
            int64_t n;
            if (i + 1 >= args.size() || !count(args[i + 1], &n)) return fail("print: " + a + " needs a count", 2);
            ++i;
            (a == "--first" ? first : last) = n;
        } else if (a == "--index") {
            if (i + 1 >= args.size() || !look.index.empty()) return fail("print: give --index once, with an index name", 2);
            look.index = args[++i];
        } else if (a == "--eq") {
            if (i + 1 >= args.size() || haseq) return fail("print: give --eq once, with a value", 2);
            look.eq = args[++i];
            haseq = true;
        } else if (a == "--range") {
            if (i + 1 >= args.size() || hasrange) return fail("print: give --range once, as LO..HI", 2);
            if (!parseRange(args[++i], &look)) return fail("print: --range takes LO..HI (an end may be left out)", 2);
            hasrange = true;
        } else if (a.size() > 1 && a[0] == '-') {
            return fail("print: unknown option '" + a + "' (try --help)", 2);
        } else {
            pos.push_back(a);
        }
    }
    const bool remote = !ra.nameserver.empty();
    if (pos.size() != 2) return fail(remote ? "print: needs DOMAIN TABLE (try --help)" : "print: needs DOMAIN_DIR TABLE (try --help)", 2);
    if (first >= 0 && last >= 0) return fail("print: give --first or --last, not both", 2);
    if (!look.index.empty() && haseq == hasrange) return fail("print: --index needs --eq VALUE or --range LO..HI", 2);
    if (look.index.empty() && (haseq || hasrange)) return fail("print: --eq and --range need --index INDEX", 2);
    if (!look.index.empty() && remote) return fail("print: --index reads a local domain only", 2);
    // Table options: the key, and the rows by number.
    int64_t startobs = 1, endobs = INT64_MAX;
    EngineOptions o;
    if (hasopt) {
        if (int st = engineOptions("print", opt, OptKind::Table, &o)) return st;
        if (int st = onlyOptions("print", o, {"PW", "READ", "STARTOBS", "ENDOBS"})) return st;
        const vrta::HPOOPT* t = o.table;
        if (t && t->ekey[0]) {
            if (!key.empty()) return fail("print: give the key once, with --key or PW=", 2);
            key.assign(t->ekey, strnlen(t->ekey, sizeof t->ekey));
        }
        if (t && t->startobs > 0) startobs = t->startobs;
        if (t && t->endobs > 0) endobs = t->endobs;
        if (startobs > endobs) return fail("print: STARTOBS is above ENDOBS", 2);
        if (last >= 0 && (startobs > 1 || endobs < INT64_MAX))
            return fail("print: give --last or STARTOBS and ENDOBS, not both", 2);
    }

    std::vector<ColInfo> cols;
    RowScan pass;
    Domain dom;
    OpenTable t;
    RemoteDomain rdom;
    RemoteTable rt;
    int64_t limit = first >= 0 ? first : INT64_MAX;
    if (remote) {
        // The engine sends a table's key upper-cased; a key that would change
        // is refused rather than sent wrong.
        if (!key.empty()) {
            for (char c : key)
                if (std::islower(static_cast<unsigned char>(c)))
                    return fail("print: over the wire a table's key goes in capitals; this key has small letters", 2);
            if (key.size() > 12 || key.find('\'') != std::string::npos)
                return fail("print: the key is longer than 12 characters or holds a quote", 2);
            if (int st = engineOptions("print", "PW='" + key + "'", OptKind::Table, &o)) return st;
        }
        if (int st = rdom.assign("print", ra, pos[0])) return st;
        if (int st = rt.open("print", rdom, pos[1], o.table, ra.road)) return st;
        cols = rt.columns();
        pass = [&](const std::function<void(const unsigned char*)>& each) {
            int64_t done = 0;
            return rt.rows("print", [&](const unsigned char* r) {
                if (done >= limit) return false;
                each(r);
                return ++done < limit;
            });
        };
    } else {
        if (int st = dom.assign(pos[0])) return st;
        if (int st = t.open(dom, pos[1], key)) return st;
        VRTAINFO vi;
        int rc = dom.api->vrtainfo(t.fid, VRTAINFO_ALL, &vi);
        if (rc != 0) return fail("print: " + dom.api->text(rc));
        cols = columns(t);
        // The rows wanted: the first N from row 1, or the last N, found from a
        // row early enough that deleted rows cannot leave fewer than N behind it.
        int64_t from = startobs;
        if (last >= 0) from = std::max<int64_t>(1, vi.numobs - last - vi.numdelete + 1);
        int obslen = vi.obslen;
        pass = [&t, obslen, from, limit, endobs](const std::function<void(const unsigned char*)>& each) {
            return scan(t, obslen, from, limit, endobs, each);
        };
        if (!look.index.empty()) {
            if (startobs > 1 || endobs < INT64_MAX) return fail("print: give --index or STARTOBS and ENDOBS, not both", 2);
            std::string table = pos[1];
            pass = [&dom, &t, table, key, &look, limit](const std::function<void(const unsigned char*)>& each) {
                return indexRows(dom, t, table, key, look, limit, each);
            };
        }
    }
    int rowlen = 0;
    for (const ColInfo& c : cols) rowlen = std::max(rowlen, c.pos + c.len);
    auto keep = [&](auto each) -> int {
        if (last < 0) return pass(each);
        std::deque<std::vector<unsigned char>> tail;
        int st = pass([&](const unsigned char* r) {
            if (last == 0) return;
            tail.emplace_back(r, r + rowlen);
            if (static_cast<int64_t>(tail.size()) > last) tail.pop_front();
        });
        if (st) return st;
        for (const auto& r : tail) each(r.data());
        return 0;
    };

    FILE* out = commandOutput();
    RowScan scan = [&](const std::function<void(const unsigned char*)>& each) { return keep(each); };
    return csv ? printCsv(out, cols, scan) : printAligned(out, cols, scan);
}

Register reg({"print", "print a table's rows, aligned or as CSV",
              "usage: vrta print DOMAIN_DIR TABLE [--csv] [--first N] [--last N] [--key KEY]\n"
              "                  [--opt 'TABLE OPTIONS'] [--index INDEX (--eq VALUE | --range LO..HI)]\n"
              "       vrta print --name-server HOST:PORT --user USER DOMAIN TABLE [--road wire|direct]\n"
              "                  [--csv] [--first N] [--last N] [--key KEY] [--opt 'TABLE OPTIONS']\n"
              "\n"
              "Prints the rows as an aligned table, numbers to the right, or with --csv as\n"
              "CSV with a header line, which vrta load reads back into the same rows.\n"
              "Missing numbers print as nothing.\n"
              "\n"
              "  --first N   only the first N rows\n"
              "  --last N    only the last N rows\n"
              "  --key KEY   the key of an encrypted table\n"
              "  --opt TEXT  table options in the host's form: STARTOBS=n and ENDOBS=n (rows by\n"
              "              their number), PW='key' or READ='key' (in quotes to keep its case)\n"
              "  --index INDEX --eq VALUE\n"
              "              only the rows whose indexed column equals VALUE, found through\n"
              "              the index (for an index of several columns, its first)\n"
              "  --index INDEX --range LO..HI\n"
              "              only the rows from LO to HI, both included; LO.. and ..HI leave an\n"
              "              end open. A number column takes a number or . (missing)\n"
              "\n"
              "With --name-server, DOMAIN is a name of the name server's map: the engine\n"
              "assigns it, logs in as USER (password from VRTA_PASSWORD, or asked for on a\n"
              "terminal) and reads the rows through its engine vector: over the wire, or on\n"
              "the direct path when the data server runs on this machine. --road wire keeps\n"
              "the direct path off; --road direct refuses to read over the wire. A key goes\n"
              "to the server in capitals, so a key with small letters is refused.\n",
              run});

}  // namespace
}  // namespace vrtacli
