// vrtaname: a reference name server. It answers one question per
// connection, where a domain lives, from a domain map given at start.
//
//   vrtaname --port N --map FILE [--listen ADDR] [--unix PATH] [--timeout SECS]
//
// The map has one domain a line, "DOMAIN PATH HOST PORT [FLAGS]", and "#"
// starts a comment. FLAGS is a comma list of PUBLIC, DYNLOCK, ACLINHERIT,
// or a number.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../srvcom/srvcom.h"
#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "ssup/xp.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace {

struct Domain {
    std::string name;  // upper case
    std::string path;
    std::string host;
    int port;
    int flags;
};

// Name server answer codes: 1 the domain is unknown; 3 an answer with
// every field (perf, backup and the flag bits).
constexpr int NS_UNKNOWN = 1;
constexpr int NS_FULL = 3;

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool parseflags(const std::string& f, int* out) {
    *out = 0;
    std::stringstream ss(f);
    std::string item;
    while (std::getline(ss, item, ',')) {
        std::string u = upper(item);
        char* e;
        long n = std::strtol(item.c_str(), &e, 0);
        if (u == "PUBLIC")
            *out |= 0x80;
        else if (u == "DYNLOCK")
            *out |= 0x40;
        else if (u == "ACLINHERIT")
            *out |= 0x1;
        else if (!item.empty() && !*e && n >= 0 && n <= 0xffff)
            *out |= static_cast<int>(n);
        else
            return false;
    }
    return true;
}

// A bad line stops the start: a map that is half read would answer wrongly.
bool loadmap(const std::string& file, std::vector<Domain>* map) {
    std::ifstream in(file);
    if (!in) {
        std::fprintf(stderr, "vrtaname: cannot read the map %s: %s\n", file.c_str(), std::strerror(errno));
        return false;
    }
    std::string line;
    for (int no = 1; std::getline(in, line); ++no) {
        if (auto h = line.find('#'); h != std::string::npos) line.erase(h);
        std::stringstream ss(line);
        std::vector<std::string> w;
        for (std::string t; ss >> t;) w.push_back(t);
        if (w.empty()) continue;
        Domain d;
        char* e = nullptr;
        long port = w.size() >= 4 ? std::strtol(w[3].c_str(), &e, 10) : -1;
        bool ok = (w.size() == 4 || w.size() == 5) && w[0].size() <= 32 && !w[1].empty() && w[1].size() < 1000 &&
                  w[2].size() <= 128 && e && !*e && port >= 0 && port <= 65535;
        d.flags = 0;
        if (ok && w.size() == 5) ok = parseflags(w[4], &d.flags);
        if (!ok) {
            std::fprintf(stderr,
                         "vrtaname: %s line %d: expected DOMAIN PATH HOST PORT [FLAGS] (domain of at most 32, "
                         "port 0 to 65535)\n",
                         file.c_str(), no);
            return false;
        }
        d.name = upper(w[0]);
        d.path = w[1];
        d.host = w[2];
        d.port = static_cast<int>(port);
        for (const Domain& o : *map)
            if (o.name == d.name) {
                std::fprintf(stderr, "vrtaname: %s line %d: domain %s is already mapped\n", file.c_str(), no,
                             d.name.c_str());
                return false;
            }
        map->push_back(d);
    }
    return true;
}

void answer(YXSOCK_OPEN* so, long conn, void* ctx) {
    const auto& map = *static_cast<const std::vector<Domain>*>(ctx);
    int32_t magic = vrtasrv::newmagic();
    unsigned char m4[4];
    hpdput4(m4, magic);
    std::memcpy(so->recouta, m4, 4);
    so->recoutl = 4;
    if (yxswrit(so) != 0) return;
    DS_HDR_METHOD h;
    rctype rc = hpdrecvxm(so, &h);
    if (rc) {
        const char* t;
        int tl;
        rcignore(xrgtsub(&t, &tl));  // no text left: an empty one
        srvlog("connection %ld: no question: %.*s", conn, rc == YXS_RC_EOF ? 16 : tl,
               rc == YXS_RC_EOF ? "the client left" : t);
        return;
    }
    DS_LIBNAME_INFO8 q{};
    if (h.id != DSM_LIBNAME_INFO8 ||
        dsparse(q, HPD_LEVEL_NAME, static_cast<const unsigned char*>(so->reca), so->recl) != 0 || q.magic != magic) {
        srvlog("connection %ld: method %d refused: not a well-formed domain question", conn, h.id);
        return;
    }
    std::string want = upper(std::string(q.libname, q.liblen));
    while (!want.empty() && want.back() == ' ') want.pop_back();
    const Domain* d = nullptr;
    for (const Domain& o : map)
        if (o.name == want) d = &o;
    DS_HDR_REPLY r{DSM_LIBNAME_INFO8, 0, {}, d ? NS_FULL : NS_UNKNOWN, 0};
    DS_LIB_INFO_REPLY a{};
    std::memset(a.owner, ' ', 8);
    if (d) {
        a.pn = d->path.data();
        a.pnl = static_cast<int32_t>(d->path.size());
        a.node = d->host.data();
        a.nodelen = static_cast<int32_t>(d->host.size());
        a.port = d->port;
        a.option = a.roption = "";
        a.flag = d->flags;
        a.backup = 1;
    }
    rc = d ? hpdsendxr(so, r, HPD_LEVEL_NAME, &DS_LIB_INFO_REPLY_D, &a) : hpdsendxr(so, r, HPD_LEVEL_NAME, nullptr, nullptr);
    srvlog("connection %ld: user %.*s asked for domain %s: %s%s", conn, q.usrlen, q.user, want.c_str(),
           d ? "at " : "unknown", d ? (d->host + " port " + std::to_string(d->port)).c_str() : "");
    if (rc) srvlog("connection %ld: the answer could not be sent", conn);
}

int usage() {
    std::fprintf(stderr,
                 "usage: vrtaname --port N --map FILE [--listen ADDR] [--unix PATH] [--timeout SECS]\n"
                 "  Answers where a domain lives. Prints the port on the first line of stdout\n"
                 "  once it listens (--port 0 picks a free one).\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> a(argv + 1, argv + argc);
    vrtasrv::srvinit("vrtaname");
    vrtasrv::Listen l;
    std::string mapfile;
    for (size_t i = 0; i < a.size(); ++i) {
        bool used;
        if (!vrtasrv::parseListen(a, i, l, used)) return 2;
        if (used) continue;
        if (a[i] == "--map" && i + 1 < a.size()) {
            mapfile = a[++i];
        } else if (a[i] == "--help" || a[i] == "-h") {
            usage();
            return 0;
        } else {
            std::fprintf(stderr, "vrtaname: unknown argument '%s'\n", a[i].c_str());
            return usage();
        }
    }
    if (l.port < 0 || mapfile.empty()) return usage();
    std::vector<Domain> map;
    if (!loadmap(mapfile, &map)) return 1;
    return vrtasrv::serve(l, answer, &map);
}
