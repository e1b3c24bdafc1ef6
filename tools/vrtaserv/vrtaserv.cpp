// vrtaserv: a reference data server. It logs users in against a password
// file, then answers requests on the tables of our own storage layer, one
// thread per connection.
//
//   vrtaserv --port N --passwords FILE [--unix PATH] [--listen ADDR] [--timeout SECS]
//   vrtaserv passwd FILE USER [--expired]     (the password is read from stdin)
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../srvcom/srvcom.h"
#include "serv.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: vrtaserv --port N --passwords FILE [--unix PATH] [--listen ADDR] [--timeout SECS]\n"
                 "       vrtaserv passwd FILE USER [--expired]\n"
                 "  Serves tables to the engine. Prints the port on the first line of stdout once it\n"
                 "  listens (--port 0 picks a free one); listens on 127.0.0.1 unless --listen says\n"
                 "  otherwise. 'passwd' adds or changes USER in FILE, reading the password from stdin;\n"
                 "  --expired makes the user change it at the next login.\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> a(argv + 1, argv + argc);
    vrtasrv::srvinit("vrtaserv");
    if (!a.empty() && a[0] == "passwd") return vrtaserv::passwdcmd(a);
    vrtasrv::Listen l;
    vrtaserv::Config cfg;
    for (size_t i = 0; i < a.size(); ++i) {
        bool used;
        if (!vrtasrv::parseListen(a, i, l, used)) return 2;
        if (used) continue;
        if (a[i] == "--passwords" && i + 1 < a.size()) {
            cfg.passwords = a[++i];
        } else if (a[i] == "--prot" && i + 1 < a.size() && a[i + 1].size() == 4) {
            // Which version to claim: lets a test see how the engine treats
            // an older or an unknown server.
            std::memcpy(cfg.prot, a[++i].data(), 4);
        } else if (a[i] == "--osname" && i + 1 < a.size() && a[i + 1].size() <= 8) {
            std::string t = a[++i];
            t.resize(8, ' ');
            std::memcpy(cfg.osname, t.data(), 8);
        } else if (a[i] == "--help" || a[i] == "-h") {
            usage();
            return 0;
        } else {
            std::fprintf(stderr, "vrtaserv: unknown or incomplete argument '%s'\n", a[i].c_str());
            return usage();
        }
    }
    if (l.port < 0 || cfg.passwords.empty()) return usage();
    if (!vrtaserv::checkpasswords(cfg.passwords)) return 1;
    return vrtasrv::serve(l, vrtaserv::conversation, &cfg);
}
