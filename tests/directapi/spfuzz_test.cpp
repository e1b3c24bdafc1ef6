// Damaged tables, field by field: every field of every record of the
// metadata file, the compressed store's tree and vectors, the library file,
// and bytes of the data files, set to 0, -1, the largest value and random
// values. Each damaged copy is opened, described and read in a child with a
// time and memory limit. The child must end cleanly, and a read that
// succeeds must give the table's own rows (or, where numobs was lowered, the
// first of them). VRTA_LONG=1 takes every field with every value and many
// more random bytes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sda/daods.h"
#include "testutil.h"
#include "vrta/directapi.h"

#if defined(__SANITIZE_ADDRESS__)
// A damaged size must come back as an error, not end the child in the
// allocator; the time limit catches what grows without bound.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1:detect_leaks=0:quarantine_size_mb=4"; }
#define VRTA_UNDER_ASAN 1
#endif

namespace {

using namespace vrta;

bool longRun() {
    const char* e = std::getenv("VRTA_LONG");
    return e && *e && std::strcmp(e, "0") != 0;
}

// What a reader saw: the columns and every cell, folded into one number.
struct Seen {
    int32_t rc = 0;        // first failing call's code, 0 when all went well
    int64_t rows = 0;
    uint64_t layout = 0;   // columns: type, position, length
    uint64_t cells = 0;    // the rows' bytes column by column
    uint64_t prefix[64] = {};  // cells after each of the first rows, for a lowered numobs
};

uint64_t fold(uint64_t h, const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ULL;
    return h;
}

// The reads a host makes of a table: info, every column, all rows.
Seen readTable(const std::string& dom, const char* table) {
    Seen s;
    void* lib = nullptr;
    if ((s.rc = splasgn(dom.c_str(), &lib)) < 0) return s;
    void* fid = nullptr;
    s.rc = vrtaopen(lib, table, -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid);
    if (s.rc >= 0) {
        VRTAINFO vi;
        s.rc = vrtainfo(fid, VRTAINFO_ALL, &vi);
        struct Col {
            int type, pos, len;
        };
        std::vector<Col> cols;
        for (int i = 1; s.rc >= 0 && i <= vi.numvar; ++i) {
            VRTA_NAMESTR* np = nullptr;
            s.rc = vrtagetnpp(fid, i, &np);
            if (s.rc < 0) break;
            Col c{np->n7.type, np->n7.npos, np->n7.nlng};
            s.layout = fold(s.layout, &c, sizeof c);
            if (c.pos < 0 || c.len <= 0 || c.pos + c.len > vi.obslen) s.rc = -2;  // would be a wild read
            cols.push_back(c);
        }
        void* io = nullptr;
        std::vector<char> buf(std::max(1, vi.obslen) * 16L);
        if (s.rc >= 0) s.rc = spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io);
        uint64_t h = 0;
        for (int calls = 0; s.rc >= 0 && calls < 1000000; ++calls) {
            long n = 0;
            void* p = nullptr;
            s.rc = spreadv(io, &n, &p, nullptr);
            if (s.rc < 0 || n <= 0) break;
            for (long r = 0; r < n; ++r, ++s.rows) {
                const char* row = static_cast<const char*>(p) + r * vi.obslen;
                for (const Col& c : cols) h = fold(h, row + c.pos, c.len);
                if (s.rows < 64) s.prefix[s.rows] = h;
            }
        }
        s.cells = h;
        if (io) spfreerd(io);
        vrtaclose(fid);
    }
    spldeasgn(lib);
    return s;
}

enum Outcome { REFUSED, SAME, PREFIX, DIFFERENT, CRASH, HANG };

const char* outcomeName(int o) {
    static const char* const n[] = {"refused", "same rows", "first rows", "different rows", "crash", "hang"};
    return n[o];
}

// readTable in a child with a time and memory limit.
Outcome probe(const std::string& dom, const char* table, const Seen& want, std::string* why) {
    int fds[2];
    if (pipe(fds) != 0) return CRASH;
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(10);
#ifndef VRTA_UNDER_ASAN
        struct rlimit rl = {2L << 30, 2L << 30};
        setrlimit(RLIMIT_AS, &rl);
#endif
        int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            dup2(devnull, 1);
        }
        Seen s = readTable(dom, table);
        ssize_t w = write(fds[1], &s, sizeof s);
        _exit(w == static_cast<ssize_t>(sizeof s) ? 0 : 3);
    }
    close(fds[1]);
    Seen s;
    ssize_t got = 0, n;
    while (got < static_cast<ssize_t>(sizeof s) &&
           (n = read(fds[0], reinterpret_cast<char*>(&s) + got, sizeof s - got)) > 0)
        got += n;
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    if (WIFSIGNALED(st) && WTERMSIG(st) == SIGALRM) return HANG;
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0 || got != static_cast<ssize_t>(sizeof s)) {
        *why = WIFSIGNALED(st) ? "signal " + std::to_string(WTERMSIG(st)) : "exit " + std::to_string(WEXITSTATUS(st));
        return CRASH;
    }
    if (s.rc < 0) return REFUSED;
    if (s.layout == want.layout && s.rows == want.rows && s.cells == want.cells) return SAME;
    if (s.layout == want.layout && s.rows < want.rows &&
        (s.rows == 0 || (s.rows <= 64 && s.cells == want.prefix[s.rows - 1])))
        return PREFIX;
    *why = "rows " + std::to_string(s.rows) + " of " + std::to_string(want.rows);
    return DIFFERENT;
}

std::string slurp(const std::string& p) { return vrtatest::readFile(p); }

// One field of a file and its place.
struct Field {
    std::string file;  // name inside the domain
    long off;
    int size;          // 1, 2, 4 or 8
    std::string what;
};

struct Mutation {
    Field f;
    std::string bytes;  // what is written over it; empty: the file is cut to f.off
};

std::string value(int size, int which, std::mt19937_64& rnd) {
    uint64_t v = 0;
    switch (which) {
        case 0: v = 0; break;
        case 1: v = ~0ULL; break;
        case 2: v = size == 8 ? INT64_MAX : (1ULL << (8 * size - 1)) - 1; break;
        default: v = rnd(); break;
    }
    return std::string(reinterpret_cast<const char*>(&v), size);
}

// Words of a record: 8-byte fields at 8-aligned places of records made of
// them, 4-byte ones elsewhere; names and their 2-byte and 1-byte fields by
// their layout.
void recordFields(const std::string& file, int kind, long off, int len, std::vector<Field>& out) {
    std::string name = damrname(kind);
    if (kind == DA_MRNAMES) {
        static const struct {
            int at, size;
            const char* n;
        } L[] = {{0, 4, "npos"},       {4, 4, "npos2"},     {8, 4, "nipos"},     {12, 4, "nvar0"},
                 {16, 4, "nlng"},      {20, 4, "nlng2"},    {24, 4, "nprec"},    {28, 4, "flags"},
                 {32, 4, "namepid"},   {36, 4, "labelpid"}, {40, 4, "nformpid"}, {44, 4, "niformpid"},
                 {48, 2, "name_l"},    {50, 2, "label_l"},  {52, 2, "nform_l"},  {54, 2, "niform_l"},
                 {56, 2, "nfl"},       {58, 2, "nfd"},      {60, 2, "nifl"},     {62, 2, "nifd"},
                 {64, 2, "nscale"},    {66, 2, "ntattr"},   {68, 1, "type"},     {69, 1, "subtype"},
                 {70, 1, "sort"},      {71, 1, "justify"},  {72, 1, "ntype2"}};
        for (int v = 0; v * 76 < len; ++v)
            for (const auto& l : L)
                out.push_back({file, off + v * 76 + l.at, l.size, name + "[" + std::to_string(v) + "]." + l.n});
        return;
    }
    // The string pool's strings are the names' text, not structure; a FIB's
    // directory is mostly room for names to come.
    if (kind == DA_MRSTRP) len = 12;
    if (kind == DA_MRFIB || kind == DA_MRDPFFIB) len = std::min(len, DA_FIBLEN + 16);
    bool wide = kind == DA_MRDSFH || kind == DA_MRIDX || kind == DA_MRDMPD;
    for (int at = 0; at + 4 <= len; at += (wide && at >= 24 ? 8 : 4)) {
        int size = (wide && at >= 24 && at + 8 <= len) ? 8 : 4;
        out.push_back({file, off + at, size, name + "+" + std::to_string(at)});
    }
    // XOEODS and FIBs mix 8-byte and 4-byte fields: their 8-byte ones too.
    if (kind == DA_MRXOE)
        for (int at : {8, 16, 24, 32, 40, 128, 136, 504, 512, 520})
            out.push_back({file, off + at, 8, name + "+" + std::to_string(at) + "(8)"});
    if (kind == DA_MRFIB || kind == DA_MRDPFFIB)
        for (int at : {136, 144}) out.push_back({file, off + at, 8, name + "+" + std::to_string(at) + "(8)"});
}

struct Collect {
    std::string file;
    std::vector<Field>* out;
    da_off_t vbh = -1;
};

rctype visit(void* ctx, int kind, da_off_t off, const void*, int len) {
    auto* c = static_cast<Collect*>(ctx);
    recordFields(c->file, kind, off, len, *c->out);
    if (kind == DA_MRVBH) c->vbh = off;
    return 0;
}

// The compressed store's tree: directory words and every used vector slot.
void treeFields(const std::string& dir, const std::string& file, da_off_t vbhoff, std::vector<Field>& out) {
    std::string m = slurp(dir + "/" + file);
    DA_VBHEAD h;
    std::memcpy(&h, m.data() + vbhoff, sizeof h);
    std::vector<std::pair<da_off_t, int>> dirs = {{h.rootOffset, h.numlevels - 1}};
    while (!dirs.empty()) {
        auto [doff, level] = dirs.back();
        dirs.pop_back();
        DA_VBDIR d;
        if (doff < 0 || doff + static_cast<long>(sizeof d) > static_cast<long>(m.size())) continue;
        std::memcpy(&d, m.data() + doff, sizeof d);
        out.push_back({file, static_cast<long>(doff), 4, "DA_VBDIR.level"});
        out.push_back({file, static_cast<long>(doff) + 4, 4, "DA_VBDIR.nused"});
        for (int i = 0; i < d.nused && i < DA_VBDIRN; ++i) {
            out.push_back({file, static_cast<long>(doff) + 8 + 8L * i, 8, "DA_VBDIR.offsets"});
            if (level > 0) {
                dirs.push_back({d.offsets[i], level - 1});
                continue;
            }
            long v = d.offsets[i];
            int span = h.vbvspan, lw = h.vbvtype ? 4 : 2;
            long lens = v + 8L * span + 4L * ((span + 31) / 32);
            for (int ic = 0; ic < span; ++ic) {
                int64_t bo;
                std::memcpy(&bo, m.data() + v + 8L * ic, 8);
                if (bo < 0) continue;
                out.push_back({file, v + 8L * ic, 8, "vector offset"});
                out.push_back({file, lens + static_cast<long>(lw) * ic, lw, "vector length"});
            }
            out.push_back({file, v + 8L * span, 4, "vector chained bits"});
            out.push_back({file, v + h.vbvecsize - 8, 8, "vector next"});
        }
    }
}

std::vector<std::string> listDir(const std::string& d) {
    std::vector<std::string> v;
    vrtatest::CmdResult r = vrtatest::runCommand("ls -A " + d);
    size_t i = 0;
    while (i < r.out.size()) {
        size_t j = r.out.find('\n', i);
        if (j == std::string::npos) j = r.out.size();
        if (j > i) v.push_back(r.out.substr(i, j - i));
        i = j + 1;
    }
    return v;
}

std::string firstWith(const std::vector<std::string>& names, const std::string& prefix) {
    for (const auto& n : names)
        if (n.rfind(prefix, 0) == 0) return n;
    return "";
}

struct Tally {
    int n[6] = {};
    double slowms = 0;
    std::string slowest;
    std::vector<std::string> bad;
    void add(Outcome o, const Mutation& m, const std::string& why) {
        n[o]++;
        if ((o == CRASH || o == HANG || o == DIFFERENT) && bad.size() < 40) {
            char b[64];
            std::snprintf(b, sizeof b, " at %ld (%zu bytes)", m.f.off, m.bytes.size());
            bad.push_back(std::string(outcomeName(o)) + ": " + m.f.file + " " + m.f.what + b + " " + why);
        }
    }
    std::string report(const char* what) const {
        std::string s = what;
        for (int i = 0; i < 6; ++i) s += std::string(" ") + outcomeName(i) + "=" + std::to_string(n[i]);
        char b[64];
        std::snprintf(b, sizeof b, "; slowest %.0f ms: ", slowms);
        return s + b + slowest;
    }
};

class Fuzz : public ::testing::Test {
protected:
    vrtatest::TempDir tmp;
    std::string src = tmp.file("src"), work = tmp.file("work");
    std::mt19937_64 rnd{20261124};

    void SetUp() override {
        ASSERT_EQ(0, mkdir(src.c_str(), 0777));
        void* lib = nullptr;
        ASSERT_EQ(0, splasgn(src.c_str(), &lib));
        const VRTACOLDEF cols[] = {{"ID", -1, "Row number", -1, 1, 8},
                                   {"NAME", -1, nullptr, 0, 2, 12},
                                   {"SHORT", -1, nullptr, 0, 1, 4}};
        make(lib, "plain", cols, nullptr, 0, 300);
        // Small blocks: two vectors of blocks and a tree that walks them.
        make(lib, "comp", cols, "VRTARLC2", 240, 500);
        ASSERT_EQ(0, spldeasgn(lib));
    }

    void make(void* lib, const char* name, const VRTACOLDEF* cols, const char* comp, int blocksize, int rows) {
        VRTACREATE cr{};
        cr.ncols = 3;
        cr.cols = cols;
        cr.compress = comp;
        cr.blocksize = blocksize;
        cr.label = "fuzzed";
        void* fid = nullptr;
        ASSERT_EQ(0, vrtacreate(lib, name, -1, &cr, &fid));
        const int ol = 24;
        std::vector<char> buf(static_cast<size_t>(rows) * ol);
        for (int r = 0; r < rows; ++r) {
            double d = r + 1;
            std::memcpy(&buf[r * ol], &d, 8);
            char nm[32];
            std::snprintf(nm, sizeof nm, "name%08d", r % 7 ? r : 0);
            std::memcpy(&buf[r * ol + 8], nm, 12);
            float f = static_cast<float>(r);
            double df = f;
            std::memcpy(&buf[r * ol + 20], reinterpret_cast<char*>(&df) + 4, 4);
        }
        void* io = nullptr;
        ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io));
        ASSERT_EQ(0, spwritev(io, rows));
        ASSERT_EQ(0, spfreeio(io));
        ASSERT_EQ(0, vrtaclose(fid));
    }

    std::vector<std::pair<std::string, std::string>> files;  // the clean domain, name and bytes

    // The work domain as the clean one: only what a mutation changed is written again.
    void fresh() {
        if (files.empty()) {
            ASSERT_EQ(0, vrtatest::runCommand("rm -rf " + work + " && cp -a " + src + " " + work).status);
            for (const auto& n : listDir(src)) files.push_back({n, slurp(src + "/" + n)});
            return;
        }
        for (const auto& [n, bytes] : files)
            if (slurp(work + "/" + n) != bytes) vrtatest::writeFile(work + "/" + n, bytes);
    }

    void apply(const Mutation& m) {
        std::string p = work + "/" + m.f.file;
        if (m.bytes.empty()) {
            ASSERT_EQ(0, truncate(p.c_str(), m.f.off));
            return;
        }
        FILE* f = std::fopen(p.c_str(), "r+b");
        ASSERT_TRUE(f);
        std::fseek(f, m.f.off, SEEK_SET);
        std::fwrite(m.bytes.data(), 1, m.bytes.size(), f);
        std::fclose(f);
    }

    // Runs each mutation on a fresh copy; differences are allowed only where
    // the bytes changed are row data that no field describes.
    Tally run(const char* table, const std::vector<Mutation>& muts, bool rowdata) {
        fresh();
        Seen want = readTable(work, table);
        EXPECT_EQ(0, want.rc);
        Tally t;
        for (const Mutation& m : muts) {
            fresh();
            apply(m);
            std::string why;
            auto t0 = std::chrono::steady_clock::now();
            Outcome o = probe(work, table, want, &why);
            double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
            if (ms > t.slowms) {
                t.slowms = ms;
                t.slowest = m.f.what + " = " + std::to_string(m.bytes.size()) + " bytes";
            }
            if (rowdata && o == DIFFERENT) o = SAME;  // the format has no checksum of row bytes
            t.add(o, m, why);
        }
        return t;
    }

    std::vector<Mutation> fieldMutations(const std::vector<Field>& fields, bool all) {
        std::vector<Mutation> v;
        for (size_t i = 0; i < fields.size(); ++i)
            for (int which = 0; which < 4; ++which)
                if (all || (i % 3 == 0 && static_cast<int>((i / 3 + which) % 4) == 0))
                    v.push_back({fields[i], value(fields[i].size, which, rnd)});
        return v;
    }

    std::vector<Mutation> randomBytes(const std::string& file, long from, long to, int count) {
        std::vector<Mutation> v;
        for (int i = 0; i < count && to > from; ++i) {
            long at = from + static_cast<long>(rnd() % (to - from));
            int n = 1 + static_cast<int>(rnd() % 4);
            std::string b;
            for (int k = 0; k < n; ++k) b += static_cast<char>(rnd());
            v.push_back({{file, at, n, "random bytes"}, b});
        }
        return v;
    }

    std::vector<Field> mdfFields(const std::string& mdf, da_off_t* vbh) {
        std::vector<Field> fields;
        int fd = open((src + "/" + mdf).c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        DA_ODSIO io = daodspfd(&fd, mdf.c_str());
        Collect c{mdf, &fields};
        int fk = 0;
        da_off_t fo = 0;
        EXPECT_EQ(0, damdfwalk(io, 0, visit, &c, &fk, &fo));
        close(fd);
        *vbh = c.vbh;
        return fields;
    }

    void expectClean(const Tally& t, const char* what, bool noticed = true) {
        std::printf("%s\n", t.report(what).c_str());
        std::string list;
        for (const auto& b : t.bad) list += "  " + b + "\n";
        EXPECT_EQ(0, t.n[CRASH]) << list;
        EXPECT_EQ(0, t.n[HANG]) << list;
        EXPECT_EQ(0, t.n[DIFFERENT]) << list;
        if (noticed) {
            EXPECT_GT(t.n[REFUSED], 0) << "no mutation was noticed: the harness is not reaching the reader";
        }
    }
};

TEST_F(Fuzz, MetadataFieldsOfAPlainTable) {
    std::vector<std::string> names = listDir(src);
    std::string mdf = firstWith(names, "plain.mdf.");
    ASSERT_FALSE(mdf.empty());
    da_off_t vbh;
    std::vector<Field> fields = mdfFields(mdf, &vbh);
    ASSERT_GT(fields.size(), 300u);
    std::vector<Mutation> muts = fieldMutations(fields, longRun());
    long size = static_cast<long>(slurp(src + "/" + mdf).size());
    for (auto& m : randomBytes(mdf, 0, size, longRun() ? 3000 : 60)) muts.push_back(m);
    for (long cut : {0L, 100L, 8192L, size - 1}) muts.push_back({{mdf, cut, 0, "cut"}, ""});
    expectClean(run("plain", muts, false), ("plain metadata: " + std::to_string(muts.size()) + " files").c_str());
}

TEST_F(Fuzz, MetadataTreeAndBlocksOfACompressedTable) {
    std::vector<std::string> names = listDir(src);
    std::string mdf = firstWith(names, "comp.mdf."), dpf = firstWith(names, "comp.dpf.");
    ASSERT_FALSE(mdf.empty());
    ASSERT_FALSE(dpf.empty());
    da_off_t vbh = -1;
    std::vector<Field> fields = mdfFields(mdf, &vbh);
    ASSERT_GE(vbh, 0);
    treeFields(src, mdf, vbh, fields);
    std::vector<Mutation> muts = fieldMutations(fields, longRun());
    long msize = static_cast<long>(slurp(src + "/" + mdf).size());
    for (auto& m : randomBytes(mdf, 0, msize, longRun() ? 3000 : 60)) muts.push_back(m);
    expectClean(run("comp", muts, false), ("compressed metadata: " + std::to_string(muts.size()) + " files").c_str());

    // Block bytes are row data: a changed byte may decode to other rows,
    // but never to a crash or a hang; a cut file loses committed rows.
    long dsize = static_cast<long>(slurp(src + "/" + dpf).size());
    std::vector<Mutation> data = randomBytes(dpf, 0, dsize, longRun() ? 3000 : 60);
    Tally t = run("comp", data, true);
    for (long cut : {0L, 1L, dsize / 2, dsize - 1}) {
        fresh();
        apply({{dpf, cut, 0, "cut"}, ""});
        std::string why;
        Seen want = readTable(src, "comp");
        t.add(probe(work, "comp", want, &why), {{dpf, cut, 0, "cut"}, ""}, why);
    }
    expectClean(t, ("compressed data: " + std::to_string(data.size() + 4) + " files").c_str());
}

TEST_F(Fuzz, PlainDataFileCutOrChanged) {
    std::vector<std::string> names = listDir(src);
    std::string dpf = firstWith(names, "plain.dpf.");
    ASSERT_FALSE(dpf.empty());
    long size = static_cast<long>(slurp(src + "/" + dpf).size());
    std::vector<Mutation> cuts;
    for (long cut : {0L, 1L, 23L, 24L, size / 2, size - 24, size - 1}) cuts.push_back({{dpf, cut, 0, "cut"}, ""});
    Tally t = run("plain", cuts, false);
    // Every cut loses a committed row: none may read as a whole table.
    EXPECT_EQ(static_cast<int>(cuts.size()), t.n[REFUSED]) << t.report("cuts");
    expectClean(t, "plain data cuts");
    expectClean(run("plain", randomBytes(dpf, 0, size, longRun() ? 2000 : 60), true), "plain data bytes", false);
}

TEST_F(Fuzz, LibraryFileWords) {
    std::string lf = ".vrtalib11";
    long size = static_cast<long>(slurp(src + "/" + lf).size());
    ASSERT_GT(size, 0);
    std::vector<Field> fields;
    for (long at = 0; at + 4 <= size; at += 4) fields.push_back({lf, at, 4, "library word " + std::to_string(at)});
    std::vector<Mutation> muts = fieldMutations(fields, longRun());
    for (auto& m : randomBytes(lf, 0, size, longRun() ? 1000 : 40)) muts.push_back(m);
    muts.push_back({{lf, 0, 0, "cut"}, ""});
    muts.push_back({{lf, size / 2, 0, "cut"}, ""});
    // The library file names paths, not rows: a changed path may lose the
    // table (refused) but must not give other rows.
    expectClean(run("plain", muts, false), ("library file: " + std::to_string(muts.size()) + " files").c_str());
}

}  // namespace
