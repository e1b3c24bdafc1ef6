// vrta describe: what a table is made of.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "apiload.h"
#include "engopts.h"
#include "remote.h"
#include "vrta.h"

namespace vrtacli {
namespace {

std::string exitName(const char* n) {
    std::string s(n, 8);
    while (!s.empty() && (s.back() == ' ' || s.back() == 0)) s.pop_back();
    return s.empty() ? "none" : s;
}

// The column list, as both roads print it.
void printColumns(FILE* out, const std::vector<ColInfo>& cols) {
    size_t wn = 4;
    for (const ColInfo& c : cols) wn = std::max(wn, c.name.size());
    std::fprintf(out, "\ncolumns: %zu\n", cols.size());
    std::fprintf(out, "  %3s  %-*s  %-11s  %8s  %6s  %s\n", "#", static_cast<int>(wn), "NAME", "TYPE", "POSITION",
                 "LENGTH", "LABEL");
    for (size_t i = 0; i < cols.size(); ++i) {
        const ColInfo& c = cols[i];
        std::string type = c.type == 1 ? "num" : "char(" + std::to_string(c.len) + ")";
        char line[512];
        std::snprintf(line, sizeof line, "  %3zu  %-*s  %-11s  %8d  %6d  %s", i + 1, static_cast<int>(wn), c.name.c_str(),
                      type.c_str(), c.pos, c.len, c.label.c_str());
        std::string l = line;
        while (!l.empty() && l.back() == ' ') l.pop_back();
        std::fprintf(out, "%s\n", l.c_str());
    }
}

std::string sortText(const std::vector<int>& order, const std::vector<ColInfo>& cols) {
    std::string text;
    for (size_t k = 0; k < order.size(); ++k) {
        int v = order[k] < 0 ? -order[k] : order[k];
        if (k) text += ", ";
        if (v >= 1 && v <= static_cast<int>(cols.size()))
            text += cols[v - 1].name;
        else
            (text += '#') += std::to_string(v);
        if (order[k] < 0) text += " DESC";
    }
    return text;
}

// A table of a remote domain as the engine describes it to a host.
int remote(const RemoteArgs& ra, const std::vector<std::string>& pos, vrta::HPOOPT* opts) {
    if (pos.size() != 2) return fail("describe: needs DOMAIN TABLE (try --help)", 2);
    RemoteDomain dom;
    if (int st = dom.assign("describe", ra, pos[0])) return st;
    RemoteTable t;
    if (int st = t.open("describe", dom, pos[1], opts, ra.road)) return st;
    const INFOSTR& in = t.info();
    FILE* out = commandOutput();
    std::string name(in.memname, 32);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    std::fprintf(out, "table:         %s\n", name.c_str());
    std::fprintf(out, "domain:        %s\n", pos[0].c_str());
    if (in.label_l > 0) std::fprintf(out, "label:         %.*s\n", in.label_l, in.label);
    std::fprintf(out, "rows:          %lld\n", static_cast<long long>(in.num_prec));
    std::fprintf(out, "deleted rows:  %lld\n", static_cast<long long>(in.num_del));
    std::fprintf(out, "row length:    %d bytes\n", in.rec_len);
    std::fprintf(out, "block factor:  %d rows\n", t.blockfactor());
    std::string comp(in.compress, 8);
    while (!comp.empty() && comp.back() == ' ') comp.pop_back();
    std::fprintf(out, "compression:   %s\n", comp == "NO" ? "none" : comp.c_str());
    std::fprintf(out, "indexes:       %s\n", (in.flags & 64) ? "yes" : "0");
    std::fprintf(out, "road:          %s\n", t.direct() ? "direct path beside the wire" : "wire");
    std::vector<int> order = t.sortOrder();
    if (!order.empty()) std::fprintf(out, "sorted by:     %s\n", sortText(order, t.columns()).c_str());
    printColumns(out, t.columns());
    std::fflush(out);
    return 0;
}

int run(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    RemoteArgs ra;
    if (int st = takeRemote(args, &ra)) return st;
    std::string key, opt;
    bool hasopt = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--key" && i + 1 < args.size()) key = args[++i];
        else if (args[i] == "--opt" && i + 1 < args.size() && !hasopt) opt = args[++i], hasopt = true;
        else if (args[i].size() > 1 && args[i][0] == '-') return fail("describe: unknown option '" + args[i] + "'", 2);
        else pos.push_back(args[i]);
    }
    EngineOptions o;
    if (!ra.nameserver.empty()) {
        if (!key.empty()) return fail("describe: give a remote table's key as --opt \"PW='KEY'\"", 2);
        if (hasopt) {
            if (int st = engineOptions("describe", opt, OptKind::Table, &o)) return st;
            if (int st = onlyOptions("describe", o, {"PW", "READ"})) return st;
        }
        return remote(ra, pos, o.table);
    }
    if (pos.size() != 2) return fail("describe: needs DOMAIN_DIR TABLE (try --help)", 2);
    if (hasopt) {
        if (int st = engineOptions("describe", opt, OptKind::Table, &o)) return st;
        if (int st = onlyOptions("describe", o, {"PW", "READ"})) return st;
        if (o.table && o.table->ekey[0]) {
            if (!key.empty()) return fail("describe: give the key once, with --key or PW=", 2);
            key.assign(o.table->ekey, strnlen(o.table->ekey, sizeof o.table->ekey));
        }
    }
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    OpenTable t;
    if (int st = t.open(dom, pos[1], key)) return st;
    const DirectApi* api = dom.api;
    VRTAINFO vi;
    int rc = api->vrtainfo(t.fid, VRTAINFO_ALL, &vi);
    if (rc != 0) return fail("describe: " + api->text(rc));
    u_sname mem{}, loc{};
    api->vrtainfo(t.fid, VRTAINFO_MEMBER, &mem);
    api->vrtainfo(t.fid, VRTAINFO_LOCALE, &loc);
    int32_t cei = 0;
    api->vrtainfo(t.fid, VRTAINFO_ENCODING, &cei);

    FILE* out = commandOutput();
    std::fprintf(out, "table:         %.*s\n", mem.len, mem.name);
    std::fprintf(out, "domain:        %s\n", pos[0].c_str());
    if (vi.label_l > 0) std::fprintf(out, "label:         %.*s\n", vi.label_l, vi.label);
    std::fprintf(out, "rows:          %lld\n", static_cast<long long>(vi.numobs));
    std::fprintf(out, "deleted rows:  %lld\n", static_cast<long long>(vi.numdelete));
    std::fprintf(out, "row length:    %d bytes\n", vi.obslen);
    std::fprintf(out, "block size:    %d bytes\n", vi.blocksize);
    std::fprintf(out, "block factor:  %d rows\n", vi.blockfactor);
    if (vi.partfactor > 0)
        std::fprintf(out, "partition:     %lld rows, %lld bytes\n", static_cast<long long>(vi.partfactor),
                     static_cast<long long>(vi.partsize));
    else
        std::fprintf(out, "partition:     unlimited\n");
    std::fprintf(out, "segment:       %lld rows\n", static_cast<long long>(vi.idxsegsize));
    std::fprintf(out, "encoding:      %d, locale %.*s\n", cei, loc.len, loc.name);
    std::fprintf(out, "compression:   %s\n", exitName(vi.diskcomp).c_str());
    std::fprintf(out, "encryption:    %s\n", exitName(vi.encrypt).c_str());
    std::fprintf(out, "indexes:       %d\n", vi.numindex);

    std::vector<ColInfo> cols = columns(t);
    VRTASORTINFO si{};
    if (api->vrtainfo(t.fid, VRTAINFO_SORT, &si) == 0 && si.nvars > 0)
        std::fprintf(out, "sorted by:     %s\n", sortText(std::vector<int>(si.var, si.var + si.nvars), cols).c_str());
    printColumns(out, cols);

    std::fprintf(out, "\nfiles:\n");
    for (int which : {1, 0}) {
        for (int p = 0;; ++p) {
            char path[1024];
            int64_t sz = 0;
            if (api->vrtapartinfo(t.fid, which, p, path, sizeof path, &sz) != 0) break;
            std::fprintf(out, "  %-8s %2d  %12lld  %s\n", which ? "metadata" : "data", p, static_cast<long long>(sz),
                         path);
        }
    }
    std::fflush(out);
    return 0;
}

Register reg({"describe", "show a table's columns, rows, blocks, partitions, files and exits",
              "usage: vrta describe DOMAIN_DIR TABLE [--key KEY] [--opt 'TABLE OPTIONS']\n"
              "       vrta describe --name-server HOST:PORT --user USER DOMAIN TABLE [--road wire|direct]\n"
              "                     [--opt 'TABLE OPTIONS']\n"
              "\n"
              "Shows the table's rows and deleted rows, row length, block size and factor,\n"
              "partitioning, encoding, compression and encryption exits, its columns, and\n"
              "every file with its size. An encrypted table needs its KEY, given with --key\n"
              "or as the table option PW='key' (in quotes to keep its case).\n"
              "\n"
              "With --name-server, DOMAIN is a name of the name server's map: the engine\n"
              "opens the table over the wire (password from VRTA_PASSWORD, or asked for on\n"
              "a terminal) and shows it as a host sees it, and which road its rows take.\n",
              run});

}  // namespace
}  // namespace vrtacli
