// vrta idx FILE: prints an index file's meta page, segment pages and trees
// in readable form, reading the file alone (no table, no engine).
#include <dirent.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/ixhy.h"
#include "sda/daidx.h"
#include "sda/darc.h"
#include "sda/danames.h"
#include "vrta.h"

using namespace vrta;

namespace {

const char kUsage[] =
    "usage: vrta idx FILE [--entries N] [--tree N] [--pages]\n"
    "\n"
    "Prints an index file: the header and meta page of its B-tree, the\n"
    "segment page directory and every segment page with the trees it\n"
    "describes, then each tree: its root, length, depth and entries. For the\n"
    ".hbx file of a hybrid index: its header and, with --entries, the first\n"
    "values (named by the .idx file beside it) with each of their segments.\n"
    "\n"
    "  --entries N  also print the first N entries of each tree (key in hex,\n"
    "               then the row number or the data in hex)\n"
    "  --tree N     only tree N (counted from 0)\n"
    "  --pages      also print the head of every page of each tree\n"
    "\n"
    "FILE is the index file's partition (NAME.idxINDEX.<id>.0.<rev>.vrta9), or\n"
    "NAME.idxINDEX (NAME.hbxINDEX) in its directory. The file is read as one partition. A\n"
    "damaged file is read as far as it can be; the first fault is named with\n"
    "its page.\n"
    "\n"
    "Exit status: 0 when the whole file was read, 1 when it is damaged or\n"
    "cannot be read, 2 on bad usage.\n";

const char* typename_(int32_t t) {
    static const char* const n[] = {"discrete", "continuous", "aux", "aux part", "global B-tree", "hybrid", "unknown"};
    return t >= 0 && t <= 6 ? n[t] : "?";
}

std::string hex(const void* p, size_t n, size_t max = 32) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n && i < max; ++i) {
        snprintf(b, sizeof b, "%02x", static_cast<const unsigned char*>(p)[i]);
        s += b;
    }
    if (n > max) s += "..";
    return s;
}

// The first partition of a logical index file named without its tail.
std::string findfile(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return path;
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            DA_PFNPARTS parts;
            if (strncmp(e->d_name, base.c_str(), base.size()) != 0 || e->d_name[base.size()] != '.') continue;
            if (dafdpfn(e->d_name, &parts, false) == 0 && parts.pno == 0 &&
                static_cast<size_t>(parts.type + parts.type_l - e->d_name) == base.size())
                found = dir + "/" + e->d_name;
        }
        closedir(d);
    }
    return found.empty() ? path : found;
}

void meta(const _btmeta& m, int swapped) {
    const IX_HEADER_D& h = m.header;
    std::printf("header: version %d type %d (%s) segment_size %" PRId64 " value_len %d state %d (%s)\n", h.version,
                h.type, typename_(h.type), static_cast<int64_t>(h.segment_size), h.value_len, h.state,
                h.state == IX_CLEAN ? "clean" : h.state == IX_DIRTY ? "dirty" : "?");
    std::printf("meta: magic 0x%x%s version %u.%u psize %u free %u nrecs %u flags 0x%x\n", m.m_magic,
                swapped ? " (other byte order)" : "", m.m_version, m.m_verminor, m.m_psize, m.m_free, m.m_nrecs,
                m.m_flags);
    std::printf("      segsize %" PRId64 "%s unique keys %" PRId64 " data length %u directory count %d\n",
                static_cast<int64_t>(m.m_segsize), m.m_segsize == BT_GLOBALSEGSIZE ? " (global tree)" : "",
                static_cast<int64_t>(m.m_unique_count), m.m_data_len, m.m_segp_dircount);
    if (m.m_segp_dircount >= 0) {
        std::printf("directory:");
        for (int i = 0; i <= m.m_segp_dircount && i < BT_DIRSLOTS; ++i) std::printf(" %u", m.m_segp_directory[i]);
        std::printf("\n");
    }
}

const char* formname(int t) {
    static const char* const n[] = {"none", "bitmap", "compressed", "list", "one row", "deleted", "eval", "?"};
    return n[t & 7];
}

// A hybrid index's record of a value.
std::string btdata(const void* p) {
    IXHYBRID_BTDATA_D b;
    memcpy(&b, p, sizeof b);
    char buf[200];
    if (ixbt_one_segment(b))
        snprintf(buf, sizeof buf, "one segment %d, %s, %s %" PRId64 " at %" PRId64, ixbt_high_segno(b),
                 formname(ixbt_bm_type(b)), ixbt_bm_type(b) == Bm_One_Bit_Set ? "row" : "rows",
                 static_cast<int64_t>(b.obs_data), static_cast<int64_t>(b.data_loc));
    else
        snprintf(buf, sizeof buf, "rows %" PRId64 " in %d segments up to %d, newest chunk at %" PRId64 "%s",
                 static_cast<int64_t>(b.obs_data), b.seg_data, ixbt_high_segno(b), static_cast<int64_t>(b.data_loc),
                 ixbt_spare_segl(b) ? ", room in it" : "");
    return buf;
}

// The .hbx side: its header, and with entries, each value's segments (the
// values come from the .idx file beside it).
// Closes an index opened to look at: its failure is the command's, unless
// the command failed already.
int closeix(DA_IDX* ip, const std::string& path, int status) {
    rctype rc = ip->mt->closeidx(ip, 0);
    if (rc < 0 && status == 0) return vrtacli::fail("idx: " + path + ": " + hsstrer(rc));
    return status;
}

int hbx(DA_IDX* ip, const std::string& path, long nentries) {
    IXH_HEADER_D h;
    rctype rc = ixhy_rdhdr(ip, &h, IXH_OREPAIR);
    long nread = 0;
    if (rc == IX_READFAIL || ip->mt->readidx(ip, &h, sizeof h, 0, &nread) < 0 || nread != static_cast<long>(sizeof h))
        return vrtacli::fail("idx: " + path + ": the header cannot be read");
    std::printf("header: version %d type %d (%s) segment_size %" PRId64 " value_len %d state %d (%s)\n",
                h.common.version, h.common.type, typename_(h.common.type), static_cast<int64_t>(h.common.segment_size),
                h.common.value_len, h.common.state,
                h.common.state == IX_CLEAN ? "clean" : h.common.state == IX_DIRTY ? "dirty" : "?");
    static const char* const dstates[] = {"good", "partial repair", "full repair", "cannot be repaired"};
    std::printf("hybrid: version %d.%d segments %d values %" PRId64 " with chains %" PRId64 " chunks %" PRId64
                " list up to %d rows%s\n",
                h.version, h.subversion, h.n_segs, static_cast<int64_t>(h.n_values),
                static_cast<int64_t>(h.n_segl_values), static_cast<int64_t>(h.n_chunks), h.max_obslist_size,
                h.is_unique ? " unique" : "");
    std::printf("        state %d (%s) dead bytes %.0f deleted values %" PRId64 " spare chunk slots %d\n", h.dstate,
                h.dstate >= 0 && h.dstate <= 3 ? dstates[h.dstate] : "?", h.discarded_bytes,
                static_cast<int64_t>(h.n_vdeletes), h.n_spare_chunkslots);
    if (rc < 0 && rc != IX_NEEDREPAIR && rc != IX_NOREPAIR)
        return vrtacli::fail("idx: " + path + ": " + hsstrer(rc));
    if (nentries <= 0) return 0;
    // NAME.hbxINDEX.<id>.0.<rev>.vrta9 beside NAME.idxINDEX.<id>.0.<rev>.vrta9
    std::string idxpath = path;
    size_t slash = idxpath.rfind('/');
    size_t at = idxpath.find(".hbx", slash == std::string::npos ? 0 : slash);
    if (at == std::string::npos) return vrtacli::fail("idx: " + path + ": no .idx file to name the values");
    idxpath.replace(at, 4, ".idx");
    DA_IDX* ii = nullptr;
    if (daopidxf(idxpath.c_str(), 0, &ii) < 0) return vrtacli::fail("idx: cannot open " + idxpath);
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    int orc = __bt_open(ii, BT_OREAD, &info, nullptr, &db, 0);
    if (orc == 0) orc = __bt_open(ii, BT_OREAD, &info, nullptr, &db, 1);
    int status = 0;
    if (orc != 0) {
        status = vrtacli::fail("idx: " + idxpath + ": " + hsstrer(bt_openrc(orc)));
    } else {
        DBT k, d;
        long n = 0;
        rctype r;
        for (r = db->seq(db, &k, &d, R_FIRST); r == 0 && n < nentries; r = db->seq(db, &k, &d, R_NEXT), ++n) {
            IXHYBRID_BTDATA_D b;
            if (d.size == sizeof(IXHYBRID_UNIQ_BTDATA_D))
                ixhy_convert_uniq_btdata(static_cast<const IXHYBRID_UNIQ_BTDATA_D*>(d.data), h.common.segment_size, &b);
            else
                memcpy(&b, d.data, sizeof b);
            std::printf("value %s: %s\n", hex(k.data, k.size).c_str(), btdata(&b).c_str());
            IXH_ST_ENTRY_D* segs = nullptr;
            int64_t ns = 0;
            if ((r = ixhy_value_segs(ip, &h, &b, &segs, &ns)) < 0) break;
            for (int64_t i = 0; i < ns; ++i)
                std::printf("  segment %d: %s, %s %" PRId64 " at %" PRId64 "\n", ixste_seg_no(segs[i]),
                            formname(ixste_bm_type(segs[i])), ixste_bm_type(segs[i]) == Bm_One_Bit_Set ? "row" : "bytes",
                            static_cast<int64_t>(segs[i].data), static_cast<int64_t>(segs[i].bm_offset));
            free(segs);
        }
        if (r < 0) status = vrtacli::fail("idx: " + path + ": " + hsstrer(r));
    }
    if (db) db->close(db, -1, nullptr, 1);
    return closeix(ii, idxpath, status);
}

// Walks one tree: depth, pages, entries; prints what was asked.
rctype tree(DB* db, int64_t n, long nentries, bool pages) {
    BTREE* t = db->internal;
    pgno_t root = t->bt_root, len = t->bt_treelen;
    std::vector<std::string> lines;
    char buf[256];
    // Depth along the first children.
    int depth = 0;
    pgno_t pg = root;
    rctype rc = 0;
    for (; depth < BT_MAXDEPTH; ++depth) {
        void* h = bt_getpage(t, pg, IX_TREEREAD);
        if (!h) {
            rc = IX_TREEREAD;
            break;
        }
        bool leaf = (pg_flags(h) & P_TYPE) == P_BLEAF;
        pgno_t child = leaf ? 0 : bt_get32(pg_entry(h, 0) + 4);
        mpool_put(t->bt_mp, h, 0);
        if (leaf) break;
        pg = child;
    }
    for (pgno_t p = root; pages && rc == 0 && p < root + len; ++p) {
        void* h = bt_getpage(t, p, IX_TREEREAD);
        if (!h) {
            rc = IX_TREEREAD;
            break;
        }
        uint32_t type = pg_flags(h) & P_TYPE;
        int w = snprintf(buf, sizeof buf, "  page %u: %s prev %u next %u", p,
                         type == P_BLEAF ? "leaf" : type == P_BINTERNAL ? "internal" : "overflow", pg_prev(h), pg_next(h));
        if (type != P_OVERFLOW)
            snprintf(buf + w, sizeof buf - w, " entries %u lower %u upper %u", pg_nentries(h), pg_lower(h), pg_upper(h));
        lines.push_back(buf);
        mpool_put(t->bt_mp, h, 0);
    }
    long count = 0;
    if (rc == 0) {
        DBT k, d;
        for (rc = db->seq(db, &k, &d, R_FIRST); rc == 0; rc = db->seq(db, &k, &d, R_NEXT), ++count) {
            if (count >= nentries) continue;
            std::string line = "  " + hex(k.data, k.size);
            // Appended piece by piece: a literal plus a temporary string trips a
            // false overlap warning of the Release build.
            if (!(t->bt_flags & B_NOEQUALS)) line.append(" row ").append(std::to_string(bt_rowof(d.data)));
            else if (d.size == sizeof(IXHYBRID_BTDATA_D)) line.append(" ").append(btdata(d.data));
            else line.append(" data ").append(hex(d.data, d.size));
            lines.push_back(line);
        }
        if (rc == 1) rc = 0;
    }
    std::printf("tree %" PRId64 ": root %u length %u depth %d entries %ld\n", n, root, len, depth + 1, count);
    for (const auto& l : lines) std::printf("%s\n", l.c_str());
    return rc;
}

int run(const std::vector<std::string>& args) {
    std::string file;
    long nentries = 0;
    int64_t only = -1;
    bool pages = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto number = [&](int64_t* v) {
            char* end = nullptr;
            if (i + 1 >= args.size()) return false;
            *v = strtoll(args[++i].c_str(), &end, 10);
            return *end == '\0' && *v >= 0;
        };
        int64_t v;
        if (a == "--entries") {
            if (!number(&v)) return vrtacli::fail("idx: --entries needs a number (see vrta idx --help)", 2);
            nentries = static_cast<long>(v);
        } else if (a == "--tree") {
            if (!number(&v)) return vrtacli::fail("idx: --tree needs a number (see vrta idx --help)", 2);
            only = v;
        } else if (a == "--pages") {
            pages = true;
        } else if (!a.empty() && a[0] == '-') {
            return vrtacli::fail("idx: unknown option " + a + " (see vrta idx --help)", 2);
        } else if (file.empty()) {
            file = a;
        } else {
            return vrtacli::fail("idx: expects one FILE (see vrta idx --help)", 2);
        }
    }
    if (file.empty()) return vrtacli::fail("idx: expects one FILE (see vrta idx --help)", 2);
    std::string path = findfile(file);
    DA_IDX* ip = nullptr;
    rctype rc = daopidxf(path.c_str(), 0, &ip);
    if (rc < 0) return vrtacli::fail("idx: cannot open " + file + ": " + hsstrer(rc));
    std::printf("file %s (%" PRId64 " bytes)\n", path.c_str(), static_cast<int64_t>(ip->filesize));
    {
        // A hybrid index's .hbx file: no B-tree behind its header.
        IX_HEADER_D head{};
        uint32_t magic = 0;
        long got = 0;
        char first[sizeof head + 4] = {};
        if (ip->mt->readidx(ip, first, sizeof first, 0, &got) == 0 && got == static_cast<long>(sizeof first)) {
            memcpy(&head, first, sizeof head);
            memcpy(&magic, first + sizeof head, 4);
        }
        if (head.type == IX_HYBRID && magic != BTREEMAGIC && magic != __builtin_bswap32(BTREEMAGIC)) {
            return closeix(ip, path, hbx(ip, path, nentries));
        }
    }
    // The meta page as it stands, before the tree's own checks.
    char raw[BT_MINPSIZE] = {};
    long nread = 0;
    if (ip->mt->readidx(ip, raw, sizeof raw, 0, &nread) == 0 && nread == static_cast<long>(sizeof raw)) {
        _btmeta m;
        memcpy(&m, raw, sizeof m);
        int swapped = m.m_magic == __builtin_bswap32(BTREEMAGIC);
        if (swapped) bt_swapmeta(reinterpret_cast<char*>(&m));
        meta(m, swapped);
    }
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    int orc = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 0);
    if (orc == 0) orc = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 1);
    if (orc != 0) {
        char msg[512];
        std::snprintf(msg, sizeof msg, "idx: %s: page %u: %s: %s (0x%08x)", path.c_str(),
                      db ? db->internal->bt_errpage : 0, db && db->internal->bt_errtext[0] ? db->internal->bt_errtext : "",
                      hsstrer(bt_openrc(orc)), static_cast<unsigned>(bt_openrc(orc)));
        if (db) db->close(db, -1, nullptr, 1);
        daignore(ip->mt->closeidx(ip, 0));
        return vrtacli::fail(msg);
    }
    BTREE* t = db->internal;
    for (int k = 0; k < t->bt_nsegpages; ++k) {
        _btdesc* d = bt_desc(t, k);
        std::printf("segment page %d at page %u: trees %u of %u, last tree rows %" PRId64 ", next %u, largest tree %u\n",
                    k, t->bt_segpages[k].pgno, d->m_curindex, d->m_maxindex, static_cast<int64_t>(d->m_lastcount),
                    d->m_next, d->m_treemax);
        for (uint32_t i = 0; i < d->m_curindex; ++i) {
            _btsegtree* e = bt_entry(t, k, i);
            std::printf("  root %u length %u keys %s..%s\n", e->m_rootpageno, e->m_treelen, hex(e->m_minval, 4).c_str(),
                        hex(e->m_maxval, 4).c_str());
        }
    }
    rc = 0;
    for (int64_t n = 0; n < __bt_ntrees(db) && rc == 0; ++n) {
        if (only >= 0 && n != only) continue;
        rc = __bt_settree(db, n) == 0 ? tree(db, n, nentries, pages) : IX_BADDESC;
    }
    if (only >= __bt_ntrees(db)) rc = IX_BADDESC;
    int status = 0;
    if (rc < 0) {
        char msg[512];
        std::snprintf(msg, sizeof msg, "idx: %s: page %u: %s: %s (0x%08x)", path.c_str(), t->bt_errpage, t->bt_errtext,
                      hsstrer(rc), static_cast<unsigned>(rc));
        status = vrtacli::fail(msg);
    }
    db->close(db, -1, nullptr, 1);
    return closeix(ip, path, status);
}

vrtacli::Register reg({"idx", "print an index file's B-tree", kUsage, run});

}  // namespace
