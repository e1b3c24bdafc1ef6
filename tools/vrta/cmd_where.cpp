// vrta where: a WHERE clause checked against a table's columns, shown as the
// module reads it back from its wire form.
#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <vector>

#include "apiload.h"
#include "vrta.h"
#include "vrta/vrtawh.h"

namespace vrtacli {
namespace {

struct WhereApi {
    decltype(&::vrtawhparse) parse = nullptr;
    decltype(&::vrtawhshow) show = nullptr;
    decltype(&::vrtawhfree) release = nullptr;
};

const WhereApi* whereApi() {
    static WhereApi api;
    static bool loaded = false;
    if (loaded) return api.parse ? &api : nullptr;
    loaded = true;
    std::string path;
    void* h = loadModule(&path);
    if (!h) return nullptr;
    api.parse = reinterpret_cast<decltype(api.parse)>(dlsym(h, "vrtawhparse"));
    api.show = reinterpret_cast<decltype(api.show)>(dlsym(h, "vrtawhshow"));
    api.release = reinterpret_cast<decltype(api.release)>(dlsym(h, "vrtawhfree"));
    if (!api.parse || !api.show || !api.release) {
        api.parse = nullptr;
        fail("the module " + path + " has no WHERE entries");
        return nullptr;
    }
    return &api;
}

int run(const std::vector<std::string>& args) {
    std::string key;
    bool wire = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--key" && i + 1 < args.size()) key = args[++i];
        else if (args[i] == "--wire") wire = true;
        else if (args[i].size() > 1 && args[i][0] == '-' && pos.size() < 2)
            return fail("where: unknown option '" + args[i] + "'", 2);
        else pos.push_back(args[i]);
    }
    if (pos.size() != 3) return fail("where: needs DOMAIN_DIR TABLE 'CLAUSE' (try --help)", 2);
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    OpenTable t;
    if (int st = t.open(dom, pos[1], key)) return st;
    const WhereApi* wa = whereApi();
    if (!wa) return 1;

    std::vector<ColInfo> cols = columns(t);
    std::vector<VRTAWHCOL> wc;
    for (const ColInfo& c : cols)
        wc.push_back(VRTAWHCOL{c.name.c_str(), static_cast<int>(c.name.size()), c.type, c.len, c.pos});
    const std::string& clause = pos[2];
    void* bytes = nullptr;
    int nbytes = 0;
    char msg[512];
    int rc = wa->parse(clause.data(), static_cast<int>(clause.size()), wc.data(), static_cast<int>(wc.size()),
                       &bytes, &nbytes, msg, sizeof msg);
    if (rc != 0) {
        std::string m = msg[0] ? msg : dom.api->text(rc);
        // Point at the place in the clause when the message gives one.
        int col = 0;
        if (std::sscanf(msg, "at column %d:", &col) == 1 && col >= 1 &&
            col <= static_cast<int>(clause.size()) + 1)
            m += "\n  " + clause + "\n  " + std::string(col - 1, ' ') + "^";
        return fail("where: " + m);
    }
    char* text = nullptr;
    char* tree = nullptr;
    rc = wa->show(bytes, nbytes, VRTAWH_TEXT, &text);
    if (rc == 0) rc = wa->show(bytes, nbytes, VRTAWH_TREE, &tree);
    if (rc != 0) {
        wa->release(text);
        wa->release(bytes);
        return fail("where: the wire form does not read back: " + dom.api->text(rc));
    }
    FILE* out = commandOutput();
    std::fprintf(out, "clause: %s\n", text);
    std::fprintf(out, "%s", tree);
    if (wire) {
        std::fprintf(out, "wire: %d bytes\n", nbytes);
        const auto* b = static_cast<const unsigned char*>(bytes);
        for (int i = 0; i < nbytes; i += 16) {
            std::fprintf(out, "  %06x ", i);
            for (int j = i; j < i + 16; ++j) {
                if (j < nbytes) std::fprintf(out, " %02x", b[j]);
                else std::fprintf(out, "   ");
            }
            std::fprintf(out, "  ");
            for (int j = i; j < i + 16 && j < nbytes; ++j) std::fputc(b[j] >= 0x20 && b[j] < 0x7f ? b[j] : '.', out);
            std::fprintf(out, "\n");
        }
    }
    std::fflush(out);
    wa->release(text);
    wa->release(tree);
    wa->release(bytes);
    return 0;
}

Register reg({"where", "check a WHERE clause against a table and show its tree",
              "usage: vrta where DOMAIN_DIR TABLE 'CLAUSE' [--key KEY] [--wire]\n"
              "\n"
              "Parses CLAUSE against the table's columns and functions, turns it into the\n"
              "wire form a data server receives, reads that back and shows the clause as the\n"
              "module renders it and the tree it holds. --wire also dumps the wire bytes.\n"
              "\n"
              "A clause: comparisons = ^= <> < <= > >= (and =: <: ... on the leading part of\n"
              "strings), + - * / ** || on values, and, or, not, in (...), between ... and ...,\n"
              "like, contains, =* (sounds like), is [not] null, is [not] missing, missing(x);\n"
              "strings in single or double quotes (a doubled quote stands for itself);\n"
              "numbers; missing values . ._ .A to .Z; column names; function calls.\n"
              "Scanning rows through a clause is not available yet.\n",
              run});

}  // namespace
}  // namespace vrtacli
