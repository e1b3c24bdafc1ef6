// vrta tables: the tables of a domain with their rows and size.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "apiload.h"
#include "remote.h"
#include "vrta.h"

namespace vrtacli {
namespace {

// The tables of a domain on a data server, by the name server's map.
int remote(const RemoteArgs& r, const std::vector<std::string>& pos) {
    if (pos.size() != 1) return fail("tables: needs DOMAIN, a name of the name server's map (try --help)", 2);
    RemoteDomain dom;
    if (int st = dom.assign("tables", r, pos[0])) return st;
    std::vector<std::string> names;
    if (int st = dom.tables("tables", &names)) return st;
    std::sort(names.begin(), names.end());
    FILE* out = commandOutput();
    if (names.empty()) std::fprintf(out, "no tables in %s\n", pos[0].c_str());
    for (std::string n : names) {
        for (char& c : n) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::fprintf(out, "%s\n", n.c_str());
    }
    std::fflush(out);
    return 0;
}

int run(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    RemoteArgs r;
    if (int st = takeRemote(args, &r)) return st;
    std::string key;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--key" && i + 1 < args.size()) key = args[++i];
        else if (args[i].size() > 1 && args[i][0] == '-') return fail("tables: unknown option '" + args[i] + "'", 2);
        else pos.push_back(args[i]);
    }
    if (!r.nameserver.empty()) {
        if (!key.empty()) return fail("tables: --key has no use with --name-server", 2);
        return remote(r, pos);
    }
    if (pos.size() != 1) return fail("tables: needs DOMAIN_DIR (try --help)", 2);
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    const DirectApi* api = dom.api;
    std::vector<std::string> names = tableNames(dom);
    std::sort(names.begin(), names.end());
    struct Line {
        std::string name, rows, size, state;
    };
    std::vector<Line> lines;
    for (const std::string& n : names) {
        // Member names are case-blind; their files are lower case, and so is the list.
        std::string lower = n;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        Line l{lower, "?", "?", ""};
        void* fid = nullptr;
        // An encrypted table opens only with its key: it is listed without
        // figures, and so is one that does not open at all, with why.
        int orc = api->vrtaopen(dom.lib, n.c_str(), static_cast<int>(n.size()), nullptr, 0,
                                key.empty() ? nullptr : key.c_str(), 0, nullptr, -1, 0, &fid);
        if (orc < 0 && encrypted(dom.dir, n)) l.state = key.empty() ? "encrypted" : "encrypted, key does not fit";
        else if (orc < 0) l.state = "cannot be read: " + api->text(orc);
        if (unfinished(dom.dir, n)) l.state = "incomplete: never finished by its creator";
        if (orc >= 0) {
            int64_t rows = 0;
            if (api->vrtainfo(fid, VRTAINFO_NUMOBS, &rows) == 0) l.rows = std::to_string(rows);
            int64_t total = 0;
            for (int which = 0; which < 2; ++which)
                for (int p = 0;; ++p) {
                    int64_t sz = 0;
                    if (api->vrtapartinfo(fid, which, p, nullptr, 0, &sz) != 0) break;
                    total += sz;
                }
            l.size = std::to_string(total);
            api->vrtaclose(fid);
        }
        lines.push_back(l);
    }
    FILE* out = commandOutput();
    if (lines.empty()) {
        std::fprintf(out, "no tables in %s\n", pos[0].c_str());
        return 0;
    }
    size_t wn = 5, wr = 4, ws = 5;
    for (const Line& l : lines) {
        wn = std::max(wn, l.name.size());
        wr = std::max(wr, l.rows.size());
        ws = std::max(ws, l.size.size());
    }
    std::fprintf(out, "%-*s  %*s  %*s\n", static_cast<int>(wn), "TABLE", static_cast<int>(wr), "ROWS",
                 static_cast<int>(ws), "BYTES");
    for (const Line& l : lines) {
        std::string line(l.name);
        line.resize(wn, ' ');
        char figs[96];
        std::snprintf(figs, sizeof figs, "  %*s  %*s", static_cast<int>(wr), l.rows.c_str(), static_cast<int>(ws),
                      l.size.c_str());
        line += figs;
        if (!l.state.empty()) line += "  (" + l.state + ")";
        std::fprintf(out, "%s\n", line.c_str());
    }
    std::fflush(out);
    return 0;
}

Register reg({"tables", "list the tables of a domain with rows and size",
              "usage: vrta tables DOMAIN_DIR [--key KEY]\n"
              "       vrta tables --name-server HOST:PORT --user USER DOMAIN\n"
              "\n"
              "Lists the domain's tables, their rows and the bytes of all their files.\n"
              "An encrypted table shows '?' unless KEY opens it; a table that cannot be read,\n"
              "or that its creator never finished, shows '?' and says why.\n"
              "\n"
              "With --name-server, DOMAIN is a name of the name server's map: the engine\n"
              "assigns it over the wire, logs in as USER (password from VRTA_PASSWORD, or\n"
              "asked for on a terminal) and lists the names of its tables.\n",
              run});

}  // namespace
}  // namespace vrtacli
