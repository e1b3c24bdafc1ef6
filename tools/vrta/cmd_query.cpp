// vrta query: the rows of a table that satisfy a WHERE clause, through the
// module's planner and WHERE cursor.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "apiload.h"
#include "rowout.h"
#include "vrta.h"
#include "whscan.h"

namespace vrtacli {
namespace {

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
           });
}

// The columns named in list (comma separated, any case), in its order.
int pickColumns(const std::vector<ColInfo>& all, const std::string& list, std::vector<ColInfo>* out) {
    size_t at = 0;
    while (at <= list.size()) {
        size_t comma = list.find(',', at);
        std::string n = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        while (!n.empty() && n.front() == ' ') n.erase(n.begin());
        while (!n.empty() && n.back() == ' ') n.pop_back();
        if (n.empty()) return fail("query: --columns has an empty name", 2);
        auto it = std::find_if(all.begin(), all.end(), [&](const ColInfo& c) { return sameName(c.name, n); });
        if (it == all.end()) return fail("query: the table has no column " + n, 2);
        out->push_back(*it);
        if (comma == std::string::npos) break;
        at = comma + 1;
    }
    return 0;
}

int run(const std::vector<std::string>& args) {
    std::string key, clause, collist;
    bool csv = false, count = false, explain = false, hasWhere = false, hasCols = false;
    int threads = 0;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--where" || a == "--columns" || a == "--key" || a == "--threads") {
            if (i + 1 >= args.size()) return fail("query: " + a + " needs a value", 2);
            const std::string& v = args[++i];
            if (a == "--where") {
                if (hasWhere) return fail("query: give --where once", 2);
                clause = v;
                hasWhere = true;
            } else if (a == "--columns") {
                collist = v;
                hasCols = true;
            } else if (a == "--key") {
                key = v;
            } else {
                char* e = nullptr;
                long n = std::strtol(v.c_str(), &e, 10);
                if (v.empty() || *e || n < 1 || n > 16) return fail("query: --threads needs a count from 1 to 16", 2);
                threads = static_cast<int>(n);
            }
        } else if (a == "--csv") {
            csv = true;
        } else if (a == "--count") {
            count = true;
        } else if (a == "--explain") {
            explain = true;
        } else if (a.size() > 1 && a[0] == '-') {
            return fail("query: unknown option '" + a + "' (try --help)", 2);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 2) return fail("query: needs DOMAIN_DIR TABLE --where 'CLAUSE' (try --help)", 2);
    if (!hasWhere) return fail("query: needs --where 'CLAUSE'", 2);
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    OpenTable t;
    if (int st = t.open(dom, pos[1], key)) return st;
    std::vector<ColInfo> all = columns(t), cols;
    if (hasCols) {
        if (int st = pickColumns(all, collist, &cols)) return st;
    } else {
        cols = all;
    }
    WhereScan ws;
    if (int st = ws.open("query", t, clause, threads)) return st;
    FILE* out = commandOutput();
    if (explain) {
        std::fputs(ws.explain().c_str(), out);
        if (!count) {
            std::fflush(out);
            return 0;
        }
    }
    if (count) {
        int64_t n = 0;
        int st = ws.each("query", [&](const unsigned char*, int64_t) { ++n; });
        if (st) return st;
        std::fprintf(out, "%lld\n", static_cast<long long>(n));
        std::fflush(out);
        return 0;
    }
    // The second pass of the aligned form plans the clause again and
    // starts over from the first row.
    int passes = 0;
    RowScan scan = [&](const std::function<void(const unsigned char*)>& each) {
        if (passes++ > 0)
            if (int st = ws.rewind("query")) return st;
        return ws.each("query", [&](const unsigned char* r, int64_t) { each(r); });
    };
    return csv ? printCsv(out, cols, scan) : printAligned(out, cols, scan);
}

Register reg({"query", "print the rows of a table that satisfy a WHERE clause",
              "usage: vrta query DOMAIN_DIR TABLE --where 'CLAUSE' [--columns LIST] [--csv]\n"
              "                  [--count] [--explain] [--threads N] [--key KEY]\n"
              "\n"
              "Plans CLAUSE (see vrta where for the language) and prints the rows that\n"
              "satisfy it, in row order, aligned or with --csv as CSV.\n"
              "\n"
              "  --columns LIST  only these columns, comma separated, in this order\n"
              "  --count         only the number of matching rows\n"
              "  --explain       the plan: index tree, row test, method, threads and the\n"
              "                  segments to read (with --count, the count after it)\n"
              "  --threads N     at most N threads test rows (the plan may use fewer)\n"
              "  --key KEY       the key of an encrypted table\n",
              run});

}  // namespace
}  // namespace vrtacli
