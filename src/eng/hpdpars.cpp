// Domain options: hpdpars reads one option of an assign statement into its
// HPDOPT; hpdpopt reads a whole text; hphbfr frees the block.
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstring>

#include "eng/hpdopt.h"
#include "eng/hpdparse.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

HPDOPT* D(void* b) { return static_cast<HPDOPT*>(b); }

template <int on, int off>
rctype bits(OptParse& p, void* b) {
    return optbits<offsetof(HPDOPT, debug), on, off>(p, b);
}
template <int bit>
rctype nobit(OptParse& p, void* b) {
    return optbits<offsetof(HPDOPT, debug), 0, bit>(p, b);
}
template <int bit>
rctype yesonly(OptParse& p, void* b) {
    return optyes<offsetof(HPDOPT, debug), bit>(p, b);
}
template <size_t off>
rctype flag(OptParse& p, void* b) {
    return optflag<off>(p, b);
}
template <size_t off, int room, int max, size_t lenoff = 0, bool cut = false>
rctype text(OptParse& p, void* b) {
    return opttext<off, room, max, lenoff, cut>(p, b);
}

// A path list replaces the one given before.
template <size_t textoff, size_t lenoff>
rctype pathopt(OptParse& p, void* b) {
    char* t = nullptr;
    int len = 0;
    if (rctype rc = p.path(&t, &len); rc) return rc;
    auto** slot = reinterpret_cast<char**>(static_cast<char*>(b) + textoff);
    int* l = reinterpret_cast<int*>(static_cast<char*>(b) + lenoff);
    optfreetext(*slot, *l);
    *slot = t;
    *l = len;
    return 0;
}

rctype obs(OptParse& p, int64_t* out) {
    int64_t v;
    if (rctype rc = p.num64(1, INT64_MAX, &v); rc) return rc;
    *out = v;
    return 0;
}

rctype server(OptParse& p, void* b) {
    // A host, and behind a "." a service: names, numbers or strings.
    constexpr int types = TKM_NAME | TKM_NUMBER | TKM_STRING;
    char host[129], serv[129];
    int hl = 0, sl = 0;
    if (rctype rc = p.str(host, sizeof host, 128, false, &hl, types); rc) return rc;
    XXTOKEN* t = p.tok;
    if (rctype rc = atok(t, p.track, 3); rc == TK_RC_NOMEM) return rc;
    if (t->type == TK_SPECIAL && t->tokenl == 1 && t->token[0] == '.') {
        rctype rc = atok(t, p.track, 4);
        if (rc == TK_RC_NOMEM) return rc;
        if (rc || !((1 << t->type) & types)) return p.bad(4);
        char buf[TK_BUFLEN];
        sl = t->type == TK_STRING ? vzstrpq(t->token, t->tokenl, buf) : t->tokenl;
        if (t->type != TK_STRING) std::memcpy(buf, t->token, static_cast<size_t>(sl));
        if (sl == 0 || sl > 128) return p.bad(4);
        std::memcpy(serv, buf, static_cast<size_t>(sl));
        p.used = 5;
    }
    HPDOPT* o = D(b);
    std::memset(o->servname, 0, sizeof o->servname);
    std::memcpy(o->servname, host, static_cast<size_t>(hl));
    o->servlen = hl;
    if (sl) {
        std::memset(o->appname, 0, sizeof o->appname);
        std::memcpy(o->appname, serv, static_cast<size_t>(sl));
        o->applen = sl;
    }
    return 0;
}

rctype encoding(OptParse& p, int* out) {
    int32_t v;
    if (rctype rc = p.num(-1, INT_MAX, &v); rc) return rc;
    if (v == 0) return p.bad(2);
    *out = v;
    return 0;
}

rctype aclres(OptParse& p, void* b) {
    void* head = nullptr;
    if (rctype rc = p.names(8, 8, sizeof(HPD_ACL), offsetof(HPD_ACL, name), &head, nullptr); rc) return rc;
    optfreelist(D(b)->aclres, sizeof(HPD_ACL));
    D(b)->aclres = static_cast<HPD_ACL*>(head);
    D(b)->acldef = 1;
    return 0;
}

rctype sqldefopt(OptParse& p, void* b) {
    char buf[TK_BUFLEN];
    int len = 0;
    if (rctype rc = p.str(buf, sizeof buf, TK_BUFLEN - 1, false, &len); rc) return rc;
    char* t = static_cast<char*>(xmalloc(XM_THREADPOOL, len + 1, 0));
    if (!t) return XP_RC_NOMEM;
    std::memcpy(t, buf, static_cast<size_t>(len) + 1);
    optfreetext(D(b)->defopt, D(b)->defoptl);
    D(b)->defopt = t;
    D(b)->defoptl = len;
    return 0;
}

// Honoured only for the backup process or with ACLSPECIAL given before it;
// otherwise a note says it was not taken.
rctype delrec(OptParse& p, void* b) {
    int yes;
    if (rctype rc = p.yesno(&yes); rc) return rc;
    int& d = D(b)->debug;
    if (!yes) {
        d &= ~HPD_DELREC;
    } else if (VRTA_BACKUP == static_cast<int>(getpid()) || (d & HPD_ACLSPECIAL)) {
        d |= HPD_DELREC;
    } else {
        xpmlog(2, 140);
    }
    return 0;
}

#define O(f) offsetof(HPDOPT, f)

const OPTKEY dkeys[] = {
    {"RPCSIZE", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &D(b)->bufsize); }},
    {"STARTOBS", [](OptParse& p, void* b) { return obs(p, &D(b)->startobs); }},
    {"ENDOBS", [](OptParse& p, void* b) { return obs(p, &D(b)->endobs); }},
    {"ENCODING", [](OptParse& p, void* b) { return encoding(p, &D(b)->encoding_cei); }},
    {"SERV", text<O(appname), 128, 128, O(applen)>},
    {"SERVICE", text<O(appname), 128, 128, O(applen)>},
    {"GROUP", text<O(group), 100, 100>},
    {"TEMPDIR", text<O(tempdir), 256, 255>},
    {"PROJDIR", text<O(projdir), 256, 255, O(projdirl)>},
    {"LOCALE", text<O(locale), 32, 32>},
    {"SERVER", server},
    {"USER", text<O(user), 129, 128>},
    {"UID", text<O(user), 129, 128>},
    {"ACLGRP",
     [](OptParse& p, void* b) {
         char g[9];
         if (rctype rc = p.str(g, sizeof g, 8, false, nullptr); rc) return rc;
         for (char& c : g) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
         std::memcpy(D(b)->aclgrp, g, sizeof g);
         return rctype{0};
     }},
    {"HOST", text<O(servname), 128, 128, O(servlen)>},
    {"SQLDEFENG", text<O(defeng), 8, 8>},
    {"SQLDEFOPT", sqldefopt},
    {"METAPATH", pathopt<O(path.metapath), O(path.metal)>},
    {"DATAPATH", pathopt<O(path.datapath), O(path.datal)>},
    {"INDEXPATH", pathopt<O(path.indxpath), O(path.indxl)>},
    {"WORKPATH", pathopt<O(path.workpath), O(path.workl)>},
    // Passwords longer than the field are cut, not refused.
    {"PASSWD", text<O(pass), 129, 128, 0, true>},
    {"PASSWORD", text<O(pass), 129, 128, 0, true>},
    {"PWD", text<O(pass), 129, 128, 0, true>},
    {"DBQ", text<O(domain), 60, 60>},
    {"SCHEMA", text<O(domain), 60, 60>},
    {"NEWPASSWD", text<O(npass), 129, 128, 0, true>},
    {"NEWPASSWORD", text<O(npass), 129, 128, 0, true>},
    {"PROMPT", bits<HPD_PROMPT, 0>},
    {"FMTLIB", flag<O(fmtlib)>},
    {"LOCKING", bits<HPD_LOCKING, 0>},
    {"NOCATLOCK", bits<HPD_NOCATLOCK, 0>},
    {"NOCATOPEN", bits<HPD_NOCATOPEN, 0>},
    {"DELREC", delrec},
    {"TRUST", bits<HPD_TRUST, 0>},
    {"NOKORSORT", bits<HPD_NOKORSORT, 0>},
    {"VRTAWHERE", bits<HPD_VRTAWHERE, 0>},
    {"WHERESIZE", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &D(b)->wheresize); }},
    {"FASTOPT", nobit<HPD_FASTOPTNO>},
    {"CHNGPASS", bits<HPD_CHNGPASS, 0>},
    {"DISCONNECT", bits<HPD_DISCONNECT, 0>},
    // Any value: "NO" sets the bit that PROMPT also uses, anything else
    // clears it.
    {"ASYNCINDEX",
     [](OptParse& p, void* b) {
         if (rctype rc = p.value(TKM_NAME | TKM_NUMBER | TKM_STRING); rc) return rc;
         const bool no = p.tok->type == TK_NAME && zstrcom(p.tok->token, p.tok->tokenl, "NO") == 0;
         D(b)->debug = no ? D(b)->debug | HPD_PROMPT : D(b)->debug & ~HPD_PROMPT;
         return rctype{0};
     }},
    {"UNIXDOMAIN", bits<HPD_UNIXDOMAIN, 0>},
    {"ACLREAD", bits<HPD_ACLREAD, HPD_ACLREADNO>},
    {"ACLWRITE", bits<HPD_ACLWRITE, HPD_ACLWRITENO>},
    {"ACLALTER", bits<HPD_ACLALTER, HPD_ACLALTERNO>},
    {"ACLCONTROL", bits<HPD_ACLCONTROL, HPD_ACLCONTROLNO>},
    {"ACLRES", aclres},
    {"ACLSPECIAL", bits<HPD_ACLSPECIAL, 0>},
    {"DEBUG",
     [](OptParse& p, void* b) {
         static const char* const words[] = {"NO", "YES", "CORE"};
         int w;
         if (rctype rc = p.word(words, 3, &w); rc) return rc;
         int& d = D(b)->debug;
         if (w == 0) d &= ~(HPD_DEBUG | HPD_PROMPT);
         if (w >= 1) d |= HPD_DEBUG;
         if (w == 2) d |= HPD_DEBUGCORE;
         return rctype{0};
     }},
    // NO also clears PROMPT, CREATE and NETCOMP.
    {"ALTPATH",
     [](OptParse& p, void* b) {
         int yes;
         if (rctype rc = p.yesno(&yes); rc) return rc;
         int& d = D(b)->debug;
         d = yes ? d | HPD_ALTPATH : d & ~(HPD_ALTPATH | HPD_PROMPT | HPD_CREATE | HPD_NETCOMPNO);
         return rctype{0};
     }},
    {"TRUNCWARN", flag<O(truncwarn)>},
    {"DYNLOCK", flag<O(dynlock)>},
    {"BACKUP", flag<O(backup)>},
    {"NETCOMP", nobit<HPD_NETCOMPNO>},
    {"BYSORT", bits<HPD_BYSORT, 0>},
    {"CREATE", bits<HPD_CREATE, 0>},
    {"INDEXTYPE",
     [](OptParse& p, void* b) {
         static const char* const words[] = {"BTREE", "BITMAP"};
         int w;
         if (rctype rc = p.word(words, 2, &w); rc) return rc;
         D(b)->debug = w ? D(b)->debug | HPD_BITMAP : D(b)->debug & ~HPD_BITMAP;
         return rctype{0};
     }},
    {"BYTESWAP", yesonly<HPD_BYTESWAP>},
    {"ODBC", yesonly<HPD_ODBC>},
    {"TEMP", bits<HPD_TEMP, 0>},
};

#undef O

struct MakeArg {
    hpdptr hpd;
};

void* makedopt(void* arg) {
    auto* o = static_cast<HPDOPT*>(xmalloc(XM_THREADPOOL, sizeof(HPDOPT), XM_ZERO));
    if (!o) return nullptr;
    o->debug = HPD_BYSORT | HPD_VRTAWHERE;
    o->wheresize = 65536;
    o->backup = 1;
    if (hpdptr hpd = static_cast<MakeArg*>(arg)->hpd) {
        o->encoding_cei = hpd->encoding_cei;
        std::memcpy(o->locale, hpd->locale, sizeof o->locale);
    }
    return o;
}

}  // namespace

rctype hpdpopt(void* track, HPDOPT** bag, hpdptr hpd, yhlibref* libref) {
    rctype last = 0;
    // Each round reads at least one token, so the loop ends with the text.
    for (;;) {
        YTTOKEN* y = nullptr;
        rctype trc = yttkpk(track, 0, &y);
        if (!y) return trc ? trc : XP_RC_NOMEM;
        if (y->type == TK_END || (y->type == TK_SPECIAL && y->text[0] == ';')) break;
        int scanned = 0;
        void* b = *bag;
        rctype rc = hpdpars(hpd, libref, track, &scanned, &b);
        *bag = static_cast<HPDOPT*>(b);
        if (rc == XP_RC_NOMEM) return rc;
        int skip = scanned;
        if (rc != 0) {
            last = rc;
            const uint32_t low = static_cast<uint32_t>(rc) & 0xffffffu;
            YTTOKEN* at = nullptr;
            if (low == 0x40066) {
                // Another engine's option: flag it and pass it whole.
                yttkpk(track, 0, &at);
                if (at) {
                    at->flags |= 1;
                    xrmksub(1, at->text, at->len);
                }
                YTTOKEN* eq = nullptr;
                yttkpk(track, 1, &eq);
                skip = eq && eq->type == TK_SPECIAL && eq->text[0] == '=' ? 3 : 1;
            } else {
                // Go on after the token at fault.
                yttkpk(track, scanned, &at);
                if (at && low == 0x40065) xrmksub(1, at->text, at->len);
                skip = scanned + 1;
            }
        }
        for (int i = 0; i < skip; ++i) yttknx(track, 0, &y);
    }
    return last;
}

rctype hpdpstr(hpdptr hpd, const char* text, int len, HPDOPT** bag) {
    void* track = ytrakcp();
    if (!track) return XP_RC_NOMEM;
    rctype rc = yttpshi(track);
    if (rc == 0) rc = yttpshb(track, text, len);
    if (rc == 0) rc = yttpshe(track);
    if (rc == 0) rc = hpdpopt(track, bag, hpd, nullptr);
    ytrakdp(track);
    return rc;
}

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpdpars(void* engid, yhlibref* /*libref*/, void* sourcetrack, int* scanned, void** hostbag) {
    MakeArg arg{static_cast<hpdptr>(engid)};
    return optparse(sourcetrack, dkeys, static_cast<int>(sizeof dkeys / sizeof dkeys[0]), scanned, hostbag, makedopt,
                    &arg);
}

extern "C" rctype hphbfr(void* peng_op) {
    auto* o = static_cast<HPDOPT*>(peng_op);
    if (!o) return 0;
    optfreetext(o->path.metapath, o->path.metal);
    optfreetext(o->path.indxpath, o->path.indxl);
    optfreetext(o->path.datapath, o->path.datal);
    optfreetext(o->path.workpath, o->path.workl);
    optfreetext(o->defopt, o->defoptl);
    optfreelist(o->aclres, sizeof(HPD_ACL));
    if (o->acllist) xmfree(XM_THREADPOOL, o->acllist, o->acllen);
    xmfree(XM_THREADPOOL, o, sizeof(HPDOPT));
    return 0;
}
