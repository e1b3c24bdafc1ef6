// Option texts as a host hands them over: the tokenizer, domain and table
// options with their defaults, conflicts and codes, and the macro table.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "eng/hpdopt.h"
#include "hp/hptoken.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

std::string subst() {
    const char* p;
    int len;
    std::string s;
    if (xrgtsub(&p, &len) == 0) s.assign(p, static_cast<size_t>(len));
    while (xrgtsub(&p, &len) == 0) {
    }
    return s;
}

// A track holding a text, freed at the end of the scope.
struct Track {
    void* t = ytrakcp();
    explicit Track(const std::string& text) {
        EXPECT_EQ(yttpshi(t), 0);
        EXPECT_EQ(yttpshb(t, text.data(), static_cast<int>(text.size())), 0);
        EXPECT_EQ(yttpshe(t), 0);
    }
    ~Track() { ytrakdp(t); }
    // All tokens, as "type:text", with a "!" on the flagged ones.
    std::vector<std::string> tokens(int from = 0) {
        std::vector<std::string> out;
        for (int i = from;; ++i) {
            YTTOKEN* y = nullptr;
            yttkpk(t, i, &y);
            out.push_back(std::to_string(y->type) + ":" + y->text + (y->flags & 1 ? "!" : ""));
            if (y->type == TK_END) break;
        }
        return out;
    }
    void skip(int n) {
        YTTOKEN* y;
        for (int i = 0; i < n; ++i) yttknx(t, 0, &y);
    }
};

// One hpdpars call on a fresh track.
struct One {
    rctype rc;
    int scanned;
    std::string sub;
};
One dpars(const std::string& text, HPDOPT** opt, hpdptr hpd = nullptr) {
    Track tr(text);
    int scanned = -1;
    void* bag = *opt;
    rctype rc = hpdpars(hpd, nullptr, tr.t, &scanned, &bag);
    *opt = static_cast<HPDOPT*>(bag);
    return {rc, scanned, rc ? subst() : ""};
}
One opars(const std::string& text, XOPNSTR* open) {
    Track tr(text);
    int scanned = -1;
    rctype rc = hpopars(nullptr, 0, tr.t, &scanned, open);
    return {rc, scanned, rc ? subst() : ""};
}

// Reads every option of a text as a host does: one call per option, moving
// on by the count the parser gives, past the fault when there is one.
template <class F>
std::vector<rctype> hostloop(Track& tr, F parse) {
    std::vector<rctype> codes;
    for (int guard = 0; guard < 1000; ++guard) {
        YTTOKEN* y = nullptr;
        yttkpk(tr.t, 0, &y);
        if (y->type == TK_END) return codes;
        int scanned = 0;
        rctype rc = parse(&scanned);
        codes.push_back(rc);
        tr.skip(rc ? scanned + 1 : scanned);
    }
    ADD_FAILURE() << "the parser did not move through the text";
    return codes;
}

TEST(HpToken, TheTokenizerSkipsSeparatorsCommentsAndHashLines) {
    Track tr("# a whole line\n  abc,def;  /* comment */ 'It''s a \\n\\t' = 12 -1 2K K1 x.y (p) \"q\" 1.5 "
             "12345678901234 12345678901x #notcomment");
    EXPECT_EQ(tr.tokens(), (std::vector<std::string>{
                               "2:ABC", "2:DEF", "3:'It''s a \n\\t'", "0:=", "4:12", "4:-1", "4:2K", "4:K1", "2:X",
                               "0:.", "2:Y", "0:(", "2:P", "0:)", "3:\"q\"", "4:1", "0:.", "4:5",
                               "4:12345678901234", "2:12345678901X", "2:#NOTCOMMENT", "1:"}));
    char out[64];
    EXPECT_EQ(vzstrpq("'It''s'", 7, out), 4);
    EXPECT_EQ(std::string(out, 4), "It's");

    // A quote left open and an overlong word are tokens with a code; reading
    // goes on after the long one.
    Track open("USER='abc");
    YTTOKEN* y = nullptr;
    EXPECT_EQ(yttkpk(open.t, 2, &y), TK_RC_OPENQUOTE);
    Track lng(std::string(TK_BUFLEN + 10, 'a') + " next");
    EXPECT_EQ(yttkpk(lng.t, 0, &y), TK_RC_TOOLONG);
    EXPECT_EQ(yttkpk(lng.t, 1, &y), 0);
    EXPECT_STREQ(y->text, "NEXT");

    // Text pushed after the end was read is read on.
    Track more("A");
    EXPECT_EQ(more.tokens(), (std::vector<std::string>{"2:A", "1:"}));
    ASSERT_EQ(yttpshi(more.t), 0);
    ASSERT_EQ(yttpshb(more.t, "B", 1), 0);
    ASSERT_EQ(yttpshe(more.t), 0);
    EXPECT_EQ(more.tokens(), (std::vector<std::string>{"2:A", "2:B", "1:"}));

    // The twin on a file reads the same way, and an open comment ends it.
    FILE* f = std::tmpfile();
    std::fputs("  key = 'v' /* never closed", f);
    std::rewind(f);
    char buf[TK_BUFLEN];
    int len = 0, kind = 0;
    std::vector<std::string> got;
    do {
        ASSERT_EQ(token(f, buf, &len, &kind), 0);
        got.push_back(std::to_string(kind) + ":" + buf);
    } while (kind != TK_END);
    std::fclose(f);
    EXPECT_EQ(got, (std::vector<std::string>{"2:key", "0:=", "3:'v'", "1:"}));
}

TEST(HpdPars, DomainOptionsFillTheirFields) {
    HPDECB ecb{};
    ecb.encoding_cei = 20;
    std::memcpy(ecb.locale, "de_DE", 5);
    Track tr("RPCSIZE=4096 SERVER=dbhost.5010 USER='ann' PASSWORD='secret' GROUP='staff' "
             "METAPATH=('/m 1' \"/it's\") DATAPATH='/d' ACLRES=(a Bb) ACLGRP='grp' DBQ='dom' ENCODING=-1 "
             "STARTOBS=5 ENDOBS=10000000000 WHERESIZE=100 INDEXTYPE=BITMAP DEBUG=CORE SQLDEFOPT='x=1' "
             "FASTOPT=NO TRUNCWARN=YES BACKUP=NO PROJDIR='/p'");
    HPDOPT* o = nullptr;
    std::vector<rctype> codes = hostloop(tr, [&](int* scanned) {
        void* bag = o;
        rctype rc = hpdpars(&ecb, nullptr, tr.t, scanned, &bag);
        o = static_cast<HPDOPT*>(bag);
        return rc;
    });
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(codes, std::vector<rctype>(21, 0));
    EXPECT_EQ(o->bufsize, 4096);
    EXPECT_EQ(std::string(o->servname, o->servlen), "DBHOST");
    EXPECT_EQ(std::string(o->appname, o->applen), "5010");
    EXPECT_STREQ(o->user, "ann");
    EXPECT_STREQ(o->pass, "secret");
    EXPECT_EQ(std::string(o->group, strnlen(o->group, 100)), "staff");
    EXPECT_EQ(std::string(o->path.metapath, o->path.metal), "('/m 1' \"/it's\")");
    EXPECT_EQ(std::string(o->path.datapath, o->path.datal), "/d");
    ASSERT_NE(o->aclres, nullptr);
    EXPECT_EQ(std::string(o->aclres->name, 8), "A       ");
    ASSERT_NE(o->aclres->next, nullptr);
    EXPECT_EQ(std::string(o->aclres->next->name, 8), "BB      ");
    EXPECT_EQ(o->aclres->next->next, nullptr);
    EXPECT_EQ(o->acldef, 1);
    EXPECT_STREQ(o->aclgrp, "GRP");
    EXPECT_EQ(std::string(o->domain, strnlen(o->domain, 60)), "dom");
    EXPECT_EQ(o->encoding_cei, -1);
    EXPECT_EQ(std::string(o->locale, 5), "de_DE");  // taken from the engine, not changed by an option
    EXPECT_EQ(o->startobs, 5);
    EXPECT_EQ(o->endobs, 10000000000LL);
    EXPECT_EQ(o->wheresize, 100);
    EXPECT_EQ(std::string(o->defopt, o->defoptl), "x=1");
    EXPECT_EQ(o->truncwarn, 1);
    EXPECT_EQ(o->backup, 0);
    EXPECT_EQ(o->projdirl, 2);
    // Creation sets BYSORT and VRTAWHERE; the options added the rest.
    EXPECT_EQ(o->debug, HPD_BYSORT | HPD_VRTAWHERE | HPD_BITMAP | HPD_DEBUG | HPD_DEBUGCORE | HPD_FASTOPTNO);
    EXPECT_EQ(hphbfr(o), 0);
}

TEST(HpdPars, ScannedCountsAndFlagsFollowTheHostProtocol) {
    HPDOPT* o = nullptr;
    // A host and a service take five tokens; a host alone after SERVER is
    // at fault after one.
    One r = dpars("SERVER=h.vrtasrv1 X=1", &o);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.scanned, 5);
    EXPECT_EQ(std::string(o->appname, o->applen), "VRTASRV1");
    r = dpars("SERVER=h2 USER='u'", &o);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.scanned, 3);
    EXPECT_EQ(std::string(o->servname, o->servlen), "H2");
    EXPECT_EQ(std::string(o->appname, o->applen), "VRTASRV1");
    {
        Track tr("SERVER h3");
        int scanned = -1;
        void* bag = o;
        EXPECT_EQ(hpdpars(nullptr, nullptr, tr.t, &scanned, &bag), HP_RC_MALFORMED);
        EXPECT_EQ(scanned, 1);
        EXPECT_EQ(tr.tokens(), (std::vector<std::string>{"2:SERVER", "2:H3!", "1:"}));
        EXPECT_EQ(subst(), "H3");
    }
    // A bad value: two tokens read, the value flagged and named.
    {
        Track tr("RPCSIZE=abc");
        int scanned = -1;
        void* bag = o;
        EXPECT_EQ(hpdpars(nullptr, nullptr, tr.t, &scanned, &bag), HP_RC_MALFORMED);
        EXPECT_EQ(scanned, 2);
        EXPECT_EQ(tr.tokens(), (std::vector<std::string>{"2:RPCSIZE", "0:=", "2:ABC!", "1:"}));
        EXPECT_EQ(subst(), "ABC");
    }
    // Not this engine's keyword: nothing read, nothing flagged, no block made.
    {
        HPDOPT* none = nullptr;
        Track tr("COLOR=red");
        int scanned = -1;
        void* bag = none;
        EXPECT_EQ(hpdpars(nullptr, nullptr, tr.t, &scanned, &bag), HP_RC_NOTMINE);
        EXPECT_EQ(scanned, 0);
        EXPECT_EQ(bag, nullptr);
        EXPECT_EQ(tr.tokens(), (std::vector<std::string>{"2:COLOR", "0:=", "2:RED", "1:"}));
        EXPECT_EQ(subst(), "COLOR");
    }
    hphbfr(o);
}

TEST(HpdPars, BadValuesAreRefusedAndLeaveTheBlockAsItWas) {
    HPDOPT* o = nullptr;
    ASSERT_EQ(dpars("SERVER=keep.serv", &o).rc, 0);
    ASSERT_EQ(dpars("USER='kept'", &o).rc, 0);
    const HPDOPT before = *o;
    struct Bad {
        const char* text;
        const char* fault;
    };
    const Bad bad[] = {
        {"SERVER=other.(", "("},          // the service is no name: the host stays too
        {"USER=bob", "BOB"},              // a name where a string is wanted
        {"USER='abc", "'abc"},            // a quote left open
        {"GROUP=12", "12"},                // a number where a string is wanted
        {"ENCODING=0", "0"},
        {"STARTOBS=0", "0"},
        {"ENDOBS=-3", "-3"},
        {"RPCSIZE=99999999999", "99999999999"},
        {"PROMPT=MAYBE", "MAYBE"},
        {"DEBUG=1", "1"},
        {"INDEXTYPE=HASH", "HASH"},
        {"BYTESWAP=NO", "NO"},
        {"ACLGRP='toolongname'", "'toolongname'"},
        {"METAPATH=('/a' =)", "="},
        {"METAPATH=('/a'", ""},
        {"ACLRES=(abcdefghi)", "ABCDEFGHI"},
        {"DBQ=", ""},
    };
    for (const Bad& b : bad) {
        One r = dpars(b.text, &o);
        EXPECT_EQ(r.rc, HP_RC_MALFORMED) << b.text;
        EXPECT_EQ(r.sub, b.fault) << b.text;
        EXPECT_EQ(std::memcmp(o, &before, sizeof before), 0) << b.text;
    }
    // Lengths at and past the limit: at is fine, past is malformed, except
    // passwords, which are cut.
    EXPECT_EQ(dpars("GROUP='" + std::string(100, 'g') + "'", &o).rc, 0);
    EXPECT_EQ(std::string(o->group, 100), std::string(100, 'g'));
    EXPECT_EQ(dpars("GROUP='" + std::string(101, 'h') + "'", &o).rc, HP_RC_MALFORMED);
    EXPECT_EQ(std::string(o->group, 100), std::string(100, 'g'));
    EXPECT_EQ(dpars("PASSWORD='" + std::string(200, 'p') + "'", &o).rc, 0);
    EXPECT_EQ(std::string(o->pass), std::string(128, 'p'));
    EXPECT_EQ(dpars("USER='" + std::string(129, 'u') + "'", &o).rc, HP_RC_MALFORMED);
    hphbfr(o);
}

TEST(HpdPars, SharedBitsFollowTheOrderOfTheOptions) {
    HPDOPT* o = nullptr;
    auto set = [&](const char* text) { ASSERT_EQ(dpars(text, &o).rc, 0) << text; };
    set("PROMPT=YES");
    set("CREATE=YES");
    set("NETCOMP=NO");
    set("ALTPATH=YES");
    EXPECT_EQ(o->debug & 0x80000007, static_cast<int>(0x80000007));
    // ALTPATH=NO also clears PROMPT, CREATE and NETCOMP.
    set("ALTPATH=NO");
    EXPECT_EQ(o->debug & 0x80000007, 0);
    // ASYNCINDEX shares the PROMPT bit, the other way round.
    set("PROMPT=YES");
    set("ASYNCINDEX=YES");
    EXPECT_EQ(o->debug & HPD_PROMPT, 0);
    set("ASYNCINDEX=NO");
    EXPECT_EQ(o->debug & HPD_PROMPT, HPD_PROMPT);
    set("ASYNCINDEX='whatever'");
    EXPECT_EQ(o->debug & HPD_PROMPT, 0);
    // DEBUG=NO clears DEBUG and PROMPT, and leaves CORE.
    set("PROMPT=YES");
    set("DEBUG=CORE");
    set("DEBUG=NO");
    EXPECT_EQ(o->debug & (HPD_DEBUG | HPD_PROMPT | HPD_DEBUGCORE), HPD_DEBUGCORE);
    // DELREC is taken only with ACLSPECIAL before it (or for the backup process).
    set("DELREC=YES");
    EXPECT_EQ(o->debug & HPD_DELREC, 0);
    set("ACLSPECIAL=YES");
    set("DELREC=YES");
    EXPECT_EQ(o->debug & HPD_DELREC, HPD_DELREC);
    set("DELREC=NO");
    EXPECT_EQ(o->debug & HPD_DELREC, 0);
    // An ACL option's YES and NO bits exclude each other; the later wins.
    set("ACLREAD=NO");
    EXPECT_EQ(o->debug & (HPD_ACLREAD | HPD_ACLREADNO), HPD_ACLREADNO);
    set("ACLREAD=YES");
    EXPECT_EQ(o->debug & (HPD_ACLREAD | HPD_ACLREADNO), HPD_ACLREAD);
    hphbfr(o);
}

TEST(HpdPars, AWholeTextGoesOnPastFaultsAndReportsTheLast) {
    HPDOPT* o = nullptr;
    const std::string text = "USER='a' COLOR=red RPCSIZE=x GROUP='g' SIZE LOCKING=YES";
    Track tr(text);
    const std::vector<std::string> before = tr.tokens();
    std::vector<YTTOKEN*> held;
    for (int i = 0; i < static_cast<int>(before.size()); ++i) {
        YTTOKEN* y;
        yttkpk(tr.t, i, &y);
        held.push_back(y);
    }
    EXPECT_EQ(hpdpopt(tr.t, &o, nullptr, nullptr), HP_RC_NOTMINE);
    EXPECT_EQ(subst(), "SIZE");
    ASSERT_NE(o, nullptr);
    EXPECT_STREQ(o->user, "a");
    EXPECT_EQ(std::string(o->group, 1), "g");
    EXPECT_EQ(o->debug & HPD_LOCKING, HPD_LOCKING);
    EXPECT_EQ(o->bufsize, 0);
    // Every fault was flagged: the foreign keyword, the bad value, the stray word.
    std::string flagged;
    for (YTTOKEN* y : held)
        if (y->flags & 1) flagged += std::string(y->text) + " ";
    EXPECT_EQ(flagged, "COLOR X SIZE ");
    hphbfr(o);

    // The same through the engine's own text reader.
    o = nullptr;
    EXPECT_EQ(hpdpstr(nullptr, text.data(), static_cast<int>(text.size()), &o), HP_RC_NOTMINE);
    EXPECT_EQ(o->debug & HPD_LOCKING, HPD_LOCKING);
    hphbfr(o);
    o = nullptr;
    EXPECT_EQ(hpdpstr(nullptr, "USER='b' ; ", 11, &o), 0);
    EXPECT_STREQ(o->user, "b");
    hphbfr(o);
}

TEST(HpoPars, TableOptionsAndTheirRanges) {
    XOPNSTR open{};
    auto ok = [&](const std::string& text) {
        One r = opars(text, &open);
        EXPECT_EQ(r.rc, 0) << text << " " << r.sub;
        return static_cast<HPOOPT*>(open.peng_op);
    };
    auto bad = [&](const std::string& text, const char* fault) {
        HPOOPT before = *static_cast<HPOOPT*>(open.peng_op);
        One r = opars(text, &open);
        EXPECT_EQ(r.rc, HP_RC_MALFORMED) << text;
        EXPECT_EQ(r.sub, fault) << text;
        EXPECT_EQ(std::memcmp(open.peng_op, &before, sizeof before), 0) << text;
    };
    // Not the engine's: no block is made.
    One r = opars("WHERE=x", &open);
    EXPECT_EQ(r.rc, HP_RC_NOTMINE);
    EXPECT_EQ(r.scanned, 0);
    EXPECT_EQ(open.peng_op, nullptr);

    HPOOPT* o = ok("VERBOSE=YES");
    EXPECT_EQ(o->gennum, -1000);
    EXPECT_EQ(o->memmap, -1);
    EXPECT_EQ(o->startobs, -1);
    EXPECT_EQ(o->endobs, -1);
    EXPECT_EQ(o->partsize, -1);
    EXPECT_EQ(o->debug, HPO_BYSORT | HPO_VERBOSE);

    // NUMGEN: the sign decides; 0 is 0; past 999 either way is refused.
    const std::pair<const char*, int> gens[] = {{"0", 0}, {"-5", -5}, {"+5", 5}, {"5", 1004}, {"999", 1998},
                                                {"-999", -999}, {"+0", 0}};
    for (auto [v, g] : gens) EXPECT_EQ(ok(std::string("NUMGEN=") + v)->gennum, g) << v;
    bad("NUMGEN=1000", "1000");
    bad("NUMGEN=-1000", "-1000");
    EXPECT_EQ(ok("MEMNUM=LASTCLUSTERMEMBER")->gennum, 0x7fffffff);
    EXPECT_EQ(ok("MEMNUM=3")->gennum, 1002);
    EXPECT_EQ(ok("MEMNUM=0")->gennum, 0);
    bad("MEMNUM=-1", "-1");
    bad("MEMNUM=FIRST", "FIRST");

    o = ok("COMPRESS=VRTARLC2");
    EXPECT_EQ(o->comp, 1);
    EXPECT_EQ(std::string(o->compress, 8), "VRTARLC2");
    o = ok("COMPRESS=NO");
    EXPECT_EQ(o->comp, 0);
    EXPECT_EQ(std::string(o->compress, 8), "        ");
    bad("COMPRESS=TOOLONGNM", "TOOLONGNM");

    EXPECT_EQ(ok("GENDATE='01/02/60'")->gendate, 1);
    EXPECT_EQ(ok("GENDATE='12311959'")->gendate, -1);
    EXPECT_EQ(ok("GENDATE='03-01-2000'")->gendate, 14670);
    EXPECT_EQ(ok("GENDATE='010219'")->gendate, 21551);  // two-digit years below 20 are this century
    bad("GENDATE='02/30/2020'", "'02/30/2020'");
    bad("GENDATE='2020-01-01'", "'2020-01-01'");
    bad("GENDATE='.'", "'.'");

    EXPECT_EQ(ok("SEGSIZE=1024")->segsize, 1024);
    bad("SEGSIZE=1023", "1023");
    EXPECT_EQ(ok("BUFFERCACHE=1")->numbuf, 1);
    bad("BUFFERCACHE=0", "0");
    EXPECT_EQ(ok("SORTSIZE=8G")->sortsize, 8LL << 30);
    EXPECT_EQ(ok("STARTOBS=3000000000")->startobs, 3000000000LL);
    bad("ENDOBS=0", "0");
    bad("MAXGEN=0", "0");
    EXPECT_EQ(ok("ENCODING=-1")->encoding_cei, -1);

    o = ok("CNTLLEV=REC");
    EXPECT_EQ(o->debug & (HPO_CNTLREC | HPO_CNTLMEM), HPO_CNTLREC);
    o = ok("CNTLLEV=MEM");
    EXPECT_EQ(o->debug & (HPO_CNTLREC | HPO_CNTLMEM), HPO_CNTLMEM);
    bad("SORTTYPE=SLOW", "SLOW");
    EXPECT_EQ(ok("MEMMAP=NO")->memmap, 0);
    EXPECT_EQ(ok("PW=secret")->ekey, std::string("SECRET"));
    bad("READ='" + std::string(41, 'k') + "'", ("'" + std::string(41, 'k') + "'").c_str());
    o = ok("TYPE='DATA'");
    EXPECT_EQ(std::string(o->type, 8), "DATA    ");
    o = ok("LABEL='my label'");
    EXPECT_STREQ(o->label, "my label");

    // Lists: names in upper case, blank-padded; a list replaces the last.
    o = ok("BITINDEX=(age 'Name')");
    ASSERT_NE(o->bit, nullptr);
    EXPECT_EQ(std::string(o->bit->keyname, 32), "AGE" + std::string(29, ' '));
    EXPECT_EQ(std::string(o->bit->next->keyname, 4), "Name");
    o = ok("MINMAXVARLIST=(a b c)");
    EXPECT_EQ(o->numminmax, 3);
    o = ok("MINMAXVARLIST=d");
    EXPECT_EQ(o->numminmax, 1);
    o = ok("NOSEGINDEX=()");
    EXPECT_EQ(o->bitr, nullptr);
    bad("WHERENOINDEX=(a 'b" "c", "'bc");
    bad("BITINDEX=(" + std::string(33, 'x') + ")", std::string(33, 'X').c_str());

    EXPECT_EQ(hpohbfr(&open), 0);
    EXPECT_EQ(open.peng_op, nullptr);
}

TEST(HpoGmac, MacroVariablesReadFromTheTable) {
    unsigned char tbl[4 * HP_MACRECL + 1];
    std::memset(tbl, 0, sizeof tbl);
    auto rec = [&](int i, const char* name, int flags, int value) {
        unsigned char* r = tbl + i * HP_MACRECL;
        std::memcpy(r, name, 8);
        for (int k = 0; k < 4; ++k) {
            r[12 + k] = static_cast<unsigned char>(static_cast<uint32_t>(flags) >> (24 - 8 * k));
            r[16 + k] = static_cast<unsigned char>(static_cast<uint32_t>(value) >> (24 - 8 * k));
        }
    };
    rec(0, "VRTANETP", HP_MACUNSET | HP_MACINT, 7);  // unset: the search goes on
    rec(1, "VRTANETP", HP_MACINT, -65536);
    rec(2, "VRTAMMAP", HP_MACBOOL, 3);
    tbl[3 * HP_MACRECL] = ' ';
    rec(3, "        ", HP_MACINT, 1);
    char out[16];
    int len = -1;
    EXPECT_EQ(hpogmac(tbl, "VRTANETP", out, sizeof out, &len), 0);
    EXPECT_EQ(std::string(out, static_cast<size_t>(len)), "-65536");
    EXPECT_EQ(hpogmac(tbl, "VRTAMMAP", out, sizeof out, &len), 0);
    EXPECT_EQ(std::string(out, static_cast<size_t>(len)), "YES");
    EXPECT_EQ(hpogmac(tbl, "VRTANETP", out, 3, &len), 0);
    EXPECT_EQ(std::string(out, static_cast<size_t>(len)), "-65");
    EXPECT_EQ(hpogmac(tbl, "VRTAVERB", out, sizeof out, &len), 1);
    EXPECT_EQ(hpogmac(nullptr, "VRTANETP", out, sizeof out, &len), 1);
}

// Token soup through both parsers as a host loops over it: every call ends,
// moves on, and gives one of the parser's codes.
TEST(HpdPars, RandomTextsEndWithAKnownCode) {
    const char* const words[] = {"USER", "SERVER", "RPCSIZE", "METAPATH", "ACLRES", "NUMGEN", "BITINDEX",
                                 "COMPRESS", "GENDATE", "DEBUG", "=", "(", ")", ".", "'x'", "'", "\"", "YES",
                                 "NO", "12", "-1", "/*", "*/", "#", "\n", ";", ",", "abc", "1K", "'01/02/60'"};
    const int rounds = std::getenv("VRTA_LONG") ? 3000 : 200;
    std::mt19937 rng(77);
    for (int round = 0; round < rounds; ++round) {
        std::string text;
        const int n = static_cast<int>(rng() % 12);
        for (int i = 0; i < n; ++i) {
            // Mostly words, now and then any byte at all.
            if (rng() % 4 == 0)
                text += static_cast<char>(rng() % 256);
            else
                text += words[rng() % (sizeof words / sizeof words[0])];
            if (rng() % 3) text += ' ';
        }
        HPDOPT* o = nullptr;
        rctype rc = hpdpstr(nullptr, text.data(), static_cast<int>(text.size()), &o);
        EXPECT_TRUE(rc == 0 || rc == HP_RC_MALFORMED || rc == HP_RC_NOTMINE) << text << " " << rc;
        hphbfr(o);
        Track tr(text);
        XOPNSTR open{};
        for (rctype c : hostloop(tr, [&](int* scanned) { return hpopars(nullptr, 0, tr.t, scanned, &open); }))
            EXPECT_TRUE(c == 0 || c == HP_RC_MALFORMED || c == HP_RC_NOTMINE) << text << " " << c;
        hpohbfr(&open);
    }
}

}  // namespace
