// The login of a connection: the magic word, the enciphered user and
// password, a password change or an expired password, then the version.
#include <cstring>
#include <string>

#include "../srvcom/srvcom.h"
#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "serv.h"
#include "ssup/xp.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace vrtaserv {

namespace {

std::string text(const char* p, int32_t l) { return std::string(p ? p : "", l > 0 ? l : 0); }

std::string lasterr() {
    const char* t;
    int l;
    rcignore(xrgtsub(&t, &l));  // no text left: an empty one
    return std::string(t, l);
}

// A refused login: class 2, with the reason as the reply's text.
void refuse(YXSOCK_OPEN* so, long conn, const std::string& why) {
    srvlog("connection %ld: login refused: %s", conn, why.c_str());
    DS_HDR_REPLY h{DSM_SERVER_INIT, 0, {}, 0, HPD_RCLASS_FAIL};
    DS_MSG_REPLY r{};
    std::string msg = "Login refused: " + why;
    r.msg = msg.data();
    r.msglen = static_cast<int32_t>(msg.size());
    hpdsendxr(so, h, HPD_LEVEL_LOGIN, &DS_MSG_REPLY_D, &r);
}

const char* pwtext(int rc) {
    switch (rc) {
        case PW_INVALID: return "not valid";
        case PW_REUSED: return "the same as the old one";
        case PW_SHORT: return "too short";
        case PW_RULES: return "against the rules";
        default: return "accepted";
    }
}

}  // namespace

void conversation(YXSOCK_OPEN* so, long conn, void* ctx) {
    const Config& cfg = *static_cast<const Config*>(ctx);
    int32_t magic = vrtasrv::newmagic();
    hpdput4(static_cast<unsigned char*>(so->recouta), magic);
    so->recoutl = 4;
    if (yxswrit(so) != 0) return;

    DS_HDR_METHOD h;
    rctype rc = hpdrecvxm(so, &h);
    if (rc) {
        srvlog("connection %ld: no login: %s", conn, rc == YXS_RC_EOF ? "the client left" : lasterr().c_str());
        return;
    }
    DS_SERVER_INIT q{};
    const auto* body = static_cast<const unsigned char*>(so->reca);
    if (h.id != DSM_SERVER_INIT || dsparse(q, HPD_LEVEL_LOGIN, body, so->recl) != 0) {
        refuse(so, conn, "the first message is not a well-formed login");
        return;
    }
    if (q.magic != magic || q.m1 != magic) {
        refuse(so, conn, "the login does not answer this connection's greeting");
        return;
    }
    std::string user = text(q.user, q.userl), pass = text(q.pass, q.passl), npass = text(q.npass, q.npassl);
    std::string aclgrp = text(q.aclgrp, q.aclgrpl);
    bool expired = false;
    if (pwcheck(cfg.passwords, user, pass, &expired) != 1) {
        // The same answer for an unknown user and a wrong password.
        refuse(so, conn, "unknown user or wrong password for '" + user + "'");
        return;
    }
    DS_HDR_REPLY rh{DSM_SERVER_INIT, 0, {}, 0, 0};
    DS_SERVER_INIT_REPLY r{};
    std::string msg;
    if (!npass.empty()) {
        int pw = pwchange(cfg.passwords, user, pass, npass);
        srvlog("connection %ld: user %s changed the password: %s", conn, user.c_str(), pwtext(pw));
        rh.rcode = pw;
        if (pw == PW_OK) expired = false;
    }
    for (char& c : aclgrp) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    r.msg = msg.data();
    r.msglen = 0;
    r.expire = expired ? 1 : 0;
    r.aclgrp = aclgrp.data();
    r.aclgrpl = static_cast<int32_t>(aclgrp.size());
    r.token = "";
    if (hpdsendxr(so, rh, HPD_LEVEL_LOGIN, &DS_SERVER_INIT_REPLY_D, &r) != 0 || rh.rcode != PW_OK) return;

    if (expired) {
        // The client either gives a new password or goes away.
        if (hpdrecvxm(so, &h) != 0) {
            srvlog("connection %ld: user %s left with an expired password", conn, user.c_str());
            return;
        }
        DS_PASSWORD p{};
        if (h.id != DSM_PASSWORD || dsparse(p, HPD_LEVEL_LOGIN, static_cast<const unsigned char*>(so->reca), so->recl) != 0 ||
            p.magic != magic) {
            refuse(so, conn, "an expired password needs a password change");
            return;
        }
        int pw = pwchange(cfg.passwords, user, pass, text(p.pass, p.passl));
        srvlog("connection %ld: user %s replaced the expired password: %s", conn, user.c_str(), pwtext(pw));
        DS_HDR_REPLY ph{DSM_PASSWORD, 0, {}, pw, 0};
        if (hpdsendxr(so, ph, HPD_LEVEL_LOGIN, nullptr, nullptr) != 0 || pw != PW_OK) return;
    }

    PROXY_ACK ack;
    std::memset(&ack, ' ', sizeof ack);
    std::memcpy(ack.prot, cfg.prot, 4);
    std::memcpy(ack.osname, cfg.osname, 8);
    std::memset(ack.filler, 0, sizeof ack.filler);
    hpdput4(ack.filler[0], cfg.tsm);
    std::memcpy(so->recouta, &ack, sizeof ack);
    so->recoutl = sizeof ack;
    if (yxswrit(so) != 0) return;
    srvlog("connection %ld: user %s logged in from %s", conn, user.c_str(), q.nodel > 0 ? text(q.node, q.nodel).c_str() : "?");
    requests(so, conn, cfg, user);
}

}  // namespace vrtaserv
