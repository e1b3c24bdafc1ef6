// vrta options: the option table in effect, as the module lists it, or the
// domain and table options of a text as the engine parses them.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "engopts.h"
#include "option/op.h"
#include "vrta.h"

namespace vrtacli {
namespace {

struct Bit {
    int bit;
    const char* name;
};

const Bit dbits[] = {
    {vrta::HPD_PROMPT, "PROMPT"},       {vrta::HPD_CREATE, "CREATE"},
    {vrta::HPD_NETCOMPNO, "NETCOMP=NO"}, {vrta::HPD_ACLSPECIAL, "ACLSPECIAL"},
    {vrta::HPD_ACLREAD, "ACLREAD"},     {vrta::HPD_ACLWRITE, "ACLWRITE"},
    {vrta::HPD_ACLALTER, "ACLALTER"},   {vrta::HPD_ACLREADNO, "ACLREAD=NO"},
    {vrta::HPD_ACLWRITENO, "ACLWRITE=NO"}, {vrta::HPD_ACLALTERNO, "ACLALTER=NO"},
    {vrta::HPD_ACLCONTROLNO, "ACLCONTROL=NO"}, {vrta::HPD_ACLCONTROL, "ACLCONTROL"},
    {vrta::HPD_CHNGPASS, "CHNGPASS"},   {vrta::HPD_DISCONNECT, "DISCONNECT"},
    {vrta::HPD_BYSORT, "BYSORT"},       {vrta::HPD_UNIXDOMAIN, "UNIXDOMAIN"},
    {vrta::HPD_NOKORSORT, "NOKORSORT"}, {vrta::HPD_FASTOPTNO, "FASTOPT=NO"},
    {vrta::HPD_BITMAP, "INDEXTYPE=BITMAP"}, {vrta::HPD_VRTAWHERE, "VRTAWHERE"},
    {vrta::HPD_NOCATLOCK, "NOCATLOCK"}, {vrta::HPD_NOCATOPEN, "NOCATOPEN"},
    {vrta::HPD_BYTESWAP, "BYTESWAP"},   {vrta::HPD_ODBC, "ODBC"},
    {vrta::HPD_TEMP, "TEMP"},           {vrta::HPD_DELREC, "DELREC"},
    {vrta::HPD_TRUST, "TRUST"},         {vrta::HPD_LOCKING, "LOCKING"},
    {vrta::HPD_DEBUG, "DEBUG"},         {vrta::HPD_DEBUGCORE, "DEBUG=CORE"},
    {vrta::HPD_ALTPATH, "ALTPATH"},
};

const Bit obits[] = {
    {vrta::HPO_ASYNCINDEX, "ASYNCINDEX"}, {vrta::HPO_QUICKSORT, "SORTTYPE=QUICK"},
    {vrta::HPO_UNIXDOMAIN, "UNIXDOMAIN"}, {vrta::HPO_ACLREAD, "ACLREAD"},
    {vrta::HPO_ACLWRITE, "ACLWRITE"},     {vrta::HPO_ACLALTER, "ACLALTER"},
    {vrta::HPO_ACLREADNO, "ACLREAD=NO"},  {vrta::HPO_ACLWRITENO, "ACLWRITE=NO"},
    {vrta::HPO_ACLALTERNO, "ACLALTER=NO"}, {vrta::HPO_ACLCONTROLNO, "ACLCONTROL=NO"},
    {vrta::HPO_ACLCONTROL, "ACLCONTROL"}, {vrta::HPO_VERBOSE, "VERBOSE"},
    {vrta::HPO_BYSORT, "BYSORT"},         {vrta::HPO_RANKLINEAR, "RANKINDEX=LINEAR"},
    {vrta::HPO_SYNCADD, "SYNCADD"},       {vrta::HPO_UNIQUESAVE, "UNIQUESAVE"},
    {vrta::HPO_NOMISS, "NOMISS"},         {vrta::HPO_CNTLREC, "CNTLLEV=REC"},
    {vrta::HPO_CNTLMEM, "CNTLLEV=MEM"},
};

template <size_t N>
void bits(const char* field, int v, const Bit (&names)[N]) {
    std::printf("  %-12s 0x%08x", field, static_cast<unsigned>(v));
    for (const Bit& b : names)
        if (v & b.bit) std::printf(" %s", b.name);
    std::printf("\n");
}
// A text field up to its first zero byte (never past n), in quotes.
void text(const char* field, const char* p, size_t n) {
    std::printf("  %-12s '%.*s'\n", field, static_cast<int>(strnlen(p, n)), p);
}
void num(const char* field, long long v) { std::printf("  %-12s %lld\n", field, v); }
void list(const char* field, const char* t, int len) { std::printf("  %-12s %.*s\n", field, t ? len : 0, t ? t : ""); }
// A list of blank-padded names on one line.
void namesLine(const char* field, const char* const* names, const size_t* lens, size_t n) {
    std::printf("  %-12s", field);
    for (size_t i = 0; i < n; ++i) {
        size_t l = lens[i];
        while (l && names[i][l - 1] == ' ') --l;
        std::printf(" %.*s", static_cast<int>(l), names[i]);
    }
    std::printf("\n");
}
void names(const char* field, const vrta::HPD_ACL* head) {
    std::vector<const char*> n;
    std::vector<size_t> l;
    for (; head; head = head->next) n.push_back(head->name), l.push_back(sizeof head->name);
    namesLine(field, n.data(), l.data(), n.size());
}
void names(const char* field, const vrta::HPBIT* head) {
    std::vector<const char*> n;
    std::vector<size_t> l;
    for (; head; head = head->next) n.push_back(head->keyname), l.push_back(sizeof head->keyname);
    namesLine(field, n.data(), l.data(), n.size());
}

void showDomain(const vrta::HPDOPT* o) {
    std::printf("Domain options (HPDOPT)\n");
    text("servname", o->servname, static_cast<size_t>(o->servlen));
    text("appname", o->appname, static_cast<size_t>(o->applen));
    list("metapath", o->path.metapath, o->path.metal);
    list("datapath", o->path.datapath, o->path.datal);
    list("indexpath", o->path.indxpath, o->path.indxl);
    list("workpath", o->path.workpath, o->path.workl);
    num("bufsize", o->bufsize);
    bits("debug", o->debug, dbits);
    text("user", o->user, sizeof o->user);
    std::printf("  %-12s %s\n", "pass", o->pass[0] ? "(given)" : "(none)");
    std::printf("  %-12s %s\n", "npass", o->npass[0] ? "(given)" : "(none)");
    text("group", o->group, sizeof o->group);
    text("aclgrp", o->aclgrp, sizeof o->aclgrp);
    names("aclres", o->aclres);
    text("domain", o->domain, sizeof o->domain);
    num("startobs", o->startobs);
    num("endobs", o->endobs);
    num("wheresize", o->wheresize);
    text("defeng", o->defeng, sizeof o->defeng);
    list("defopt", o->defopt, o->defoptl);
    num("backup", o->backup);
    num("fmtlib", o->fmtlib);
    num("encoding", o->encoding_cei);
    text("locale", o->locale, sizeof o->locale);
    text("tempdir", o->tempdir, sizeof o->tempdir);
    text("projdir", o->projdir, static_cast<size_t>(o->projdirl));
    num("truncwarn", o->truncwarn);
    num("dynlock", o->dynlock);
}

void showTable(const vrta::HPOOPT* o) {
    std::printf("Table options (HPOOPT)\n");
    num("blocksize", o->blocksize);
    num("ioblocksize", o->ioblocksize);
    num("segsize", o->segsize);
    num("numbuf", o->numbuf);
    bits("debug", o->debug, obits);
    names("bit", o->bit);
    names("bitr", o->bitr);
    names("bitw", o->bitw);
    names("minmax", o->minmax);
    num("comp", o->comp);
    text("compress", o->compress, sizeof o->compress);
    num("memmap", o->memmap);
    num("noindex", o->noindex);
    num("noequal", o->noequal);
    num("startobs", o->startobs);
    num("endobs", o->endobs);
    num("partsize", o->partsize);
    num("thrcnt", o->thrcnt);
    std::printf("  %-12s %s\n", "ekey", o->ekey[0] ? "(given)" : "(none)");
    text("label", o->label, sizeof o->label);
    text("type", o->type, sizeof o->type);
    num("gennum", o->gennum);
    num("genmax", o->genmax);
    std::printf("  %-12s %.0f\n", "gendate", o->gendate);
    num("sortsize", o->sortsize);
    num("encoding", o->encoding_cei);
}

int run(const std::vector<std::string>& args) {
    int level = 0;
    std::string text;
    OptKind kind = OptKind::Both;
    bool parse = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--level") {
            if (i + 1 >= args.size()) return fail("options: --level needs a number", 2);
            const std::string& v = args[++i];
            char* end = nullptr;
            long n = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end || n < 0 || n > 3)
                return fail("options: level must be 0, 1, 2 or 3, not '" + v + "'", 2);
            level = static_cast<int>(n);
        } else if (a == "--opt" || a == "--domain" || a == "--table") {
            if (i + 1 >= args.size()) return fail("options: " + a + " needs a text of options", 2);
            if (parse) return fail("options: give one text of options", 2);
            parse = true;
            kind = a == "--domain" ? OptKind::Domain : a == "--table" ? OptKind::Table : OptKind::Both;
            text = args[++i];
        } else {
            return fail("options: unknown argument '" + a + "' (try --help)", 2);
        }
    }
    if (parse) {
        EngineOptions o;
        if (int st = engineOptions("options", text, kind, &o)) return st;
        if (o.domain) showDomain(o.domain);
        if (o.domain && o.table) std::printf("\n");
        if (o.table) showTable(o.table);
        if (!o.domain && !o.table) std::printf("No options given.\n");
        return 0;
    }
    // The engine vector has no entry that lists options, so the tool reads its
    // own copy of the option layer: the same defaults the module starts with.
    void* tbl = vrta::opinitgbl();
    if (!tbl) return fail("options: the option table cannot be built");
    return vrta::opt_dump(tbl, level) < 0 ? 1 : 0;
}

Register reg({"options", "list the option table, or parse domain and table options",
              "usage: vrta options [--level N]\n"
              "       vrta options --opt 'NAME=VALUE ...' | --domain '...' | --table '...'\n"
              "\n"
              "Without a text: lists the documented and undocumented options of the option\n"
              "table with their type, who set them and their value, starting from the\n"
              "module's defaults.\n"
              "\n"
              "With a text: parses it as the host's domain (assign) and table (data set)\n"
              "options, through the engine's own parsers, and shows the blocks they fill.\n"
              "A value that is text is written in quotes: USER='ann'. --opt gives each\n"
              "option to the table parser first and to the domain parser when it is not a\n"
              "table option; --domain and --table use one parser only. A fault is shown\n"
              "with a mark under the word at fault.\n"
              "\n"
              "  --level N   0 LOW (default), 1 MED, 2 HIGH, 3 LOCKING\n",
              run});

}  // namespace
}  // namespace vrtacli
