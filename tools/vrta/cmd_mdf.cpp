// vrta mdf PATH: prints a table's metadata file in readable form.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "sda/dafd.h"
#include "sda/danames.h"
#include "sda/daods.h"
#include "sda/darc.h"
#include "vrta.h"

using namespace vrta;

namespace {

const char kUsage[] =
    "usage: vrta mdf PATH\n"
    "\n"
    "Prints the metadata file of a table: the file information block and its\n"
    "partition directory, then every record the header links to (description,\n"
    "sort, owner and backup records, string pool head, names, statistics,\n"
    "indexes with their files' information blocks, the data file's block,\n"
    "delete map and constraint), each with its offset, version and length.\n"
    "\n"
    "PATH is the first partition file (NAME.mdf.0.0.0.vrta9), or NAME.mdf or\n"
    "NAME in its directory. The file is read through the partitioned file\n"
    "layer, all partitions included; when that cannot open it (a damaged FIB,\n"
    "a missing partition) only the first partition file is read.\n"
    "\n"
    "Exit status: 0 when every record was read, 1 when the file is damaged or\n"
    "cannot be read, 2 on bad usage.\n";

std::string text(const char* p, size_t n) {
    std::string s(p, strnlen(p, n));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) c = '.';
    return s;
}

std::string when(int64_t secs) {
    time_t t = static_cast<time_t>(secs);
    struct tm tm;
    char buf[32];
    if (!gmtime_r(&t, &tm) || !strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm)) return "?";
    return buf;
}

void head(int kind, da_off_t off, const DA_ODSHEAD& h) {
    std::printf("%s at %" PRId64 ": version 0x%08x length %d\n", damrname(kind), static_cast<int64_t>(off),
                static_cast<unsigned>(h.version), h.length);
}

void fib(int kind, da_off_t off, const DA_FIB* f, int size) {
    std::printf("%s at %" PRId64 ": version 0x%x length %d allocation %d\n", damrname(kind),
                static_cast<int64_t>(off), static_cast<unsigned>(f->version), f->length, size);
    std::printf("  filesize %" PRId64 " modtime %d (%s) stamp %d revision %d overflow %" PRId64 "\n",
                static_cast<int64_t>(f->filesize), f->modtime, when(f->modtime).c_str(), f->numstripes,
                f->revision, static_cast<int64_t>(f->overflow));
    std::printf("  creflags 0x%x namelen %d hipath %d pdesize %d numpde %d topused %d botused %d\n",
                static_cast<unsigned>(f->creflags), f->namelen, f->hipath, f->pdesize, f->numpde, f->topused,
                f->botused);
    std::printf("  requirement bytes:");
    for (int i = 0; i < 24; i++) std::printf(" %02x", f->ds_rv_wr.dsreqv[i]);
    std::printf("\n");
    for (int i = 0; i < f->numpde; i++) {
        const char* n;
        int32_t l;
        if (dapdenam(f, i, &n, &l) == 0) std::printf("  partition %d: %.*s\n", i, l, n);
    }
}

// String pool sections seen so far, to print names with the variables.
struct Pool {
    std::vector<DA_STRP> sects;
    std::string text(int32_t pid, int len) const {
        if (pid < 0 || len <= 0) return "";
        size_t s = static_cast<size_t>(pid) >> 12, o = pid & 0xfff;
        if (s >= sects.size() || o + len > sizeof sects[s].pool) return "?";
        return ::text(reinterpret_cast<const char*>(sects[s].pool) + o, len);
    }
};

rctype show(void* ctx, int kind, da_off_t off, const void* rec, int len) {
    Pool& pool = *static_cast<Pool*>(ctx);
    const auto* h = static_cast<const DA_ODSHEAD*>(rec);
    switch (kind) {
    case DA_MRFIB:
    case DA_MRIDXFIB:
    case DA_MRAUXFIB:
    case DA_MRHBXFIB:
    case DA_MRDPFFIB:
        fib(kind, off, static_cast<const DA_FIB*>(rec), len);
        break;
    case DA_MRDSFH: {
        const auto* d = static_cast<const DA_DSFHEAD*>(rec);
        head(kind, off, *h);
        std::printf("  origtime %d (%s) korver %d flags 0x%x%s mdtype %d\n", d->origtime,
                    when(d->origtime).c_str(), d->korver, static_cast<unsigned>(d->flags),
                    (d->flags & 1) ? " (not closed cleanly)" : "", d->mdtype);
        std::printf("  links:");
        for (int i = 0; i < DA_NUMLINKS; i++)
            if (d->links[i] != -1) std::printf(" [%d]=%" PRId64, i, static_cast<int64_t>(d->links[i]));
        std::printf("\n");
        break;
    }
    case DA_MRXOE: {
        const auto* x = static_cast<const DA_XOEODS*>(rec);
        head(kind, off, *h);
        std::printf("  numobs %" PRId64 " numdelete %" PRId64 " nvar %d nindexes %d obslen %d odsreclen %d"
                    " ioreclen %d\n",
                    static_cast<int64_t>(x->numobs), static_cast<int64_t>(x->numdelete), x->nvar, x->nindexes,
                    x->obslen, x->odsreclen, x->ioreclen);
        std::printf("  blocksize %d blockfactor %d idxsegsize %" PRId64 " partsize %" PRId64
                    " partfactor %" PRId64 "\n",
                    x->blocksize, x->blockfactor, static_cast<int64_t>(x->idxsegsize),
                    static_cast<int64_t>(x->partsize), static_cast<int64_t>(x->partfactor));
        std::printf("  semtype %d dsorg %d flags 0x%x diskcomp \"%s\" dstype \"%s\" encoding %d locale \"%s\"\n",
                    x->semtype, x->dsorg, static_cast<unsigned>(x->flags), text(x->diskcomp, 8).c_str(),
                    text(x->dstype, 8).c_str(), x->encoding_cei, text(x->locale, 32).c_str());
        int ll = x->label_l < 0 ? 0 : (x->label_l > 256 ? 256 : x->label_l);
        std::printf("  created by \"%s\" label \"%s\"\n", text(x->who_created, 8).c_str(),
                    text(x->label, ll).c_str());
        break;
    }
    case DA_MRSIN: {
        const auto* s = static_cast<const DA_SINODS*>(rec);
        head(kind, off, *h);
        std::printf("  collate \"%s\" flags 0x%x sorted by %d variable(s):", text(s->sortinfo.collate, 8).c_str(),
                    static_cast<unsigned>(s->sortinfo.flags), s->sortinfo.nvars);
        for (int i = 0; i < s->sortinfo.nvars; i++) std::printf(" %d", s->sortinfo.nvar0[i]);
        std::printf("\n");
        break;
    }
    case DA_MROWN:
        head(kind, off, *h);
        std::printf("  tokenLen %d\n", static_cast<const DA_OWNODS*>(rec)->tokenLen);
        break;
    case DA_MRBACKUP: {
        const auto* b = static_cast<const DA_BACKUPODS*>(rec);
        head(kind, off, *h);
        std::printf("  backup_seqno %d verbackup_seqno %d\n", b->binfo.backup_seqno, b->binfo.verbackup_seqno);
        break;
    }
    case DA_MRVBH: {
        const auto* v = static_cast<const DA_VBHEAD*>(rec);
        head(kind, off, *h);
        std::printf("  rootOffset %" PRId64 " numlevels %d vbvtype %d vbvecsize %d vbvspan %d overflows %d\n",
                    static_cast<int64_t>(v->rootOffset), v->numlevels, v->vbvtype, v->vbvecsize, v->vbvspan,
                    v->stat.numoverflow);
        break;
    }
    case DA_MRXCH:
        head(kind, off, *h);
        std::printf("  baglen %d\n", static_cast<const DA_XCHEAD*>(rec)->baglen);
        break;
    case DA_MRSTRPH: {
        const auto* s = static_cast<const DA_STRPHEAD*>(rec);
        head(kind, off, *h);
        std::printf("  odssize %d sectsize %d numsects %d numoffsets %d\n", s->odssize, s->sectsize, s->numsects,
                    s->numoffsets);
        const char* base = reinterpret_cast<const char*>(rec) + sizeof(DA_STRPHEAD);
        for (int i = 0; i < s->numsects; i++) {
            int64_t o;
            std::memcpy(&o, base + 8 * i, 8);
            std::printf("  section %d at %" PRId64 "\n", i, o);
        }
        break;
    }
    case DA_MRSTRP: {
        const auto* sp = static_cast<const DA_STRP*>(rec);
        std::printf("%s %zu at %" PRId64 ": freeSpace %d freeOffset %d\n", damrname(kind), pool.sects.size(),
                    static_cast<int64_t>(off), sp->freeSpace, sp->freeOffset);
        pool.sects.push_back(*sp);
        break;
    }
    case DA_MRVARS: {
        head(kind, off, *h);
        int n = (len - 8) / 12;
        const char* base = reinterpret_cast<const char*>(rec) + 8;
        for (int i = 0; i < n; i++) {
            DA_VARSTAT v;
            std::memcpy(&v, base + 12 * i, sizeof v);
            if (v.flags & 1) std::printf("  variable %d: statistics pid 0x%x length %d\n", i + 1, v.vstatpid, v.vstat_l);
        }
        break;
    }
    case DA_MRNAMES: {
        int n = len / static_cast<int>(sizeof(DA_NAME7ODS));
        std::printf("%s at %" PRId64 ": %d variable(s)\n", damrname(kind), static_cast<int64_t>(off), n);
        for (int i = 0; i < n; i++) {
            DA_NAME7ODS v;
            std::memcpy(&v, static_cast<const char*>(rec) + i * sizeof v, sizeof v);
            std::printf("  %d: \"%s\" %s npos %d nlng %d namepid 0x%x labelpid %d flags 0x%x", v.nvar0,
                        pool.text(v.namepid, v.name_l).c_str(), v.type == 1 ? "num " : v.type == 2 ? "char" : "?   ",
                        v.npos, v.nlng, v.namepid, v.labelpid, static_cast<unsigned>(v.flags));
            if (v.label_l > 0) std::printf(" label \"%s\"", pool.text(v.labelpid, v.label_l).c_str());
            std::printf("\n");
        }
        break;
    }
    case DA_MRIDX: {
        const auto* x = static_cast<const DA_IDXODS*>(rec);
        head(kind, off, *h);
        int nl = x->name_l < 0 ? 0 : (x->name_l > 32 ? 32 : x->name_l);
        const char* type = x->type == 1 ? "numeric" : x->type == 2 ? "character" : x->type == 3 ? "composite" : "?";
        std::printf("  index \"%s\" %s key of %d bytes on column(s)", text(x->name, nl).c_str(), type, x->length);
        const auto* nv = reinterpret_cast<const int32_t*>(static_cast<const char*>(rec) + x->nvar0Off);
        for (int i = 0; i < x->nvar && i < 64; i++) {
            int32_t v;
            std::memcpy(&v, nv + i, 4);
            std::printf(" %d", v);
        }
        std::printf("\n  keyFlags 0x%x rows indexed %" PRId64 " finstat %d next %" PRId64 "\n",
                    static_cast<unsigned>(x->keyFlags), static_cast<int64_t>(x->highobs), x->finstat,
                    static_cast<int64_t>(x->nextOff));
        auto state = [](int32_t s) { return s == 0 ? "clean" : s == 1 ? "dirty" : s == 2 ? "ignore" : "?"; };
        struct {
            const char* name;
            int64_t fib, size;
            int32_t st;
        } files[] = {{"idx", x->idxFibOff, x->idxFilesize, x->idxState},
                     {"aux", x->auxFibOff, x->auxFilesize, x->auxState},
                     {"hbx", x->hybFibOff, x->hybFilesize, x->hybState}};
        for (const auto& f : files)
            if (f.fib != -1)
                std::printf("  %s file: FIB at %" PRId64 " size %" PRId64 " state %d (%s)\n", f.name,
                            static_cast<int64_t>(f.fib), static_cast<int64_t>(f.size), f.st, state(f.st));
        const auto* k = reinterpret_cast<const DA_IDXKST*>(static_cast<const char*>(rec) + x->valueOff);
        const auto* mm = reinterpret_cast<const unsigned char*>(k) + offsetof(DA_IDXKST, minmax);
        std::printf("  numvals %" PRId64 " nummiss %" PRId64 " min ", static_cast<int64_t>(k->numvals),
                    static_cast<int64_t>(k->nummiss));
        int show = x->length > 16 ? 16 : x->length;
        for (int i = 0; i < show; i++) std::printf("%02x", mm[i]);
        std::printf("%s max ", show < x->length ? ".." : "");
        for (int i = 0; i < show; i++) std::printf("%02x", mm[x->length + i]);
        std::printf("%s\n", show < x->length ? ".." : "");
        break;
    }
    case DA_MRDMPH: {
        const auto* d = static_cast<const DA_DMPHEAD*>(rec);
        head(kind, off, *h);
        std::printf("  numdmpdir %d numbmap %d bmapsize %d first directory %" PRId64 "\n", d->numdmpdir,
                    d->numbmap, d->bmapsize, static_cast<int64_t>(d->dmpdirOff));
        break;
    }
    case DA_MRDMPD: {
        const auto* d = static_cast<const DA_DMPDIR*>(rec);
        head(kind, off, *h);
        std::printf("  nument %d numalloc %d next %" PRId64 "\n", d->nument, d->numalloc,
                    static_cast<int64_t>(d->nextOff));
        for (int i = 0; i < d->nument; i++) {
            DA_DMPENT e;
            std::memcpy(&e, &d->ents[i], sizeof e);
            std::printf("  segment from row %" PRId64 ": bitmap at %" PRId64 "\n", static_cast<int64_t>(e.baseObs),
                        static_cast<int64_t>(e.bitmapOff));
        }
        break;
    }
    case DA_MRCONST: {
        const auto* c = static_cast<const DA_CONSTODS*>(rec);
        head(kind, off, *h);
        std::printf("  constpid 0x%x const_l %d numpids %d\n", c->cid.constpid, c->cid.const_l, c->cid.numpids);
        // The first piece of the text; later pieces follow in nextid.
        int first = c->cid.const_l;
        for (int i = 0; i < c->cid.numpids - 1 && i < 256; i++) first -= c->cid.nextlen[i];
        if (first > 0 && first <= 4096) {
            int shown = first > 72 ? 72 : first;
            std::printf("  text \"%s\"%s\n", pool.text(c->cid.constpid, shown).c_str(), shown < c->cid.const_l ? "..." : "");
        }
        break;
    }
    default:
        head(kind, off, *h);
    }
    return 0;
}

// Accepts the partition file itself, or the logical name with or without ".mdf".
std::string firstPartition(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return path;
    for (const char* tail : {".0.0.0.vrta9", ".mdf.0.0.0.vrta9", ".0.0.0.vrta", ".mdf.0.0.0.vrta"}) {
        std::string p = path + tail;
        if (::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return p;
    }
    return path;
}

// Opens the logical MDF through the file layer; null when it cannot.
DA_FD* openLogical(const std::string& file, int fdflags, rctype* why) {
    size_t slash = file.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
    std::string base = slash == std::string::npos ? file : file.substr(slash + 1);
    DA_PFNPARTS parts;
    *why = DA_BADARG;
    if (dafdpfn(base.c_str(), &parts, false) != 0 || parts.pno != 0) return nullptr;
    std::string name = base.substr(0, parts.type + parts.type_l - base.c_str());
    const char* paths[] = {dir.c_str()};
    DA_FDSTR fs{};
    fs.name = name.c_str();
    fs.namelen = static_cast<int>(name.size());
    fs.numpath = 1;
    fs.paths = paths;
    fs.flags = DA_FDRDONLY | fdflags;
    fs.perms = -1;
    fs.minfree = -1;
    fs.fiboff = -1;
    DA_FD* fd = nullptr;
    *why = dafdopn(&fs, &fd);
    return *why < 0 ? nullptr : fd;
}

int run(const std::vector<std::string>& args) {
    if (args.size() != 1) return vrtacli::fail("mdf: expects one PATH (see vrta mdf --help)", 2);
    std::string file = firstPartition(args[0]);
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return vrtacli::fail("mdf: cannot open " + args[0] + ": " + std::strerror(errno));
    // Old-format files carry a different suffix and FIB version.
    int fdflags = file.size() > 5 && file.compare(file.size() - 5, 5, ".vrta") == 0 ? DA_FDOLDFMT : 0;
    std::printf("file %s\n", file.c_str());
    rctype why = 0;
    DA_FD* lfd = openLogical(file, fdflags, &why);
    DA_ODSIO io;
    if (lfd) {
        io = daodsfd(lfd, file.c_str());
    } else {
        std::printf("(the file layer cannot open it: %s; reading the first partition only)\n", hsstrer(why));
        io = daodspfd(&fd, file.c_str());
    }
    int failkind = 0;
    da_off_t failoff = 0;
    Pool pool;
    rctype rc = damdfwalk(io, fdflags, show, &pool, &failkind, &failoff);
    if (lfd) daignore(lfd->fdclose(lfd));  // opened to read only
    ::close(fd);
    if (rc != 0) {
        char msg[512];
        std::snprintf(msg, sizeof msg, "mdf: %s: cannot read %s at offset %" PRId64 ": %s (0x%08x)", file.c_str(),
                      damrname(failkind), static_cast<int64_t>(failoff), hsstrer(rc), static_cast<unsigned>(rc));
        return vrtacli::fail(msg);
    }
    return 0;
}

vrtacli::Register reg({"mdf", "print a table's metadata file", kUsage, run});

}  // namespace
