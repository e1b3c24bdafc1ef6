// vrta sort: a sorted copy of a table.
#include <signal.h>

#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "apiload.h"
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

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// "1M", "64K", "2G" (powers of 1024) or plain bytes; -1 when malformed.
int64_t parseSize(const std::string& s) {
    if (s.empty() || !std::isdigit(static_cast<unsigned char>(s[0]))) return -1;
    size_t i = 0;
    int64_t v = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
        if (v > (INT64_MAX - 9) / 10) return -1;
        v = v * 10 + (s[i++] - '0');
    }
    int shift = 0;
    if (i < s.size()) {
        char u = static_cast<char>(std::toupper(static_cast<unsigned char>(s[i++])));
        shift = u == 'K' ? 10 : u == 'M' ? 20 : u == 'G' ? 30 : -1;
        if (shift < 0 || i != s.size()) return -1;
    }
    if (v > (INT64_MAX >> shift)) return -1;
    return v << shift;
}

// "COL[,COL DESC...]" against the table's columns.
int parseKeys(const std::string& by, const std::vector<ColInfo>& cols, std::vector<VRTASORTKEY>* keys) {
    size_t start = 0;
    while (start <= by.size()) {
        size_t end = by.find(',', start);
        if (end == std::string::npos) end = by.size();
        std::string item = trim(by.substr(start, end - start));
        start = end + 1;
        if (item.empty()) return fail("sort: --by has an empty item in '" + by + "'", 2);
        std::string name = item, dir;
        size_t sp = item.find_first_of(" \t");
        if (sp != std::string::npos) {
            name = item.substr(0, sp);
            dir = upper(trim(item.substr(sp)));
        }
        if (!dir.empty() && dir != "ASC" && dir != "DESC")
            return fail("sort: '" + item + "': the order is ASC or DESC", 2);
        int var = 0;
        for (size_t i = 0; i < cols.size(); ++i)
            if (upper(cols[i].name) == upper(name)) var = static_cast<int>(i + 1);
        if (!var) return fail("sort: the table has no column '" + name + "'", 2);
        for (auto& k : *keys)
            if (k.var == var) return fail("sort: column '" + name + "' is named twice in --by", 2);
        if (keys->size() == 128) return fail("sort: at most 128 columns in --by", 2);
        keys->push_back({var, dir == "DESC" ? 1 : 0});
        if (end == by.size()) break;
    }
    return 0;
}

std::string exitName(const char* n8) {
    std::string s(n8, 8);
    while (!s.empty() && (s.back() == ' ' || s.back() == 0)) s.pop_back();
    return s;
}

// An exit option's value: NO (none) becomes "", a name is checked as load does.
int exitOption(const char* opt, std::string* v) {
    if (upper(*v) == "NO") {
        v->clear();
        return 0;
    }
    if (v->empty() || v->size() > 8 || v->find('/') != std::string::npos)
        return fail(std::string("sort: ") + opt + " '" + *v + "' is not an exit name (up to 8 characters) or NO", 2);
    if ((*v)[0] == '.')
        return fail("sort: the exit '" + *v + "' cannot be chosen: names starting with a point are kept for the system",
                    2);
    return 0;
}

int keyOption(const char* opt, const std::string& k) {
    if (k.empty() || k.size() > 12) return fail(std::string("sort: the ") + opt + " must be 1 to 12 characters", 2);
    // The exit pads a key with blanks: an all-blank one would be no key at all.
    if (k.find_first_not_of(' ') == std::string::npos)
        return fail(std::string("sort: the ") + opt + " is blank; give 1 to 12 characters that are not all blanks", 2);
    return 0;
}

int run(const std::vector<std::string>& args) {
    std::string by, out, mem, key, outkey, compress, encrypt;
    bool hascomp = false, hasenc = false, haskey = false, hasoutkey = false;
    std::vector<std::string> pos;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool val = i + 1 < args.size();
        if (a == "--by" && val) by = args[++i];
        else if (a == "--out" && val) out = args[++i];
        else if (a == "--memory" && val) mem = args[++i];
        else if (a == "--key" && val) key = args[++i], haskey = true;
        else if (a == "--out-key" && val) outkey = args[++i], hasoutkey = true;
        else if (a == "--compress" && val) compress = args[++i], hascomp = true;
        else if (a == "--encrypt" && val) encrypt = args[++i], hasenc = true;
        else if (a.size() > 1 && a[0] == '-') return fail("sort: unknown or incomplete option '" + a + "'", 2);
        else pos.push_back(a);
    }
    if (pos.size() != 2 || by.empty() || out.empty())
        return fail("sort: needs DOMAIN_DIR TABLE --by COLS --out NEWTABLE (try --help)", 2);
    if (!validName(out)) return fail("sort: '" + out + "' is not a valid table name", 2);
    if (upper(out) == upper(pos[1])) return fail("sort: --out must name a new table, not the input", 2);
    int64_t memsize = 0;
    if (!mem.empty()) {
        memsize = parseSize(mem);
        if (memsize < 0) return fail("sort: --memory '" + mem + "' is not a size like 64K, 1M or 2G", 2);
        if (memsize < 65536) return fail("sort: --memory must be at least 64K", 2);
    }
    if (hascomp)
        if (int st = exitOption("--compress", &compress)) return st;
    if (hasenc)
        if (int st = exitOption("--encrypt", &encrypt)) return st;
    if (haskey)
        if (int st = keyOption("key", key)) return st;
    if (hasoutkey)
        if (int st = keyOption("--out-key", outkey)) return st;
    Domain dom;
    if (int st = dom.assign(pos[0])) return st;
    if (hasTable(dom, out)) return fail("sort: table " + upper(out) + " already exists");
    std::vector<VRTASORTKEY> keys;
    {
        OpenTable t;
        if (int st = t.open(dom, pos[1], key)) return st;
        if (int st = parseKeys(by, columns(t), &keys)) return st;
        // The copy keeps the input's exit unless told otherwise; what it ends
        // up with is checked here so that a conflict is named before the sort.
        VRTAINFO vi;
        int rc = dom.api->vrtainfo(t.fid, VRTAINFO_ALL, &vi);
        if (rc < 0) return fail("sort: " + dom.api->text(rc));
        std::string comp = hascomp ? compress : exitName(vi.diskcomp);
        std::string enc = hasenc ? encrypt : exitName(vi.encrypt);
        if (!comp.empty() && !enc.empty() && upper(comp) != upper(enc))
            return fail("sort: a table takes one exit: the copy would be compressed with " + comp +
                            " and encrypted with " + enc + (hasenc ? "" : "; add --encrypt NO for a copy that is not encrypted"),
                        2);
        if (!enc.empty() && !haskey && !hasoutkey) return fail("sort: an encrypted copy needs --key or --out-key", 2);
        if (enc.empty() && hasoutkey) return fail("sort: --out-key is only for an encrypted copy", 2);
    }

    // An interrupt stops the sort; the module then removes what it made.
    struct sigaction sa{};
    sa.sa_handler = onsignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);

    PhaseBar bar;
    bar.first = "sorting " + upper(pos[1]);
    bar.second = "writing " + upper(out);
    VRTASORT req{};
    req.nkeys = static_cast<int>(keys.size());
    req.keys = keys.data();
    req.memsize = memsize;
    req.ekey = key.empty() ? nullptr : key.c_str();
    req.compress = hascomp ? compress.c_str() : nullptr;
    req.encrypt = hasenc ? encrypt.c_str() : nullptr;
    req.out_ekey = hasoutkey ? outkey.c_str() : nullptr;
    req.interrupt = &interrupted;
    req.progress = phaseProgress;
    req.progress_arg = &bar;
    const DirectApi* api = dom.api;
    int rc = api->vrtasort(dom.lib, pos[1].c_str(), static_cast<int>(pos[1].size()), out.c_str(),
                           static_cast<int>(out.size()), &req);
    bar.bar.done();
    if (rc < 0) return fail("sort: " + api->text(rc), interrupted ? 130 : 1);
    return 0;
}

Register reg({"sort", "write a sorted copy of a table",
              "usage: vrta sort DOMAIN_DIR TABLE --by COL[,COL DESC...] --out NEWTABLE\n"
              "                 [--memory SIZE] [--key KEY] [--compress NAME|NO]\n"
              "                 [--encrypt NAME|NO] [--out-key KEY]\n"
              "\n"
              "Writes the rows of TABLE to the new table NEWTABLE in the order of the\n"
              "columns given with --by, each ASC (the default) or DESC, in any case. Rows\n"
              "with equal keys keep their order; a missing number sorts first, characters\n"
              "by their bytes. The new table records the order, which 'vrta describe' shows.\n"
              "\n"
              "The copy keeps what TABLE is made of: its columns with their labels and\n"
              "formats, its label, block and partition sizes, and its exit: the copy of an\n"
              "encrypted table is encrypted with the same exit and key, the copy of a\n"
              "compressed one compressed alike. The options below change that.\n"
              "\n"
              "--memory SIZE      sort memory, as 64K, 1M or 2G (default: the SORTSIZE\n"
              "                   option, else 64M). A larger table spills sorted runs to the\n"
              "                   work path (the WORKPATH option, else /var/tmp) and merges.\n"
              "--key KEY          the key of an encrypted TABLE, and of the copy when it is\n"
              "                   encrypted (1 to 12 characters).\n"
              "--compress NAME    compress the copy with the exit NAME (VRTARLC2, VRTARLLC,\n"
              "                   VRTALZWC, or a module on VRTA_LIBRARY_PATH); NO: not at all.\n"
              "--encrypt NAME     encrypt the copy with the exit NAME (VRTACRYP); NO writes\n"
              "                   a copy that is not encrypted.\n"
              "--out-key KEY      the copy's key, when it is not TABLE's.\n"
              "\n"
              "A table takes one exit: a copy both compressed and encrypted by two\n"
              "different ones is refused. A progress bar shows on a terminal. An\n"
              "interrupted or failed sort leaves no new table and no work file.\n",
              run});

}  // namespace
}  // namespace vrtacli
