// vrta mdf and vrta idx on a table with an index: the index record in the
// metadata file, the index file's trees, and a damaged file named with its page.
#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "../ix/ixtable.h"
#include "cliutil.h"
#include "testutil.h"

using namespace ixtest;

namespace {

using vrtatest::has;
vrtatest::Result runvrta(const std::string& args) { return vrtatest::vrta(args); }

size_t count(const std::string& s, const std::string& what) {
    size_t n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
}

std::string partition(const std::string& dir, const std::string& prefix) {
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0) found = dir + "/" + e->d_name;
        closedir(d);
    }
    return found;
}

// Runs vrta with a terminal for its output; what it wrote and its exit
// status (-1 when it did not end within a minute).
vrtatest::Result onterminal(const std::string& args) {
    vrtatest::Result r;
    int master = -1;
    std::string cmd = VRTA_TOOLS_DIR "/vrta " + args;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) return r;
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    char buf[4096];
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() < until) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 1000) < 0) break;
        if (!(p.revents & (POLLIN | POLLHUP))) continue;
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0) ended = true;  // EIO once the child's side is closed
        else r.out.append(buf, static_cast<size_t>(n));
    }
    if (!ended) kill(pid, SIGKILL);
    int st = 0;
    if (waitpid(pid, &st, 0) == pid && ended && WIFEXITED(st)) r.status = WEXITSTATUS(st);
    close(master);
    return r;
}

}  // namespace

TEST(CliIndex, MdfShowsTheRecordAndIdxShowsTheTrees) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "Tab", SEGSIZE);
    ASSERT_NE(nullptr, fp);
    auto r = rows(1, 200);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 200));
    int32_t col[] = {1};
    ASSERT_EQ(0, fp->mt->addidx(fp, "ix", DA_IDXFIDX, 1, col));
    ASSERT_EQ(0, buildindex(fp));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);

    vrtatest::Result m = runvrta("mdf " + tmp.path() + "/tab");
    ASSERT_EQ(0, m.status) << m.err;
    EXPECT_TRUE(has(m.out, "index \"ix\" numeric key of 8 bytes on column(s) 1\n")) << m.out;
    EXPECT_TRUE(has(m.out, "rows indexed 200")) << m.out;
    EXPECT_TRUE(has(m.out, "idx file: FIB at")) << m.out;
    EXPECT_TRUE(has(m.out, "state 0 (clean)")) << m.out;

    vrtatest::Result i = runvrta("idx " + tmp.path() + "/tab.idxix --entries 2");
    ASSERT_EQ(0, i.status) << i.err;
    EXPECT_TRUE(has(i.out, "type 1 (continuous) segment_size 64 value_len 8 state 7 (clean)")) << i.out;
    EXPECT_TRUE(has(i.out, "psize 512")) << i.out;
    EXPECT_EQ(4u, count(i.out, "\ntree ")) << i.out;  // 200 rows, 64 a tree
    EXPECT_TRUE(has(i.out, "entries 64\n")) << i.out;
    EXPECT_TRUE(has(i.out, "entries 8\n")) << i.out;
    EXPECT_EQ(8u, count(i.out, " row ")) << i.out;
    vrtatest::Result one = runvrta("idx " + tmp.path() + "/tab.idxix --tree 3 --pages");
    ASSERT_EQ(0, one.status) << one.err;
    EXPECT_EQ(1u, count(one.out, "\ntree ")) << one.out;
    EXPECT_TRUE(has(one.out, ": leaf prev 0 next 0 entries 8")) << one.out;

    // A file cut short is named with the page that is missing.
    std::string part = partition(tmp.path(), "tab.idxix.");
    std::string bytes = vrtatest::readFile(part);
    vrtatest::writeFile(part, bytes.substr(0, bytes.size() - 512));
    vrtatest::Result bad = runvrta("idx " + part);
    EXPECT_EQ(1, bad.status);
    EXPECT_TRUE(has(bad.err, "page ")) << bad.err;
    EXPECT_EQ(2, runvrta("idx").status);
    EXPECT_EQ(2, runvrta("idx " + part + " --entries x").status);
    EXPECT_EQ(1, runvrta("idx " + tmp.path() + "/nothing").status);
}

// A user's road: a load that indexes a column, an index made and listed,
// the .hbx side printed, a unique index refused over repeated values, a
// missing column named, a drop.
TEST(CliIndex, IndexCommandsCreateListShowAndDrop) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("dom"), csv = tmp.file("p.csv");
    std::string text = "id,name,grp\n";
    for (int i = 1; i <= 300; ++i) text += std::to_string(i) + ",n" + std::to_string(i % 37) + ",g" + std::to_string(i % 4) + "\n";
    vrtatest::writeFile(csv, text);
    vrtatest::Result r = runvrta("load " + dom + " people " + csv + " --index grp");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "indexed people on grp")) << r.out;
    r = runvrta("index create " + dom + " people byid --on id --unique");
    ASSERT_EQ(0, r.status) << r.err;
    r = runvrta("index create " + dom + " people both --on name,id");
    ASSERT_EQ(0, r.status) << r.err;
    r = runvrta("index list " + dom + " people");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "\ngrp ")) << r.out;
    EXPECT_TRUE(has(r.out, "usable, unique")) << r.out;
    EXPECT_TRUE(has(r.out, "name,id")) << r.out;
    EXPECT_EQ(3u, count(r.out, "usable")) << r.out;
    EXPECT_TRUE(has(r.out, "           4          300")) << r.out;  // 4 values over 300 rows

    r = runvrta("idx " + dom + "/people.hbxgrp --entries 4");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "type 5 (hybrid)")) << r.out;
    EXPECT_TRUE(has(r.out, "values 4")) << r.out;
    EXPECT_EQ(4u, count(r.out, "\nvalue ")) << r.out;
    EXPECT_TRUE(has(r.out, "  segment 0: ")) << r.out;

    r = runvrta("index create " + dom + " people u --on grp --unique");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "0x80000523")) << r.err;
    r = runvrta("index create " + dom + " people x --on nope");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "no column 'nope'")) << r.err;
    r = runvrta("index create " + dom + " people grp --on grp");
    EXPECT_EQ(1, r.status);
    r = runvrta("index drop " + dom + " people both");
    ASSERT_EQ(0, r.status) << r.err;
    r = runvrta("index list " + dom + " people");
    EXPECT_EQ(2u, count(r.out, "usable")) << r.out;
    EXPECT_FALSE(has(r.out, "name,id")) << r.out;
    EXPECT_EQ(1, runvrta("index drop " + dom + " people both").status);
    EXPECT_EQ(2, runvrta("index frob " + dom + " people").status);
}

// On a terminal a build shows its progress and clears the line when done;
// into a file or pipe nothing of it is written.
TEST(CliIndex, ProgressBarOnlyOnATerminal) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("dom"), csv = tmp.file("p.csv");
    std::string text = "id,grp\n";
    for (int i = 1; i <= 5000; ++i) text += std::to_string(i) + ",g" + std::to_string(i % 9) + "\n";
    vrtatest::writeFile(csv, text);
    ASSERT_EQ(0, runvrta("load " + dom + " t " + csv).status);
    vrtatest::Result r = onterminal("index create " + dom + " t bygrp --on grp");
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_TRUE(has(r.out, "sorting T [")) << r.out;
    EXPECT_TRUE(has(r.out, "indexing BYGRP [")) << r.out;
    EXPECT_TRUE(has(r.out, "100%")) << r.out;
    EXPECT_TRUE(has(r.out, "\r\033[K")) << r.out;
    r = runvrta("index create " + dom + " t byid --on id");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_FALSE(has(r.err, "%")) << r.err;
    EXPECT_FALSE(has(r.out, "%")) << r.out;
    r = runvrta("index list " + dom + " t");
    EXPECT_EQ(2u, count(r.out, "usable")) << r.out;
}
