// vrta load: a table made from a CSV file through the direct access API.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "apiload.h"
#include "index.h"
#include "engopts.h"
#include "csv.h"
#include "progress.h"
#include "vrta.h"

namespace vrtacli {
namespace {

constexpr int MAXCHAR = 32767;
// Rows go to the table a buffer at a time: up to this many rows, and no more
// bytes than a megabyte holds unless one row is wider.
constexpr long ROWS_PER_WRITE = 4096;
constexpr long BYTES_PER_WRITE = 1 << 20;

struct Column {
    std::string name;
    int type = 0;       // 0 to infer, 1 number, 2 character
    int length = 0;     // character width; 0 to infer
    bool numeric = true;    // what the scan found
    bool anyvalue = false;
    size_t widest = 0;
};

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string trimmed(const std::string& s) {
    size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

// Digits with an optional sign, point and exponent: what a number column takes.
bool parseNumber(const std::string& text, double* v) {
    std::string s = trimmed(text);
    size_t i = 0, n = s.size();
    if (i < n && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0;
    while (i < n && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    if (i < n && s[i] == '.') {
        ++i;
        while (i < n && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < n && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        if (i < n && (s[i] == '+' || s[i] == '-')) ++i;
        size_t ed = 0;
        while (i < n && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++ed;
        if (ed == 0) return false;
    }
    if (i != n) return false;
    errno = 0;
    double d = std::strtod(s.c_str(), nullptr);
    if (!std::isfinite(d)) return false;
    *v = d;
    return true;
}

// A decimal value as sign, significant digits and power of ten; zero has no
// digits. Two texts stand for the same number exactly when these agree.
struct Decimal {
    bool neg = false;
    std::string digits;
    long long exp = 0;
    bool operator==(const Decimal& o) const {
        return digits == o.digits && (digits.empty() || (neg == o.neg && exp == o.exp));
    }
};

// Of text already accepted by parseNumber (or written by to_chars).
Decimal decimalOf(const std::string& s) {
    Decimal d;
    size_t i = 0, n = s.size();
    if (i < n && (s[i] == '+' || s[i] == '-')) d.neg = s[i++] == '-';
    long long frac = 0;
    bool point = false;
    for (; i < n && (std::isdigit(static_cast<unsigned char>(s[i])) || s[i] == '.'); ++i) {
        if (s[i] == '.') {
            point = true;
            continue;
        }
        d.digits.push_back(s[i]);
        if (point) ++frac;
    }
    long long e = 0;
    if (i < n && (s[i] == 'e' || s[i] == 'E')) {
        bool eneg = s[++i] == '-';
        if (s[i] == '+' || s[i] == '-') ++i;
        // Exponents this long only matter for a zero, whose digits are none.
        for (; i < n; ++i) e = std::min<long long>(e * 10 + (s[i] - '0'), 1LL << 40);
        if (eneg) e = -e;
    }
    size_t lead = d.digits.find_first_not_of('0');
    if (lead == std::string::npos) return Decimal{d.neg, "", 0};
    d.digits.erase(0, lead);
    size_t tail = d.digits.find_last_not_of('0');
    long long dropped = static_cast<long long>(d.digits.size() - tail - 1);
    d.digits.resize(tail + 1);
    d.exp = e - frac + dropped;
    return d;
}

// A number the column can keep exactly: the double holds the very decimal
// value written, and the text has no leading zero that reading it back
// would lose (01234 is an identifier, not 1234).
bool exactNumber(const std::string& text, double v) {
    std::string s = trimmed(text);
    size_t i = (s[0] == '+' || s[0] == '-') ? 1 : 0;
    if (i + 1 < s.size() && s[i] == '0' && std::isdigit(static_cast<unsigned char>(s[i + 1]))) return false;
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return decimalOf(s) == decimalOf(std::string(buf, r.ptr));
}

// "id:num,name:char(20),note:char" into the columns named.
int applyTypes(const std::string& typelist, std::vector<Column>& cols) {
    size_t start = 0;
    while (start <= typelist.size()) {
        size_t end = typelist.find(',', start);
        if (end == std::string::npos) end = typelist.size();
        std::string item = typelist.substr(start, end - start);
        start = end + 1;
        if (item.empty()) {
            if (end == typelist.size()) break;
            return fail("--types: an empty item in '" + typelist + "'", 2);
        }
        size_t colon = item.find(':');
        if (colon == std::string::npos) return fail("--types: '" + item + "' is not NAME:TYPE", 2);
        std::string name = item.substr(0, colon), type = item.substr(colon + 1);
        auto it = std::find_if(cols.begin(), cols.end(), [&](const Column& c) { return upper(c.name) == upper(name); });
        if (it == cols.end()) return fail("--types: the file has no column '" + name + "'", 2);
        std::string t = type;
        for (char& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (t == "num") {
            it->type = 1;
        } else if (t == "char") {
            it->type = 2;
        } else if (t.rfind("char(", 0) == 0 && t.back() == ')') {
            std::string w = t.substr(5, t.size() - 6);
            char* e = nullptr;
            long n = std::strtol(w.c_str(), &e, 10);
            if (w.empty() || *e || n < 1 || n > MAXCHAR)
                return fail("--types: the width in '" + item + "' must be 1 to " + std::to_string(MAXCHAR), 2);
            it->type = 2;
            it->length = static_cast<int>(n);
        } else {
            return fail("--types: unknown type '" + type + "' (num, char or char(N))", 2);
        }
        if (end == typelist.size()) break;
    }
    return 0;
}

int mkdirs(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        int e = mkdirs(dir.substr(0, slash));
        if (e) return e;
    }
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) return errno;
    return 0;
}

// An interrupted load still removes what it made: the signal only stops the loop.
volatile sig_atomic_t stopped = 0;
void onsignal(int) { stopped = 1; }
void catchsignals() {
    struct sigaction sa{};
    sa.sa_handler = onsignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

std::string where(const std::string& file, long line) { return file + ":" + std::to_string(line) + ": "; }

int run(const std::vector<std::string>& args) {
    std::vector<std::string> pos;
    std::string compress, encrypt, key, types, opt, label;
    std::vector<std::string> indexes;
    bool haskey = false, hasopt = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) return false;
            out = args[++i];
            return true;
        };
        if (a == "--opt") {
            if (i + 1 >= args.size() || hasopt) return fail("load: give --opt once, with a text of options", 2);
            opt = args[++i];
            hasopt = true;
        } else if (a == "--compress") {
            if (!value(compress)) return fail("load: --compress needs an exit name", 2);
        } else if (a == "--encrypt") {
            if (!value(encrypt)) return fail("load: --encrypt needs an exit name", 2);
        } else if (a == "--key") {
            if (!value(key)) return fail("load: --key needs a value", 2);
            haskey = true;
        } else if (a == "--types") {
            if (!value(types)) return fail("load: --types needs a list like id:num,name:char(20)", 2);
        } else if (a == "--index") {
            std::string on;
            if (!value(on) || on.empty()) return fail("load: --index needs a column, or COL,COL", 2);
            indexes.push_back(on);
        } else if (a.size() > 1 && a[0] == '-' && a != "-") {
            return fail("load: unknown option '" + a + "' (try --help)", 2);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 3) return fail("load: needs DOMAIN_DIR TABLE FILE.csv (try --help)", 2);
    const std::string &dir = pos[0], &table = pos[1], &file = pos[2];
    if (hasopt) {
        // Table options: the compression exit and the label.
        EngineOptions o;
        if (int st = engineOptions("load", opt, OptKind::Table, &o)) return st;
        if (int st = onlyOptions("load", o, {"COMPRESS", "LABEL"})) return st;
        if (const vrta::HPOOPT* t = o.table) {
            std::string name(t->compress, sizeof t->compress);
            while (!name.empty() && name.back() == ' ') name.pop_back();
            const bool given = std::find(o.keys.begin(), o.keys.end(), "COMPRESS") != o.keys.end();
            if (given && t->comp && name.empty())
                return fail("load: COMPRESS=YES leaves the exit open; name it, as in COMPRESS=VRTARLC2", 2);
            if (given && !compress.empty() && (!t->comp || upper(name) != upper(compress)))
                return fail("load: --compress and COMPRESS= say different things", 2);
            if (given && t->comp) compress = name;
            label.assign(t->label, strnlen(t->label, sizeof t->label));
        }
    }
    if (!validName(table)) return fail("load: '" + table + "' is not a table name (1 to 32 letters, digits or _)", 2);
    for (const std::string* x : {&compress, &encrypt})
        if (!x->empty() && (x->size() > 8 || x->find('/') != std::string::npos))
            return fail("load: '" + *x + "' is not an exit name (up to 8 characters)", 2);
    if (!encrypt.empty() && !haskey) return fail("load: --encrypt needs --key", 2);
    if (haskey && encrypt.empty()) return fail("load: --key is only for --encrypt", 2);
    if (haskey && (key.empty() || key.size() > 12)) return fail("load: the key must be 1 to 12 characters", 2);
    // The exit pads a key with blanks: an all-blank one would be no key at all.
    if (haskey && key.find_first_not_of(' ') == std::string::npos)
        return fail("load: the key is blank; give 1 to 12 characters that are not all blanks", 2);
    for (const std::string* x : {&compress, &encrypt})
        if (!x->empty() && (*x)[0] == '.')
            return fail("load: the exit '" + *x + "' cannot be chosen: names starting with a point are kept for the system",
                        2);
    if (!compress.empty() && !encrypt.empty() && upper(compress) != upper(encrypt))
        return fail("load: a table takes one exit; --compress and --encrypt name different ones", 2);

    catchsignals();
    FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) return fail("load: cannot open " + file + ": " + std::strerror(errno));
    struct FileCloser {
        FILE* f;
        ~FileCloser() { std::fclose(f); }
    } closer{f};
    struct stat fst;
    uint64_t fsize = fstat(fileno(f), &fst) == 0 ? static_cast<uint64_t>(fst.st_size) : 0;

    CsvReader csv(f);
    std::vector<std::string> fields;
    if (!csv.next(fields)) {
        if (!csv.error().empty()) return fail(where(file, csv.line()) + csv.error());
        return fail("load: " + file + " is empty: it needs a header line");
    }
    std::vector<Column> cols;
    std::unordered_set<std::string> seen;
    for (size_t i = 0; i < fields.size(); ++i) {
        std::string n = trimmed(fields[i]);
        if (n.empty()) return fail(where(file, csv.line()) + "column " + std::to_string(i + 1) + " has no name");
        if (n.size() > 32)
            return fail(where(file, csv.line()) + "the column name '" + n.substr(0, 64) + (n.size() > 64 ? "..." : "") +
                        "' is longer than 32");
        for (char c : n)
            if (static_cast<unsigned char>(c) < 0x20)
                return fail(where(file, csv.line()) + "the column name '" + n + "' holds a control character");
        if (!seen.insert(upper(n)).second)
            return fail(where(file, csv.line()) + "the column '" + n + "' is there twice");
        Column c;
        c.name = n;
        cols.push_back(c);
    }
    if (!types.empty()) {
        if (int st = applyTypes(types, cols)) return st;
    }
    const size_t ncol = cols.size();

    Progress bar;
    bar.total = fsize;
    // The first pass, when a type or width is to be inferred, also finds
    // every malformed line before anything is made.
    bool scan = std::any_of(cols.begin(), cols.end(), [](const Column& c) { return c.type == 0 || (c.type == 2 && c.length == 0); });
    if (scan) {
        bar.what = "scanning " + file;
        long rows = 0;
        while (csv.next(fields)) {
            if (stopped) return fail("load: interrupted");
            if (fields.size() != ncol)
                return fail(where(file, csv.line()) + "expected " + std::to_string(ncol) + " fields, found " +
                            std::to_string(fields.size()));
            for (size_t i = 0; i < ncol; ++i) {
                Column& c = cols[i];
                const std::string& v = fields[i];
                c.widest = std::max(c.widest, v.size());
                double d;
                if (!trimmed(v).empty()) {
                    c.anyvalue = true;
                    if (c.numeric && !(parseNumber(v, &d) && exactNumber(v, d))) c.numeric = false;
                }
            }
            if ((++rows & 0xfff) == 0) bar.show(csv.consumed(), rows);
        }
        bar.done();
        if (!csv.error().empty()) return fail(where(file, csv.line()) + csv.error());
        for (Column& c : cols) {
            if (c.type == 0) c.type = (c.numeric && c.anyvalue) ? 1 : 2;
            if (c.type == 2 && c.length == 0) {
                if (c.widest > static_cast<size_t>(MAXCHAR))
                    return fail("load: the column '" + c.name + "' holds values longer than " + std::to_string(MAXCHAR));
                c.length = std::max<int>(1, static_cast<int>(c.widest));
            }
        }
        if (!csv.rewind()) return fail("load: cannot read " + file + " a second time (is it a regular file?)");
        csv.next(fields);
    }

    if (int e = mkdirs(dir)) return fail("load: cannot make the domain directory '" + dir + "': " + std::strerror(e));
    // Data partitions are named after the domain's whole path, with room for
    // five digits of partition and four of revision.
    if (char real[PATH_MAX]; realpath(dir.c_str(), real)) {
        size_t id = 0;
        for (const char* p = real; *p; ++p)
            if (*p != '/' || (p[1] && p[1] != '/')) ++id;
        size_t need = table.size() + std::strlen(".dpf.") + id + std::strlen(".99999.9999.vrta9");
        if (need > NAME_MAX)
            return fail("load: the domain path '" + std::string(real) + "' is too long: its data file names would be " +
                        std::to_string(need) + " characters, above the limit of " + std::to_string(NAME_MAX));
    }
    Domain dom;
    if (int st = dom.assign(dir)) return st;
    const DirectApi* api = dom.api;
    if (hasTable(dom, table)) {
        if (!unfinished(dir, table)) return fail("load: the table '" + table + "' already exists in " + dir);
        // What a killed load left is no table: it goes, and this load takes its place.
        std::fprintf(stderr, "vrta: load: the table '%s' in %s was never finished; replacing it\n", table.c_str(),
                     dir.c_str());
        int drc = api->spdelete(dom.lib, table.c_str(), static_cast<int>(table.size()));
        if (drc < 0) return fail("load: cannot remove the unfinished table '" + table + "': " + api->text(drc));
    }

    std::vector<VRTACOLDEF> defs(ncol);
    std::vector<int> posn(ncol);
    int obslen = 0;
    for (size_t i = 0; i < ncol; ++i) {
        defs[i] = VRTACOLDEF{cols[i].name.c_str(), static_cast<int>(cols[i].name.size()), nullptr, 0, cols[i].type,
                             cols[i].type == 1 ? 8 : cols[i].length};
        posn[i] = obslen;
        obslen += defs[i].length;
    }
    VRTACREATE cr{};
    cr.ncols = static_cast<int>(ncol);
    cr.cols = defs.data();
    cr.compress = compress.empty() ? nullptr : compress.c_str();
    cr.encrypt = encrypt.empty() ? nullptr : encrypt.c_str();
    cr.ekey = haskey ? key.c_str() : nullptr;
    cr.label = label.empty() ? nullptr : label.c_str();
    void* fid = nullptr;
    int rc = api->vrtacreate(dom.lib, table.c_str(), static_cast<int>(table.size()), &cr, &fid);
    if (rc < 0) return fail("load: cannot make the table '" + table + "': " + api->text(rc));

    const long perwrite = std::max(1L, std::min(ROWS_PER_WRITE, BYTES_PER_WRITE / obslen));
    std::vector<unsigned char> buf(static_cast<size_t>(perwrite) * obslen);
    void* io = nullptr;
    std::string err;
    rc = api->spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io);
    if (rc < 0) err = "load: cannot write the table: " + api->text(rc);
    long rows = 0, inbuf = 0;
    bar.what = "loading " + table;
    while (err.empty() && csv.next(fields)) {
        if (stopped) {
            err = "load: interrupted";
            break;
        }
        if (fields.size() != ncol) {
            err = where(file, csv.line()) + "expected " + std::to_string(ncol) + " fields, found " +
                  std::to_string(fields.size());
            break;
        }
        unsigned char* row = buf.data() + static_cast<size_t>(inbuf) * obslen;
        for (size_t i = 0; i < ncol && err.empty(); ++i) {
            unsigned char* p = row + posn[i];
            const std::string& v = fields[i];
            if (cols[i].type == 1) {
                double d;
                if (trimmed(v).empty()) {
                    putMissing(p);
                } else if (!parseNumber(v, &d)) {
                    err = where(file, csv.line()) + "'" + v + "' in column '" + cols[i].name + "' is not a number";
                } else if (!exactNumber(v, d)) {
                    err = where(file, csv.line()) + "'" + v + "' in column '" + cols[i].name +
                          "' cannot be kept exactly as a number (load the column as char)";
                } else {
                    std::memcpy(p, &d, 8);
                }
            } else {
                if (v.size() > static_cast<size_t>(cols[i].length))
                    err = where(file, csv.line()) + "the value in column '" + cols[i].name + "' is longer than " +
                          std::to_string(cols[i].length) + " bytes";
                else {
                    std::memcpy(p, v.data(), v.size());
                    std::memset(p + v.size(), ' ', cols[i].length - v.size());
                }
            }
        }
        if (!err.empty()) break;
        if (++inbuf == perwrite) {
            rc = api->spwritev(io, inbuf);
            if (rc < 0) err = "load: writing rows failed: " + api->text(rc);
            inbuf = 0;
        }
        if ((++rows & 0xfff) == 0) bar.show(csv.consumed(), rows);
    }
    if (err.empty() && !csv.error().empty()) err = where(file, csv.line()) + csv.error();
    if (err.empty() && inbuf > 0) {
        rc = api->spwritev(io, inbuf);
        if (rc < 0) err = "load: writing rows failed: " + api->text(rc);
    }
    bar.done();
    if (io) api->spfreeio(io);
    rc = api->vrtaclose(fid);
    if (err.empty() && rc < 0) err = "load: closing the table failed: " + api->text(rc);
    if (!err.empty()) {
        // No half-made table is left behind.
        api->spdelete(dom.lib, table.c_str(), static_cast<int>(table.size()));
        return fail(err);
    }
    FILE* out = commandOutput();
    std::fprintf(out, "loaded %ld rows of %zu columns into %s\n", rows, ncol, table.c_str());
    std::fflush(out);
    // Each index is named after its columns.
    for (const std::string& on : indexes) {
        std::string name;
        for (char c : on) name += c == ',' ? '_' : c;
        if (name.size() > 32) name.resize(32);
        if (int st = buildIndex(dom, table, name, on, false, key)) return st;
        std::fprintf(out, "indexed %s on %s\n", table.c_str(), on.c_str());
        std::fflush(out);
    }
    return 0;
}

Register reg({"load", "make a table from a CSV file",
              "usage: vrta load DOMAIN_DIR TABLE FILE.csv [--compress NAME] [--encrypt NAME --key KEY]\n"
              "                 [--types LIST] [--opt 'TABLE OPTIONS'] [--index COL[,COL]]...\n"
              "\n"
              "Makes the table TABLE in the domain directory (made when missing) from a CSV file\n"
              "whose first line names the columns. A column becomes a number only when a number\n"
              "keeps every value in it exactly as written: a leading zero (01234) or more digits\n"
              "than a number holds (9007199254740993) keep the column as characters, which are\n"
              "as wide as its widest value. A value forced to num by --types that cannot be kept\n"
              "exactly stops the load. Empty numbers are missing values; empty lines are skipped.\n"
              "\n"
              "Characters are stored at the column's fixed width, padded with blanks: trailing\n"
              "blanks of a value are padding and do not come back (\"ab  \" prints as \"ab\").\n"
              "\n"
              "  --types LIST     types of some or all columns: id:num,name:char(20),note:char\n"
              "  --compress NAME  compress the table's blocks with the exit NAME (VRTARLC2, VRTARLLC,\n"
              "                   VRTALZWC, or a module on VRTA_LIBRARY_PATH)\n"
              "  --encrypt NAME   encrypt with the exit NAME (VRTACRYP) and the key KEY (1 to 12\n"
              "                   characters); the table then opens only with --key KEY\n"
              "  --opt TEXT       table options in the host's form: COMPRESS=NAME (or NO) and\n"
              "                   LABEL='text'\n"
              "  --index COLS     after the load, an index over the column(s), named after them\n"
              "                   (see vrta index); may be given more than once\n"
              "\n"
              "A bad line stops the load with its line number, and no table is left.\n",
              run});

}  // namespace
}  // namespace vrtacli
