// The password file of vrtaserv: salted slow hashes, changed atomically, so
// that a server killed mid-change leaves the old file or the new one whole.
#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "serv.h"

namespace vrtaserv {

namespace {

struct Entry {
    std::string user, hash, flags;
};

std::mutex filelock;  // one change at a time within the server

bool okuser(const std::string& u) {
    if (u.empty() || u.size() > 128) return false;
    for (char c : u)
        if (c == ':' || c == '\n' || static_cast<unsigned char>(c) <= ' ') return false;
    return true;
}

bool okpass(const std::string& p) {
    if (p.empty()) return false;
    for (char c : p)
        if (c == '\n' || c == '\r' || c == 0) return false;
    return true;
}

// Reads every entry; false with a message for a file that cannot be read or
// has a malformed line.
bool load(const std::string& file, std::vector<Entry>* out, bool missingok, std::string* why) {
    std::ifstream in(file);
    if (!in) {
        if (missingok && errno == ENOENT) return true;
        *why = file + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    for (int no = 1; std::getline(in, line); ++no) {
        if (line.empty() || line[0] == '#') continue;
        size_t a = line.find(':'), b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos || !okuser(line.substr(0, a))) {
            *why = file + " line " + std::to_string(no) + ": expected USER:HASH:FLAGS";
            return false;
        }
        out->push_back({line.substr(0, a), line.substr(a + 1, b - a - 1), line.substr(b + 1)});
    }
    return true;
}

bool store(const std::string& file, const std::vector<Entry>& es, std::string* why) {
    std::string tmp = file + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why = tmp + ": " + std::strerror(errno);
        return false;
    }
    std::string text;
    for (const Entry& e : es) {
        text.append(e.user).append(1, ':').append(e.hash).append(1, ':').append(e.flags).append(1, '\n');
    }
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    if (close(fd) != 0) ok = false;
    if (!ok || rename(tmp.c_str(), file.c_str()) != 0) {
        *why = file + ": " + std::strerror(errno);
        unlink(tmp.c_str());
        return false;
    }
    // The rename itself must reach the disk before the change is reported.
    size_t slash = file.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : file.substr(0, slash ? slash : 1);
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        fsync(dfd);
        close(dfd);
    }
    return true;
}

bool hash(const std::string& pass, std::string* out) {
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn("$y$", 0, nullptr, 0, salt, sizeof salt)) return false;
    crypt_data d;
    std::memset(&d, 0, sizeof d);
    const char* h = crypt_rn(pass.c_str(), salt, &d, sizeof d);
    if (!h || h[0] == '*') return false;
    *out = h;
    return true;
}

bool matches(const std::string& pass, const std::string& stored) {
    crypt_data d;
    std::memset(&d, 0, sizeof d);
    const char* h = crypt_rn(pass.c_str(), stored.c_str(), &d, sizeof d);
    return h && h[0] != '*' && stored == h;
}

int rules(const std::string& user, const std::string& oldpass, const std::string& np) {
    if (!okpass(np)) return PW_INVALID;
    if (np == oldpass) return PW_REUSED;
    if (np.size() < PW_MINLEN) return PW_SHORT;
    if (np == user) return PW_RULES;
    return PW_OK;
}

std::string readpass() {
    termios t{};
    bool tty = isatty(0) && tcgetattr(0, &t) == 0;
    if (tty) {
        std::fprintf(stderr, "password: ");
        termios q = t;
        q.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(0, TCSANOW, &q);
    }
    std::string p;
    std::getline(std::cin, p);
    if (tty) {
        tcsetattr(0, TCSANOW, &t);
        std::fprintf(stderr, "\n");
    }
    if (!p.empty() && p.back() == '\r') p.pop_back();
    return p;
}

}  // namespace

bool checkpasswords(const std::string& file) {
    std::vector<Entry> es;
    std::string why;
    if (!load(file, &es, false, &why)) {
        std::fprintf(stderr, "vrtaserv: cannot use the password file %s\n", why.c_str());
        return false;
    }
    return true;
}

int pwcheck(const std::string& file, const std::string& user, const std::string& pass, bool* expired) {
    std::lock_guard<std::mutex> g(filelock);
    std::vector<Entry> es;
    std::string why;
    if (!load(file, &es, false, &why)) return 0;
    for (const Entry& e : es)
        if (e.user == user) {
            *expired = e.flags == "expired";
            return matches(pass, e.hash) ? 1 : 0;
        }
    // An unknown user costs as much as a known one.
    matches(pass, "$y$j9T$aaaaaaaaaaaaaaaaaaaaa.$aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa");
    return 0;
}

int pwchange(const std::string& file, const std::string& user, const std::string& oldpass,
             const std::string& newpass) {
    if (int r = rules(user, oldpass, newpass); r != PW_OK) return r;
    std::lock_guard<std::mutex> g(filelock);
    std::vector<Entry> es;
    std::string why, h;
    if (!load(file, &es, false, &why) || !hash(newpass, &h)) return PW_INVALID;
    for (Entry& e : es)
        if (e.user == user) {
            e.hash = h;
            e.flags.clear();
        }
    return store(file, es, &why) ? PW_OK : PW_INVALID;
}

int passwdcmd(const std::vector<std::string>& a) {
    if (a.size() < 3 || a.size() > 4 || (a.size() == 4 && a[3] != "--expired")) {
        std::fprintf(stderr, "usage: vrtaserv passwd FILE USER [--expired]\n");
        return 2;
    }
    const std::string& file = a[1];
    const std::string& user = a[2];
    if (!okuser(user)) {
        std::fprintf(stderr, "vrtaserv: a user name has 1 to 128 characters, no blanks and no ':'\n");
        return 2;
    }
    std::string p = readpass();
    if (!okpass(p)) {
        std::fprintf(stderr, "vrtaserv: the password must not be empty\n");
        return 2;
    }
    std::vector<Entry> es;
    std::string why, h;
    if (!load(file, &es, true, &why)) {
        std::fprintf(stderr, "vrtaserv: %s\n", why.c_str());
        return 1;
    }
    if (!hash(p, &h)) {
        std::fprintf(stderr, "vrtaserv: the password could not be hashed\n");
        return 1;
    }
    std::string flags = a.size() == 4 ? "expired" : "";
    bool found = false;
    for (Entry& e : es)
        if (e.user == user) {
            e.hash = h;
            e.flags = flags;
            found = true;
        }
    if (!found) es.push_back({user, h, flags});
    if (!store(file, es, &why)) {
        std::fprintf(stderr, "vrtaserv: %s\n", why.c_str());
        return 1;
    }
    std::fprintf(stderr, "vrtaserv: %s user %s\n", found ? "changed" : "added", user.c_str());
    return 0;
}

}  // namespace vrtaserv
