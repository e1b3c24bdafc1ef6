// Power loss. Every file change and sync of a workload is recorded through
// the host's file-system vector; from the record we build the states a power
// loss could leave: each file keeps its writes up to its last completed sync
// and any subset of the later ones, each directory its entries up to its last
// sync and then some first part of the later changes. Every state must open
// with each row committed by the last completed flush or close, and every
// row it shows must be one that was written there.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "curutil.h"
#include "hs/hsgcb.h"
#include "testutil.h"

using namespace vrta;
using namespace curtest;

namespace {

// ---------------------------------------------------------------- the record

struct Op {
    enum Kind { WRITE, TRUNC, FSYNC, CREATE, RENAME, UNLINK, DSYNC, MARK } kind;
    int ino = -1;
    int64_t off = 0;     // WRITE offset, TRUNC length, MARK expectation
    std::string data;    // WRITE bytes
    std::string dir, name, name2;  // CREATE, UNLINK, RENAME (same directory), DSYNC
};

struct Recorder {
    bool on = false;
    std::vector<Op> ops;
    std::map<std::string, int> names;     // path -> file, as the real directory stands
    std::map<int, int> fds;               // descriptor -> file
    std::map<int, std::string> dirfds;    // descriptor -> directory
    std::map<std::string, std::string> base;  // name -> bytes when recording began
    std::string dir;
    int nextino = 0;
};
Recorder rec;

std::string dirof(const std::string& p) { return p.substr(0, p.rfind('/')); }
std::string nameof(const std::string& p) { return p.substr(p.rfind('/') + 1); }

int ropen(const char* p, int flags, ...) {
    mode_t mode = 0;
    if (flags & O_CREAT) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    bool existed = access(p, F_OK) == 0;
    int fd = ::open(p, flags, mode);
    if (fd < 0 || !rec.on) return fd;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        std::string d = p;
        while (d.size() > 1 && d.back() == '/') d.pop_back();
        rec.dirfds[fd] = d;
        return fd;
    }
    std::string path = p;
    if (dirof(path) != rec.dir) return fd;  // not the domain: nothing to keep
    auto it = rec.names.find(path);
    int ino;
    if (it == rec.names.end() || !existed) {
        ino = rec.nextino++;
        rec.names[path] = ino;
        rec.ops.push_back({Op::CREATE, ino, 0, "", dirof(path), nameof(path), ""});
    } else {
        ino = it->second;
        if (flags & O_TRUNC) rec.ops.push_back({Op::TRUNC, ino, 0, "", "", "", ""});
    }
    rec.fds[fd] = ino;
    return fd;
}
ssize_t rpwrite(int fd, const void* b, size_t n, off_t o) {
    ssize_t r = ::pwrite(fd, b, n, o);
    auto it = rec.fds.find(fd);
    if (r > 0 && rec.on && it != rec.fds.end())
        rec.ops.push_back({Op::WRITE, it->second, o, std::string(static_cast<const char*>(b), r), "", "", ""});
    return r;
}
int rftruncate(int fd, off_t len) {
    int r = ::ftruncate(fd, len);
    auto it = rec.fds.find(fd);
    if (r == 0 && rec.on && it != rec.fds.end()) rec.ops.push_back({Op::TRUNC, it->second, len, "", "", "", ""});
    return r;
}
int rsync(int fd, int (*call)(int)) {
    int r = call(fd);
    if (r != 0 || !rec.on) return r;
    if (auto d = rec.dirfds.find(fd); d != rec.dirfds.end())
        rec.ops.push_back({Op::DSYNC, -1, 0, "", d->second, "", ""});
    else if (auto f = rec.fds.find(fd); f != rec.fds.end())
        rec.ops.push_back({Op::FSYNC, f->second, 0, "", "", "", ""});
    return r;
}
int rfsync(int fd) { return rsync(fd, ::fsync); }
int rfdatasync(int fd) { return rsync(fd, ::fdatasync); }
int rclose(int fd) {
    rec.fds.erase(fd);
    rec.dirfds.erase(fd);
    return ::close(fd);
}
int rrename(const char* a, const char* b) {
    int r = ::rename(a, b);
    if (r == 0 && rec.on && rec.names.count(a)) {
        EXPECT_EQ(dirof(a), dirof(b)) << "a rename between directories";
        rec.names[b] = rec.names[a];
        rec.names.erase(a);
        rec.ops.push_back({Op::RENAME, -1, 0, "", dirof(a), nameof(a), nameof(b)});
    }
    return r;
}
int runlink(const char* p) {
    int r = ::unlink(p);
    if (r == 0 && rec.on && rec.names.count(p)) {
        rec.names.erase(p);
        rec.ops.push_back({Op::UNLINK, -1, 0, "", dirof(p), nameof(p), ""});
    }
    return r;
}

void arm(const std::string& dir) {
    rec = Recorder{};
    rec.dir = dir;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
        std::string n = e->d_name;
        if (n != "." && n != "..") rec.base[n] = vrtatest::readFile(dir + "/" + n);
    }
    if (d) closedir(d);
    // Files there before recording began have ids below zero.
    int k = 1;
    for (const auto& b : rec.base) rec.names[dir + "/" + b.first] = -k++;
    HSGCB->xxopen = ropen;
    HSGCB->xxpwrite = rpwrite;
    HSGCB->xxftruncate = rftruncate;
    HSGCB->xxfsync = rfsync;
    HSGCB->xxfdatasync = rfdatasync;
    HSGCB->xxclose = rclose;
    HSGCB->xxrename = rrename;
    HSGCB->xxunlink = runlink;
    rec.on = true;
}

void disarm() {
    rec.on = false;
    HSGCB->xxopen = nullptr;
    HSGCB->xxpwrite = nullptr;
    HSGCB->xxftruncate = nullptr;
    HSGCB->xxfsync = nullptr;
    HSGCB->xxfdatasync = nullptr;
    HSGCB->xxclose = nullptr;
    HSGCB->xxrename = nullptr;
    HSGCB->xxunlink = nullptr;
}

// ---------------------------------------------------------------- what the rows must be

// Every variant written to a row, with the place in the record where the
// call began; and at each completed flush or close, what is committed.
struct Expect {
    int64_t numobs = 0;
    std::vector<uint32_t> var;  // row r's committed variant at [r - 1]
    std::set<int64_t> deleted;
};
struct History {
    std::vector<std::vector<std::pair<size_t, uint32_t>>> rows;  // [r - 1]: (op index, variant)
    std::vector<std::pair<size_t, int64_t>> deletes;
    std::vector<std::pair<size_t, int64_t>> cuts;  // (op index, rows kept)
    std::vector<Expect> marks;
    std::vector<uint32_t> cur;
    std::set<int64_t> curdel;
    int64_t numobs = 0;

    void wrote(int64_t first, long n, uint32_t v) {
        if (static_cast<size_t>(first - 1 + n) > rows.size()) {
            rows.resize(first - 1 + n);
            cur.resize(first - 1 + n);
        }
        for (long i = 0; i < n; ++i) {
            rows[first - 1 + i].push_back({rec.ops.size(), v});
            cur[first - 1 + i] = v;
        }
        numobs = std::max<int64_t>(numobs, first - 1 + n);
    }
    // Rows past n are cut off; what they held is no longer asked for.
    void truncated(int64_t n) {
        cuts.push_back({rec.ops.size(), n});
        numobs = n;
    }
    void deleted(int64_t r) {
        deletes.push_back({rec.ops.size(), r});
        curdel.insert(r);
    }
    void mark() {
        marks.push_back(Expect{numobs, cur, curdel});
        rec.ops.push_back({Op::MARK, -1, static_cast<int64_t>(marks.size() - 1), "", "", "", ""});
    }
};

// ---------------------------------------------------------------- building a state

struct State {
    std::map<std::string, std::string> files;  // name -> bytes
    int lastmark = -1;
    size_t markop = 0;
};

// The state after ops[0..cut) when the power fails: rng picks which later
// writes of each file and how much of each directory's later changes stay.
State build(size_t cut, std::mt19937& rng) {
    State st;
    std::map<int, size_t> fsynced;  // file -> index of its last completed sync before cut
    std::map<std::string, size_t> dsynced;
    for (size_t i = 0; i < cut; ++i) {
        const Op& o = rec.ops[i];
        if (o.kind == Op::FSYNC) fsynced[o.ino] = i + 1;
        if (o.kind == Op::DSYNC) dsynced[o.dir] = i + 1;
        if (o.kind == Op::MARK) {
            st.lastmark = static_cast<int>(o.off);
            st.markop = i;
        }
    }
    // Directory changes: those before the directory's last sync, then a first
    // part of the rest (a journal keeps them in order).
    size_t dirkeep = cut;
    {
        std::vector<size_t> later;
        size_t synced = dsynced.count(rec.dir) ? dsynced[rec.dir] : 0;
        for (size_t i = synced; i < cut; ++i) {
            Op::Kind k = rec.ops[i].kind;
            if (k == Op::CREATE || k == Op::RENAME || k == Op::UNLINK) later.push_back(i);
        }
        if (!later.empty()) {
            size_t n = std::uniform_int_distribution<size_t>(0, later.size())(rng);
            dirkeep = n == later.size() ? cut : later[n];
        }
    }
    std::map<std::string, int> names;
    std::map<int, std::string> content;
    int k = 1;
    for (const auto& [n, bytes] : rec.base) {
        names[n] = -k;
        content[-k] = bytes;
        ++k;
    }
    for (size_t i = 0; i < cut; ++i) {
        const Op& o = rec.ops[i];
        switch (o.kind) {
        case Op::CREATE:
            content[o.ino];
            if (i < dirkeep) names[o.name] = o.ino;
            break;
        case Op::RENAME:
            if (i < dirkeep && names.count(o.name)) {
                names[o.name2] = names[o.name];
                names.erase(o.name);
            }
            break;
        case Op::UNLINK:
            if (i < dirkeep) names.erase(o.name);
            break;
        case Op::WRITE:
        case Op::TRUNC: {
            size_t synced = fsynced.count(o.ino) ? fsynced[o.ino] : 0;
            if (i >= synced && std::uniform_int_distribution<int>(0, 1)(rng) == 0) break;
            std::string& c = content[o.ino];
            if (o.kind == Op::TRUNC) {
                c.resize(o.off);
            } else {
                if (c.size() < static_cast<size_t>(o.off) + o.data.size()) c.resize(o.off + o.data.size());
                c.replace(o.off, o.data.size(), o.data);
            }
            break;
        }
        default:
            break;
        }
    }
    for (const auto& [n, ino] : names) st.files[n] = content[ino];
    return st;
}

// ---------------------------------------------------------------- checking a state

std::string checkstate(const State& st, const std::string& dir, const History& h, size_t cut, const Kind& kind) {
    // One flat directory: empty it, or make it.
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    } else if (mkdir(dir.c_str(), 0755) != 0) {
        return "cannot make " + dir;
    }
    for (const auto& [n, bytes] : st.files) vrtatest::writeFile(dir + "/" + n, bytes);
    DA_LIB* lp = lifetest::assign(dir);
    if (!lp) return "library";
    DA_OPNSTR o = kindreq("pw", DA_OMINPUT, kind);
    DA_FID* fp = nullptr;
    rctype rc = daopen(lp, &o, &fp);
    std::string fault;
    const Expect* m = st.lastmark >= 0 ? &h.marks[st.lastmark] : nullptr;
    if (rc < 0) {
        // Before anything was committed there may be no table to open.
        if (m) fault = "open failed: rc " + std::to_string(rc);
        EXPECT_GE(dafrlib(lp), 0);
        return fault;
    }
    hs_obsno_t numobs = fp->xoehdr->numobs;
    // A cut of rows begun after the mark may have reached the disk.
    int64_t floor = m ? m->numobs : 0;
    for (const auto& [at, kept] : h.cuts)
        if (m && at < cut && at >= st.markop) floor = std::min(floor, kept);
    if (numobs < floor) fault = "numobs " + std::to_string(numobs) + " below " + std::to_string(floor);
    // A row's acceptable contents: what it held at the mark, or anything
    // written to it after the mark and before the power failed.
    auto acceptable = [&](int64_t r, uint32_t v) {
        if (r < 1 || static_cast<size_t>(r) > h.rows.size()) return false;
        if (m && r <= m->numobs && m->var[r - 1] == v) return true;
        for (const auto& [at, var] : h.rows[r - 1])
            if (at < cut && var == v && (!m || at >= st.markop)) return true;
        return false;
    };
    auto deletedlater = [&](int64_t r) {
        for (const auto& [at, row] : h.deletes)
            if (row == r && at < cut && (!m || at >= st.markop)) return true;
        return false;
    };
    std::set<int64_t> seen;
    {
        Cur c(fp, DA_IOMREAD | DA_IOMSEQ | DA_IOMBYROW, 50);
        if (!c.c) fault = "no cursor";
        for (int guard = 0; c.c && fault.empty() && guard < 100000; ++guard) {
            rctype r = c.read();
            if (r == DA_EOF || (r == 0 && c.iob[0].numobs <= 0)) break;
            if (r < 0) {
                fault = "read rc " + std::to_string(r);
                break;
            }
            for (long i = 0; i < c.iob[0].numobs && fault.empty(); ++i) {
                int64_t row = c.iob[0].obsvec[i];
                bool ok = false;
                for (uint32_t v = 0; v < 8 && !ok; ++v) {
                    char want[ROWLEN];
                    makerow(row, v, want);
                    ok = memcmp(want, c.row(0, i), ROWLEN) == 0 && acceptable(row, v);
                }
                if (!ok) fault = "row " + std::to_string(row) + " holds what was never written there";
                seen.insert(row);
            }
        }
    }
    if (m && fault.empty()) {
        for (int64_t r = 1; r <= floor && fault.empty(); ++r) {
            bool del = m->deleted.count(r) > 0;
            if (del && seen.count(r)) fault = "committed deletion of row " + std::to_string(r) + " lost";
            if (!del && !seen.count(r) && !deletedlater(r)) fault = "committed row " + std::to_string(r) + " lost";
        }
    }
    EXPECT_GE(darclos(fp), 0);
    EXPECT_GE(dafrlib(lp), 0);
    return fault;
}

// ---------------------------------------------------------------- the workload

// Create, append with a flush, close; update rows, delete some, append,
// flush, append, close; append, close; for plain rows, cut the last rows
// off and close. Each completed flush, cut or close is marked in the record.
void workload(const std::string& dir, const Kind& kind, History& h) {
    DA_LIB* lp = lifetest::assign(dir);
    ASSERT_NE(nullptr, lp);
    arm(dir);
    // Small blocks and small partitions, so that rows cross both.
    DA_FID* fp = make(lp, "pw", kind, kind.exit ? 512 : 0, kind.exit ? 0 : 32 * ROWLEN);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW, 64);
        h.wrote(1, 40, 0);
        ASSERT_EQ(0, w.write(1, 40, 0));
        ASSERT_EQ(0, fp->mt->force(fp, 0));
        h.mark();
        h.wrote(41, 30, 0);
        ASSERT_EQ(0, w.write(41, 30, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    h.mark();

    fp = reopen(lp, "pw", DA_OMUPDATE, kind);
    ASSERT_NE(nullptr, fp);
    {
        Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, 64);
        h.wrote(5, 5, 1);
        ASSERT_EQ(0, u.write(5, 5, 1, 5));
        for (int64_t r : {10, 11, 50}) {
            h.deleted(r);
            ASSERT_EQ(0, fp->mt->delobs(fp, r));
        }
        h.wrote(71, 20, 2);
        ASSERT_EQ(0, u.write(71, 20, 2, 71));
        ASSERT_EQ(0, fp->mt->force(fp, 0));
        h.mark();
        h.wrote(91, 10, 3);
        ASSERT_EQ(0, u.write(91, 10, 3, 91));
    }
    ASSERT_EQ(0, darclos(fp));
    h.mark();

    fp = reopen(lp, "pw", DA_OMUPDATE, kind);
    ASSERT_NE(nullptr, fp);
    {
        Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, 64);
        h.wrote(101, 30, 4);
        ASSERT_EQ(0, u.write(101, 30, 4, 101));
    }
    ASSERT_EQ(0, darclos(fp));
    h.mark();

    if (!kind.exit) {
        fp = reopen(lp, "pw", DA_OMUPDATE, kind);
        ASSERT_NE(nullptr, fp);
        h.truncated(97);
        ASSERT_EQ(0, fp->mt->truncobs(fp, 97));
        h.mark();
        ASSERT_EQ(0, darclos(fp));
        h.mark();
    }
    disarm();
    EXPECT_EQ(0, dafrlib(lp));
}

const Kind KINDS[] = {{nullptr, false}, {"VRTARLC2", false}, {"VRTACRYP", true}};

}  // namespace

TEST(PowerLoss, EveryStateKeepsWhatTheLastFlushOrCloseCommitted) {
    const bool longrun = getenv("VRTA_LONG") && *getenv("VRTA_LONG") == '1';
    ASSERT_EQ(0, hsgblinit());
    long states = 0;
    for (const Kind& kind : KINDS) {
        const char* what = kind.exit ? kind.exit : "plain";
        SCOPED_TRACE(what);
        vrtatest::TempDir tmp;
        std::string dir = tmp.file("live");
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
        History h;
        workload(dir, kind, h);
        if (HasFatalFailure()) {
            disarm();
            return;
        }
        ASSERT_EQ(kind.exit ? 5u : 7u, h.marks.size());
        // Every cut of the record (at most about a hundred and fifty of them
        // in the suite), each with a few choices of what the power loss kept;
        // many more choices in the long mode.
        size_t n = rec.ops.size();
        size_t step = longrun ? 1 : std::max<size_t>(1, n / 150);
        int tries = longrun ? 40 : 3;
        long failures = 0;
        for (size_t cut = 0; cut <= n; cut += step) {
            for (int t = 0; t < tries; ++t) {
                std::mt19937 rng(static_cast<unsigned>(cut * 7919 + t));
                State st = build(cut, rng);
                std::string fault = checkstate(st, tmp.file("state"), h, cut, kind);
                ++states;
                if (!fault.empty() && ++failures <= 5)
                    ADD_FAILURE() << what << ": state after " << cut << " of " << n << " operations (choice " << t
                                  << "): " << fault;
            }
        }
        printf("%s: %zu operations recorded\n", what, n);
    }
    printf("power-loss states checked: %ld\n", states);
}
