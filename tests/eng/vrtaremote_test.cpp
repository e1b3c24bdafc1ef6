// vrta reaching a domain over the wire: the engine vector as a host drives
// it, against our name server and data server on loopback.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>
#include <string>

#include "srvutil.h"
#include "testutil.h"

using wiretest::Server;

namespace {

std::string vrtabin() { return std::string(VRTA_TOOLS_DIR) + "/vrta"; }

}  // namespace

TEST(VrtaRemote, TablesOfARemoteDomainByItsMapName) {
    vrtatest::TempDir dir;
    std::string dom = dir.file("dom");
    mkdir(dom.c_str(), 0755);
    vrtatest::writeFile(dir.file("p.csv"), "a,b\n1,x\n2,y\n");
    for (const char* t : {"people", "orders"})
        ASSERT_EQ(vrtatest::runCommand(vrtabin() + " load " + dom + " " + t + " " + dir.file("p.csv")).status, 0);
    ASSERT_TRUE(wiretest::addUser(dir.file("pw"), "alice", "secret1"));
    Server sv("vrtaserv", {"--port", "0", "--passwords", dir.file("pw")}, dir.file("serv.log"));
    ASSERT_GT(sv.port(), 0);
    vrtatest::writeFile(dir.file("map"), "SALES " + dom + " 127.0.0.1 " + sv.portText() + "\n");
    Server ns("vrtaname", {"--port", "0", "--map", dir.file("map")}, dir.file("name.log"));
    ASSERT_GT(ns.port(), 0);
    std::string where = "127.0.0.1:" + ns.portText();

    // The options may come before the command or among its own.
    for (std::string cmd : {vrtabin() + " --name-server " + where + " --user alice tables SALES",
                            vrtabin() + " tables SALES --user alice --name-server " + where}) {
        auto r = vrtatest::runCommand("VRTA_PASSWORD=secret1 " + cmd + " 2>&1");
        EXPECT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find("orders\npeople\n"), std::string::npos) << r.out;
    }
    auto bad = vrtatest::runCommand("VRTA_PASSWORD=nope " + vrtabin() + " tables --name-server " + where +
                                    " --user alice SALES 2>&1");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("unknown user or wrong password"), std::string::npos) << bad.out;
    auto unknown = vrtatest::runCommand("VRTA_PASSWORD=secret1 " + vrtabin() + " tables --name-server " + where +
                                        " --user alice NOSUCH 2>&1");
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.out.find("The name server does not know the domain."), std::string::npos) << unknown.out;
    auto nouser = vrtatest::runCommand(vrtabin() + " tables --name-server " + where + " SALES 2>&1");
    EXPECT_EQ(nouser.status, 2);
    // No password and no terminal: said, not asked for.
    auto nopw = vrtatest::runCommand("env -u VRTA_PASSWORD " + vrtabin() + " tables --name-server " + where +
                                     " --user alice SALES </dev/null 2>&1");
    EXPECT_EQ(nopw.status, 2);
    EXPECT_NE(nopw.out.find("VRTA_PASSWORD"), std::string::npos) << nopw.out;
    EXPECT_EQ(sv.stop(), 0);
    EXPECT_NE(sv.log().find("member list 1 of domain 1: 2 members"), std::string::npos) << sv.log();
}
