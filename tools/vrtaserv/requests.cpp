// Requests of a logged-in connection: the domains it assigned live in its
// own table, through our storage layer's direct API, and are given back
// when the client deassigns them or leaves.
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "../srvcom/srvcom.h"
#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "serv.h"
#include "ssup/xp.h"
#include "vrta/directapi.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace vrtaserv {

namespace {

int levelof(const char prot[4]) {
    if (std::memcmp(prot, "4.50", 4) == 0) return HPD_LEVEL_450;
    if (std::memcmp(prot, "4.40", 4) == 0) return HPD_LEVEL_440;
    return HPD_LEVEL_UNKNOWN;
}

rctype assign(Session& s, const DS_YHELASG& q) {
    std::string phys(q.phys, q.physlen);
    std::string name(q.libname, 8);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    void* lib = nullptr;
    std::string why = "no path was given";
    int rc = VRTA_RC_BADARG;
    if (!phys.empty()) {
        std::lock_guard<std::mutex> g(apilock);
        rc = splasgn(phys.c_str(), &lib);
        if (rc < 0 || !lib) why = apitext(rc);
    }
    if (rc < 0 || !lib) {
        srvlog("connection %ld: assign %s (%s) refused: %s", s.conn, name.c_str(), phys.c_str(), why.c_str());
        DS_HDR_REPLY h{DSM_YHELASG, 0, {}, 0, HPD_RCLASS_FAIL};
        DS_YHELASG_REPLY r{};
        std::string msg = "The domain " + phys + " could not be assigned: " + why;
        r.msg = msg.data();
        r.msglen = static_cast<int32_t>(msg.size());
        r.phys = r.metapath = r.indxpath = r.datapath = r.usertok = "";
        return hpdsendr(s.so, h, s.native, s.level, &DS_YHELASG_REPLY_D, &r);
    }
    s.libs.push_back(lib);
    int libid = static_cast<int>(s.libs.size());
    struct statvfs v{};
    double kb = statvfs(phys.c_str(), &v) == 0 ? static_cast<double>(v.f_bavail) * v.f_frsize / 1024.0 : 0;
    DS_HDR_REPLY h{DSM_YHELASG, 0, {}, 0, 0};
    DS_YHELASG_REPLY r{};
    r.msg = r.usertok = "";
    r.libid = libid;
    r.phys = r.metapath = r.indxpath = r.datapath = phys.c_str();
    r.physlen = r.metalen = r.indxlen = r.datalen = static_cast<int32_t>(phys.size());
    r.size = kb;
    r.pid = static_cast<int32_t>(getpid());
    r.threadid = static_cast<int32_t>(s.conn);
    srvlog("connection %ld: assign %s (%s) as domain %d", s.conn, name.c_str(), phys.c_str(), libid);
    return hpdsendr(s.so, h, s.native, s.level, &DS_YHELASG_REPLY_D, &r);
}

rctype deassign(Session& s, int libid) {
    if (libid < 1 || libid > static_cast<int>(s.libs.size()) || !s.libs[libid - 1]) {
        srvlog("connection %ld: deassign of domain %d refused: not assigned here", s.conn, libid);
        return msgreply(s, DSM_YHELDAS, HPD_RCLASS_FAIL,
                        "The domain " + std::to_string(libid) + " is not assigned on this connection.");
    }
    int rc;
    std::string why;
    {
        std::lock_guard<std::mutex> g(apilock);
        rc = spldeasgn(s.libs[libid - 1]);
        if (rc < 0) why = apitext(rc);
    }
    s.libs[libid - 1] = nullptr;
    srvlog("connection %ld: deassign of domain %d%s", s.conn, libid, rc < 0 ? " failed" : "");
    return rc < 0 ? msgreply(s, DSM_YHELDAS, HPD_RCLASS_FAIL, why) : msgreply(s, DSM_YHELDAS, 0, "");
}

// One request; a reply goes back unless the connection broke. A body that
// does not parse is refused, the connection goes on.
rctype serve1(Session& s, const DS_HDR_METHOD& h) {
    const auto* body = static_cast<const unsigned char*>(s.so->reca);
    long len = s.so->recl;
    const DS_METHOD* m = dsmethod(h.id);
    auto bad = [&] { return badreq(s, h.id); };
    switch (h.id) {
        case DSM_YHELASG: {
            DS_YHELASG q{};
            if (dsparse(q, s.level, body, len) != 0) return bad();
            return assign(s, q);
        }
        case DSM_YHELDAS: {
            DS_YHELDAS q{};
            if (dsparse(q, s.level, body, len) != 0) return bad();
            return deassign(s, q.libid);
        }
        case DSM_YOEOPEN: return tableopen(s, body, len);
        case DSM_YOECLOS: return tableclose(s, body, len);
        case DSM_YOEFIX: return tablefix(s, body, len);
        case DSM_YOEGET_START: return tableget(s, body, len);
        case DSM_YOEROPN: return tablereopen(s, body, len);
        case DSM_YOEGET_TERM:
        case DSM_YOEADD_STATUS:
            // The end of a read the engine no longer wants: the stream has
            // stopped already (this request ended it); no reply.
            srvlog("connection %ld: end of a read (%s)", s.conn, m ? m->name : "?");
            return 0;
        case DSM_YDEDOPN: return diropen(s, body, len);
        case DSM_YDEDRD: return dirread(s, body, len);
        case DSM_YDECLS: return dirclose(s, body, len);
        default:
            srvlog("connection %ld: method %d (%s) is not served", s.conn, h.id, m ? m->name : "unknown");
            return msgreply(s, h.id, HPD_RCLASS_FAIL,
                            "The request " + std::string(m ? m->name : std::to_string(h.id)) +
                                " is not served by this server.");
    }
}

}  // namespace

rctype badreq(Session& s, int id) {
    const DS_METHOD* m = dsmethod(id);
    const char* t;
    int l;
    rcignore(xrgtsub(&t, &l));  // no text left: an empty one
    srvlog("connection %ld: %s refused: %.*s", s.conn, m ? m->name : "?", l, t);
    return msgreply(s, id, HPD_RCLASS_FAIL, std::string("The request does not fit its length: ") + std::string(t, l));
}

rctype msgreply(Session& s, int id, int rclass, const std::string& msg) {
    DS_HDR_REPLY h{id, 0, {}, 0, rclass};
    DS_MSG_REPLY r{};
    r.msg = msg.data();
    r.msglen = static_cast<int32_t>(msg.size());
    return hpdsendr(s.so, h, s.native, s.level, &DS_MSG_REPLY_D, &r);
}

std::string apitext(int rc) {
    char t[512];
    if (vrtaerrtext(rc, t, sizeof t) <= 0) std::snprintf(t, sizeof t, "code 0x%08x", static_cast<unsigned>(rc));
    return t;
}

void requests(YXSOCK_OPEN* so, long conn, const Config& cfg, const std::string&) {
    Session s{so, conn, hpdostag(cfg.osname)->native, levelof(cfg.prot), {}, {}, {}};
    for (long n = 0; n < 1000000 && !vrtasrv::stopping(); ++n) {
        if (!waitrequest(s, so->waitms)) break;
        DS_HDR_METHOD h;
        rctype rc = hpdrecvm(so, s.native, &h);
        if (rc == YXS_RC_EOF) break;
        if (rc) {
            const char* t;
            int l;
            rcignore(xrgtsub(&t, &l));  // no text left: an empty one
            srvlog("connection %ld: bad request, connection dropped: %.*s", conn, l, t);
            break;
        }
        if (serve1(s, h) != 0) {
            srvlog("connection %ld: the reply could not be sent", conn);
            break;
        }
    }
    sessionend(s);
}

}  // namespace vrtaserv
