// Our reference servers started by a test: on 127.0.0.1 with port 0, the
// port read back from the first line of stdout, stderr kept in a file, and
// always stopped (SIGTERM, then SIGKILL if it does not go in time).
#pragma once
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "eng/hpdopt.h"
#include "testutil.h"

namespace wiretest {

class Server {
public:
    // prog: "vrtaserv" or "vrtaname" in the build's tools folder.
    Server(const std::string& prog, std::vector<std::string> args, const std::string& logfile) : log_(logfile) {
        std::string path = std::string(VRTA_TOOLS_DIR) + "/" + prog;
        int out[2];
        if (pipe(out) != 0) return;
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // A test that dies before its destructor runs takes its server along.
            if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(127);
            dup2(out[1], 1);
            int e = open(logfile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (e >= 0) dup2(e, 2);
            close(out[0]);
            std::vector<char*> av;
            av.push_back(path.data());
            for (auto& a : args) av.push_back(a.data());
            av.push_back(nullptr);
            execv(path.c_str(), av.data());
            _exit(127);
        }
        close(out[1]);
        // The port comes on the first line once the server listens; a server
        // that never gets there is given 60 seconds (sanitizer builds start slowly).
        std::string line;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < until) {
            pollfd p{out[0], POLLIN, 0};
            if (poll(&p, 1, 1000) <= 0) continue;
            char b[64];
            ssize_t n = read(out[0], b, sizeof b);
            if (n <= 0) break;
            line.append(b, n);
        }
        close(out[0]);
        if (line.find('\n') != std::string::npos) port_ = std::atoi(line.c_str());
    }
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    int port() const { return port_; }
    std::string portText() const { return std::to_string(port_); }
    pid_t pid() const { return pid_; }
    std::string log() const { return vrtatest::readFile(log_); }

    // Exit status after SIGTERM (or the kill signal), -1 if it had to be killed.
    int stop(int sig = SIGTERM) {
        if (pid_ <= 0) return status_;
        // Wait on the process itself, for 20 seconds at most.
        int pfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        kill(pid_, sig);
        if (pfd >= 0) {
            pollfd p{pfd, POLLIN, 0};
            poll(&p, 1, 20000);
            close(pfd);
        }
        int st;
        if (waitpid(pid_, &st, WNOHANG) == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            pid_ = -1;
            return status_;
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        return status_ = -1;
    }

private:
    pid_t pid_ = -1;
    int port_ = 0;
    int status_ = -1;
    std::string log_;
};

// A password file with users and passwords, made through the server's own
// command so that the hashes are the real thing.
inline bool addUser(const std::string& file, const std::string& user, const std::string& pass, bool expired = false) {
    std::string cmd = "printf '%s\\n' '" + pass + "' | " + std::string(VRTA_TOOLS_DIR) + "/vrtaserv passwd " + file +
                      " " + user + (expired ? " --expired" : "") + " 2>/dev/null";
    return vrtatest::runCommand(cmd).status == 0;
}

// A data server on loopback with a password file, its log in dir.
inline std::unique_ptr<Server> dataServer(const vrtatest::TempDir& dir, const std::string& pw,
                                          std::vector<std::string> extra = {}) {
    std::vector<std::string> a = {"--port", "0", "--passwords", pw, "--timeout", "30"};
    a.insert(a.end(), extra.begin(), extra.end());
    auto s = std::make_unique<Server>("vrtaserv", a, dir.file("serv.log"));
    EXPECT_GT(s->port(), 0) << s->log();
    return s;
}

// Options of an assign that reaches 127.0.0.1 at port as user.
inline vrta::HPDOPT loopOpt(const std::string& port, const std::string& user, const std::string& pass) {
    vrta::HPDOPT o{};
    std::memcpy(o.servname, "127.0.0.1", 9);
    o.servlen = 9;
    std::snprintf(o.appname, sizeof o.appname, "%s", port.c_str());
    o.applen = static_cast<int>(std::strlen(o.appname));
    std::snprintf(o.user, sizeof o.user, "%s", user.c_str());
    std::snprintf(o.pass, sizeof o.pass, "%s", pass.c_str());
    return o;
}

}  // namespace wiretest
