// vrta index: make, list and drop a table's indexes.
#include <signal.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "apiload.h"
#include "index.h"
#include "progress.h"
#include "vrta.h"

namespace vrtacli {
namespace {

volatile int interrupted = 0;
void onsignal(int) { interrupted = 1; }

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// "COL[,COL]" as 1-based columns of the table.
int parseCols(const std::string& on, const std::vector<ColInfo>& cols, std::vector<int32_t>* out) {
    size_t start = 0;
    while (true) {
        size_t end = on.find(',', start);
        if (end == std::string::npos) end = on.size();
        std::string name = on.substr(start, end - start);
        int var = 0;
        for (size_t i = 0; i < cols.size(); ++i)
            if (upper(cols[i].name) == upper(name)) var = static_cast<int>(i + 1);
        if (name.empty()) return fail("index: --on has an empty item in '" + on + "'", 2);
        if (!var) return fail("index: the table has no column '" + name + "'", 2);
        for (int32_t v : *out)
            if (v == var) return fail("index: column '" + name + "' is named twice in --on", 2);
        if (out->size() == 64) return fail("index: at most 64 columns in --on", 2);
        out->push_back(var);
        if (end == on.size()) return 0;
        start = end + 1;
    }
}

}  // namespace

// Builds index `index` of an assigned domain's table; 0 or the exit status.
int buildIndex(const Domain& dom, const std::string& table, const std::string& index, const std::string& on,
               bool unique, const std::string& key) {
    std::vector<int32_t> cols;
    {
        OpenTable t;
        if (int st = t.open(dom, table, key)) return st;
        if (int st = parseCols(on, columns(t), &cols)) return st;
    }
    struct sigaction sa{};
    sa.sa_handler = onsignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    PhaseBar bar;
    bar.first = "sorting " + upper(table);
    bar.second = "indexing " + upper(index);
    VRTAINDEXDEF def{};
    def.name = index.c_str();
    def.ncols = static_cast<int>(cols.size());
    def.cols = cols.data();
    def.flags = unique ? VRTAIX_UNIQUE : 0;
    def.ekey = key.empty() ? nullptr : key.c_str();
    def.interrupt = &interrupted;
    def.progress = phaseProgress;
    def.progress_arg = &bar;
    int rc = dom.api->vrtaidxcreate(dom.lib, table.c_str(), static_cast<int>(table.size()), &def);
    bar.bar.done();
    if (rc < 0) return fail("index: " + dom.api->text(rc), interrupted ? 130 : 1);
    return 0;
}

namespace {

int list(const Domain& dom, const std::string& table, const std::string& key) {
    std::vector<VRTAIDXINFO> info(64);
    int n = dom.api->vrtaidxlist(dom.lib, table.c_str(), static_cast<int>(table.size()),
                                 key.empty() ? nullptr : key.c_str(), info.data(), static_cast<int>(info.size()));
    if (n < 0) return fail("index: " + dom.api->text(n));
    std::vector<ColInfo> cols;
    {
        OpenTable t;
        if (int st = t.open(dom, table, key)) return st;
        cols = columns(t);
    }
    FILE* out = commandOutput();
    std::fprintf(out, "%-32s %-24s %12s %12s %12s  %s\n", "INDEX", "COLUMNS", "VALUES", "ROWS", "BYTES", "STATE");
    for (int i = 0; i < n && i < static_cast<int>(info.size()); ++i) {
        const VRTAIDXINFO& x = info[i];
        std::string c;
        for (int k = 0; k < x.ncols; ++k) {
            if (k) c += ",";
            int v = x.cols[k];
            c += v >= 1 && v <= static_cast<int>(cols.size()) ? cols[v - 1].name : std::to_string(v);
        }
        std::fprintf(out, "%-32s %-24s %12" PRId64 " %12" PRId64 " %12" PRId64 "  %s%s\n", x.name, c.c_str(),
                     x.numvals, x.highobs, x.bytes, x.usable ? "usable" : "needs rebuild",
                     (x.keyflags & 1) ? ", unique" : "");
    }
    return 0;
}

int run(const std::vector<std::string>& args) {
    std::string on, key;
    bool unique = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool val = i + 1 < args.size();
        if (a == "--on" && val) on = args[++i];
        else if (a == "--key" && val) key = args[++i];
        else if (a == "--unique") unique = true;
        else if (a.size() > 1 && a[0] == '-') return fail("index: unknown or incomplete option '" + a + "'", 2);
        else pos.push_back(a);
    }
    if (pos.empty()) return fail("index: needs create, list or drop (try --help)", 2);
    std::string what = pos[0];
    if (what == "create" && (pos.size() != 4 || on.empty()))
        return fail("index: create needs DOMAIN_DIR TABLE INDEX --on COL[,COL] (try --help)", 2);
    if (what == "drop" && pos.size() != 4) return fail("index: drop needs DOMAIN_DIR TABLE INDEX (try --help)", 2);
    if (what == "list" && pos.size() != 3) return fail("index: list needs DOMAIN_DIR TABLE (try --help)", 2);
    if (what != "create" && what != "drop" && what != "list")
        return fail("index: '" + what + "' is not create, list or drop", 2);
    if (what != "create" && (!on.empty() || unique)) return fail("index: --on and --unique go with create", 2);
    if (pos.size() == 4 && !validName(pos[3])) return fail("index: '" + pos[3] + "' is not a valid index name", 2);
    Domain dom;
    if (int st = dom.assign(pos[1])) return st;
    if (!hasTable(dom, pos[2])) return fail("index: no table " + upper(pos[2]) + " in " + pos[1]);
    if (what == "create") return buildIndex(dom, pos[2], pos[3], on, unique, key);
    if (what == "list") return list(dom, pos[2], key);
    int rc = dom.api->vrtaidxdrop(dom.lib, pos[2].c_str(), static_cast<int>(pos[2].size()), pos[3].c_str(),
                                  key.empty() ? nullptr : key.c_str());
    if (rc < 0) return fail("index: " + dom.api->text(rc));
    if (rc > 0) return fail("index: " + dom.api->text(rc) + " (not dropped)");
    return 0;
}

Register reg({"index", "make, list or drop a table's indexes",
              "usage: vrta index create DOMAIN_DIR TABLE INDEX --on COL[,COL] [--unique] [--key KEY]\n"
              "       vrta index list DOMAIN_DIR TABLE [--key KEY]\n"
              "       vrta index drop DOMAIN_DIR TABLE INDEX [--key KEY]\n"
              "\n"
              "create builds the index INDEX of TABLE over the columns given with --on, in\n"
              "that order; with --unique a value may stand in one row only. The rows are\n"
              "sorted on the way (spilling to the work path when they do not fit memory);\n"
              "a progress bar shows on a terminal. A failed or interrupted build leaves no\n"
              "index. list shows each index: its columns, distinct values, rows indexed,\n"
              "the bytes of its files, and whether it is usable or must be rebuilt (rows\n"
              "added since, or a build that did not finish). drop removes one.\n"
              "--key KEY is the key of an encrypted TABLE.\n",
              run});

}  // namespace
}  // namespace vrtacli
