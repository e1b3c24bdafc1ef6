// vrta sql: a query run by the module on a domain's tables, its rows printed
// aligned or as CSV, and with --explain what the module did to answer it.
#include <dlfcn.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "apiload.h"
#include "csv.h"
#include "vrta.h"
#include "vrta/vrtasql.h"

namespace vrtacli {
namespace {

volatile int stopflag = 0;
void onsignal(int) { stopflag = 1; }

std::string cell(const VRTASQLCOL& c, const char* row) {
    const char* p = row + c.offset;
    if (c.type == 1) {
        if (isMissing(reinterpret_cast<const unsigned char*>(p))) {
            unsigned char r = static_cast<unsigned char>(p[5]);
            // The rank byte names the missing value: "._", ".", ".A" to ".Z".
            if (r == 0xFF) return "._";
            if (r >= 0xE4 && r <= 0xFD) return std::string(".") + static_cast<char>('A' + (0xFD - r));
            return ".";
        }
        double d;
        std::memcpy(&d, p, 8);
        return formatNumber(d);
    }
    int n = c.length;
    while (n > 0 && p[n - 1] == ' ') n--;
    return std::string(p, n);
}

int run(const std::vector<std::string>& args) {
    bool csv = false, explain = false;
    int threads = 0;
    double mem = 0;
    std::string key;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--csv") csv = true;
        else if (args[i] == "--explain") explain = true;
        else if (args[i] == "--threads" && i + 1 < args.size()) threads = std::atoi(args[++i].c_str());
        else if (args[i] == "--mem" && i + 1 < args.size()) mem = std::atof(args[++i].c_str());
        else if (args[i] == "--key" && i + 1 < args.size()) key = args[++i];
        else if (args[i].size() > 1 && args[i][0] == '-' && pos.size() < 2)
            return fail("sql: unknown option '" + args[i] + "'", 2);
        else pos.push_back(args[i]);
    }
    if (pos.size() != 2) return fail("sql: needs DOMAIN_DIR 'SELECT ...' (try --help)", 2);
    if (threads < 0 || threads > 16) return fail("sql: --threads takes 1 to 16", 2);
    if (mem < 0) return fail("sql: --mem takes a number of bytes", 2);
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    std::string path;
    void* h = loadModule(&path);
    if (!h) return 1;
    auto sql = reinterpret_cast<decltype(&::vrtasql)>(dlsym(h, "vrtasql"));
    auto sqlfree = reinterpret_cast<decltype(&::vrtasqlfree)>(dlsym(h, "vrtasqlfree"));
    if (!sql || !sqlfree) return fail("the module " + path + " has no query entry");
    VRTASQLOPT opt{threads, mem, &stopflag, key.empty() ? nullptr : key.c_str()};
    struct sigaction sa {}, oldint{}, oldterm{};
    sa.sa_handler = onsignal;
    sigaction(SIGINT, &sa, &oldint);
    sigaction(SIGTERM, &sa, &oldterm);
    VRTASQLRES* res = nullptr;
    char msg[512];
    const std::string& q = pos[1];
    FILE* out = commandOutput();
    int rc = sql(dom.lib, q.data(), static_cast<int>(q.size()), &opt, &res, msg, sizeof msg);
    sigaction(SIGINT, &oldint, nullptr);
    sigaction(SIGTERM, &oldterm, nullptr);
    if (rc != 0) {
        std::string m = msg[0] ? msg : dom.api->text(rc);
        int col = 0;
        if (std::sscanf(msg, "at column %d:", &col) == 1 && col >= 1 && col <= static_cast<int>(q.size()) + 1)
            m += "\n  " + q + "\n  " + std::string(col - 1, ' ') + "^";
        return fail("sql: " + m);
    }
    std::vector<std::vector<std::string>> cells;
    for (int64_t r = 0; r < res->nrows; r++) {
        std::vector<std::string> row;
        for (int c = 0; c < res->ncols; c++) row.push_back(cell(res->cols[c], res->rows + r * res->rowlen));
        cells.push_back(std::move(row));
    }
    if (csv) {
        for (int c = 0; c < res->ncols; c++) std::fprintf(out, "%s%s", c ? "," : "", csvField(res->cols[c].name).c_str());
        std::fprintf(out, "\n");
        for (const auto& row : cells) {
            for (size_t c = 0; c < row.size(); c++) std::fprintf(out, "%s%s", c ? "," : "", csvField(row[c]).c_str());
            std::fprintf(out, "\n");
        }
    } else {
        std::vector<size_t> w(res->ncols);
        for (int c = 0; c < res->ncols; c++) w[c] = std::strlen(res->cols[c].name);
        for (const auto& row : cells)
            for (size_t c = 0; c < row.size(); c++) w[c] = std::max(w[c], row[c].size());
        auto line = [&](const std::vector<std::string>& v, bool head) {
            for (int c = 0; c < res->ncols; c++) {
                bool right = !head && res->cols[c].type == 1;
                std::fprintf(out, "%s%*s", c ? "  " : "", right ? static_cast<int>(w[c]) : -static_cast<int>(w[c]),
                             v[c].c_str());
            }
            std::fprintf(out, "\n");
        };
        std::vector<std::string> head;
        for (int c = 0; c < res->ncols; c++) head.push_back(res->cols[c].name);
        line(head, true);
        for (const auto& row : cells) line(row, false);
        std::fprintf(out, "(%lld row%s)\n", static_cast<long long>(res->nrows), res->nrows == 1 ? "" : "s");
    }
    if (explain) std::fprintf(csv ? stderr : out, "plan:\n%s", res->plan);
    else if (std::strstr(res->plan, "VRTA_WARNING")) std::fprintf(stderr, "%s", std::strstr(res->plan, "\nVRTA_WARNING"));
    std::fflush(out);
    sqlfree(res);
    return 0;
}

Register reg({"sql", "run a query (SELECT ... FROM table ...) on a domain's tables",
              "usage: vrta sql DOMAIN_DIR 'SELECT ...' [--csv] [--explain] [--threads N] [--mem BYTES] [--key KEY]\n"
              "\n"
              "  SELECT items FROM table [WHERE clause] [GROUP BY refs] [HAVING clause]\n"
              "         [ORDER BY items [ASC|DESC]] [LIMIT n]\n"
              "\n"
              "Items are *, or expressions of the WHERE language (see 'vrta where --help') with\n"
              "aggregates COUNT(*), COUNT([DISTINCT] x), SUM, AVG, MIN, MAX, STD, VAR, CSS, USS,\n"
              "NMISS, RANGE, STDERR, N of an expression, each with an optional [AS] alias.\n"
              "GROUP BY takes columns, aliases, positions or expressions; ORDER BY aliases,\n"
              "positions or expressions. See docs/sql.md.\n"
              "Rows print aligned, or as CSV with --csv. --explain adds what was done: the WHERE\n"
              "plan, threads, metascan and spill. --threads sets the scan threads (default 2),\n"
              "--mem the group-by memory of all threads together in bytes (spilling beyond).\n"
              "Ctrl-C stops a query; nothing is printed of a stopped one.\n",
              run});

}  // namespace
}  // namespace vrtacli
