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

TEST(VrtaRemote, PrintAndDescribeOnEitherRoadMatchTheEmbeddedOnes) {
    vrtatest::TempDir dir;
    std::string dom = dir.file("dom");
    mkdir(dom.c_str(), 0755);
    // Enough rows for several blocks of the wire, values of every kind.
    std::string csv = "id,name,x\n";
    for (int i = 1; i <= 3000; ++i)
        csv += std::to_string(i) + "," + (i % 11 ? std::string(1, 'n').append(std::to_string(i * 7)) : "\"a, b\"") +
               "," + (i % 5 ? std::to_string(i) + ".25" : "") + "\n";
    vrtatest::writeFile(dir.file("p.csv"), csv);
    ASSERT_EQ(vrtatest::runCommand(vrtabin() + " load " + dom + " people " + dir.file("p.csv")).status, 0);
    ASSERT_TRUE(wiretest::addUser(dir.file("pw"), "alice", "secret1"));
    Server sv("vrtaserv", {"--port", "0", "--passwords", dir.file("pw")}, dir.file("serv.log"));
    ASSERT_GT(sv.port(), 0);
    vrtatest::writeFile(dir.file("map"), "SALES " + dom + " 127.0.0.1 " + sv.portText() + "\n");
    Server ns("vrtaname", {"--port", "0", "--map", dir.file("map")}, dir.file("name.log"));
    ASSERT_GT(ns.port(), 0);
    std::string remote = "VRTA_PASSWORD=secret1 " + vrtabin() + " --name-server 127.0.0.1:" + ns.portText() +
                         " --user alice ";

    for (std::string how : {"--csv", "", "--last 4", "--first 2 --opt 'STARTOBS=1500'"}) {
        auto local = vrtatest::runCommand(vrtabin() + " print " + dom + " people " + how);
        ASSERT_EQ(local.status, 0) << local.out;
        for (std::string road : {"", " --road wire", " --road direct"}) {
            SCOPED_TRACE(how + road);
            auto r = vrtatest::runCommand(remote + "print SALES people " + how + road + " 2>/dev/null");
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(r.out, local.out);
        }
    }
    auto d = vrtatest::runCommand(remote + "describe SALES people 2>&1");
    EXPECT_EQ(d.status, 0) << d.out;
    EXPECT_NE(d.out.find("rows:          3000\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("road:          direct path beside the wire"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("    2  name  char("), std::string::npos) << d.out;
    auto w = vrtatest::runCommand(remote + "describe SALES people --road wire 2>&1");
    EXPECT_NE(w.out.find("road:          wire\n"), std::string::npos) << w.out;
    // Seen from another address the server is on another machine: the direct
    // road is refused, the wire still reads.
    auto far = vrtatest::runCommand("VRTABINDADDR=127.0.0.2 " + remote + "print SALES people --road direct 2>&1");
    EXPECT_EQ(far.status, 1);
    EXPECT_NE(far.out.find("is read over the wire here"), std::string::npos) << far.out;
    auto farw = vrtatest::runCommand("VRTABINDADDR=127.0.0.2 " + remote + "print SALES people --csv 2>/dev/null");
    EXPECT_EQ(farw.out, vrtatest::runCommand(vrtabin() + " print " + dom + " people --csv").out);
    // A key with small letters would reach the server changed: refused.
    auto key = vrtatest::runCommand(remote + "print SALES people --key abc 2>&1");
    EXPECT_EQ(key.status, 2);
    EXPECT_NE(key.out.find("small letters"), std::string::npos) << key.out;
    auto missing = vrtatest::runCommand(remote + "print SALES nobody 2>&1");
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.out.find("could not be opened"), std::string::npos) << missing.out;
    EXPECT_EQ(sv.stop(), 0);
}
