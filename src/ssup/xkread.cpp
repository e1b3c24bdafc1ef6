// The message file tables: eleven files, one per message group, found through
// MSGPATH and read once; afterwards they are read-only and live as long as
// the process.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "hs/hs.h"
#include "ssup/xp.h"

namespace vrta {

YPMSG_GCB* YKGCB = nullptr;

const YPMSG_GRPNAME xkgrpnames[XK_NGROUPS] = {
    {0, "vrtamsg.m", 1500}, {1, "wglobal.m", 100}, {2, "engmsg.m", 300}, {3, "sqlmsg.m", 1000},
    {4, "supmsg.m", 200},   {5, "sqlmsob.m", 100}, {6, "xffile.m", 10},  {7, "zsem.m", 100},
    {8, "dates.m", 256},    {9, "wxmsg.m", 50},    {10, "attrbm.m", 100},
};

namespace {

constexpr int XK_LINE = 512;    // longest line read
constexpr int XK_MAXMSG = 511;  // longest message text

std::mutex xklock;

FILE* OpenMsgFile(const char* path, const char* name) {
    int err = ENOENT;
    if (path) {
        const char* p = path;
        for (;;) {
            const char* e = strchr(p, ':');
            std::string elem(p, e ? static_cast<size_t>(e - p) : strlen(p));
            std::string full;
            if (!elem.empty()) {
                full = elem;
                if (full.back() != '/') full += '/';
            }
            full += name;
            if (FILE* f = fopen(full.c_str(), "r")) return f;
            err = errno;
            if (!e) break;
            p = e + 1;
        }
    }
    hsprint("Message file %s open failed: errno=%d\n", name, err);
    return nullptr;
}

bool isblank_(char c) { return c == ' ' || c == '\t'; }

// Cuts trailing blanks and the line end; returns the new length.
size_t rtrim(char* s, size_t n) {
    while (n > 0 && (s[n - 1] == '\n' || s[n - 1] == '\r' || isblank_(s[n - 1]))) --n;
    s[n] = '\0';
    return n;
}

// Reads one group's file into one block. Null with the reason printed.
MSGLIST* xkload(FILE* f, const YPMSG_GRPNAME& g) {
    if (fseek(f, 0, SEEK_END) != 0) return nullptr;
    long fsize = ftell(f);
    if (fsize < 0) fsize = 0;
    rewind(f);
    size_t head = sizeof(MSGLIST);
    size_t bsize = head + static_cast<size_t>(g.msgmax) * (sizeof(int) + sizeof(short)) + static_cast<size_t>(fsize) + 1;
    auto* ml = static_cast<MSGLIST*>(calloc(1, bsize));
    if (!ml) {
        hsprint("Unable to allocate msg table %s: errno=%d\n", g.name, errno);
        return nullptr;
    }
    char* base = reinterpret_cast<char*>(ml);
    ml->msgoff = reinterpret_cast<int*>(base + head);
    ml->msglen = reinterpret_cast<short*>(base + head + g.msgmax * sizeof(int));
    ml->msgc = base + head + g.msgmax * (sizeof(int) + sizeof(short));
    long used = 0;       // bytes of msgc in use
    int cur = 0;         // number of the message being built; 0 before the first
    int highest = 0;
    char line[XK_LINE];
    auto fail = [&]() {
        free(ml);
        return nullptr;
    };
    while (fgets(line, sizeof line, f)) {
        size_t n = strlen(line);
        bool whole = (n > 0 && line[n - 1] == '\n') || feof(f);
        if (!whole) {
            // The rest of an over-long line: a message cannot hold it, and a
            // comment just ends here.
            int c;
            while ((c = fgetc(f)) != EOF && c != '\n') {}
        }
        if (line[0] == '#') {
            if (!whole) {
                hsprint("Reached max size of msg");
                return fail();
            }
            char* p = line + 1;
            while (isblank_(*p)) ++p;
            if (isalpha(static_cast<unsigned char>(*p))) {
                while (isalpha(static_cast<unsigned char>(*p)) || *p == '_') ++p;
                while (isblank_(*p)) ++p;
            }
            int number = cur + 1;
            if (isdigit(static_cast<unsigned char>(*p))) {
                long v = 0;
                while (isdigit(static_cast<unsigned char>(*p))) {
                    if (v <= 1000000) v = v * 10 + (*p - '0');
                    ++p;
                }
                number = static_cast<int>(v);
                while (isblank_(*p)) ++p;
            }
            size_t tlen = rtrim(p, strlen(p));
            if (tlen == 0) {
                hsprint("Missing message %s\n", g.name);
                return fail();
            }
            if (number < 1 || number > g.msgmax) {
                hsprint("Reached max number of msgs %d\n", g.msgmax);
                return fail();
            }
            if (used + static_cast<long>(tlen) + 1 > fsize + 1) {
                hsprint("Message allocation overflow\n: Size=%d\n", static_cast<int>(fsize));
                return fail();
            }
            memcpy(ml->msgc + used, p, tlen + 1);
            ml->msgoff[number - 1] = static_cast<int>(used);
            ml->msglen[number - 1] = static_cast<short>(tlen);
            used += static_cast<long>(tlen) + 1;
            cur = number;
            if (number > highest) highest = number;
        } else if (line[0] == '!') {
            if (cur == 0) continue;  // nothing to continue: a comment
            char* p = line + 1;
            while (isblank_(*p)) ++p;
            size_t alen = rtrim(p, strlen(p));
            if (alen == 0) continue;
            int have = ml->msglen[cur - 1];
            if (!whole || have + 1 + static_cast<long>(alen) > XK_MAXMSG) {
                hsprint("Reached max size of msg %d\n", XK_LINE);
                return fail();
            }
            // The message being continued is the last one in the text area.
            if (used + static_cast<long>(alen) + 1 > fsize + 1) {
                hsprint("Message allocation overflow\n: Size=%d\n", static_cast<int>(fsize));
                return fail();
            }
            char* dst = ml->msgc + used - 1;  // over the terminator
            *dst++ = ' ';
            memcpy(dst, p, alen + 1);
            used += static_cast<long>(alen) + 1;
            ml->msglen[cur - 1] = static_cast<short>(have + 1 + alen);
        }
    }
    ml->msgmax = highest;
    return ml;
}

void xkfreeall(YPMSG_GCB* gcb) {
    for (auto*& g : gcb->msggrp) {
        free(g);
        g = nullptr;
    }
    free(gcb);
}

}  // namespace

void* xkinit() {
    std::lock_guard<std::mutex> guard(xklock);
    if (YPMSG_GCB* g = __atomic_load_n(&YKGCB, __ATOMIC_ACQUIRE)) return g;
    auto* gcb = static_cast<YPMSG_GCB*>(calloc(1, sizeof(YPMSG_GCB)));
    if (!gcb) return nullptr;
    gcb->msgtbl = xkgrpnames;
    // Unset, it is an empty list: no file opens and every group stays
    // without texts. A host that wants texts points it at its files.
    const char* path = getenv("MSGPATH");
    for (int i = 0; i < XK_NGROUPS; ++i) {
        FILE* f = OpenMsgFile(path, xkgrpnames[i].name);
        if (!f) continue;
        MSGLIST* ml = xkload(f, xkgrpnames[i]);
        fclose(f);
        if (!ml) {
            xkfreeall(gcb);
            return nullptr;
        }
        gcb->msggrp[i] = ml;
    }
    __atomic_store_n(&YKGCB, gcb, __ATOMIC_RELEASE);
    return gcb;
}

void xkterm(void*) {}

rctype xkread(int group, int number, const char** text, int* len) {
    YPMSG_GCB* gcb = __atomic_load_n(&YKGCB, __ATOMIC_ACQUIRE);
    if (!gcb) gcb = static_cast<YPMSG_GCB*>(xkinit());
    auto own = [&](const char* t, int l) {
        *text = t;
        *len = l;
        return -1;
    };
    if (!gcb) {
        *text = nullptr;
        *len = 0;
        return XP_RC_NOMEM;
    }
    if (group < 0 || group >= XK_NGROUPS) return own("***BAD MESSAGE GROUP***", 23);
    const MSGLIST* ml = gcb->msggrp[group];
    if (!ml) return own("***MESSAGE NOT FOUND***", 23);
    if (number < 1 || number > ml->msgmax || ml->msglen[number - 1] == 0) return own("***BAD MESSAGE NUMBER***", 24);
    *text = ml->msgc + ml->msgoff[number - 1];
    *len = ml->msglen[number - 1];
    return 0;
}

// Test hook: forget the tables so that the next lookup reads the files again.
void xkreset() {
    std::lock_guard<std::mutex> guard(xklock);
    if (YPMSG_GCB* g = __atomic_exchange_n(&YKGCB, nullptr, __ATOMIC_ACQ_REL)) xkfreeall(g);
}

}  // namespace vrta
