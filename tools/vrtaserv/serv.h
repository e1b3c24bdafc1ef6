// The parts of vrtaserv: its settings, the password file, the login and
// the requests of a logged-in connection.
#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "eng/yxsoc.h"

namespace vrtaserv {

struct Config {
    std::string passwords;
    char prot[4] = {'4', '.', '5', '0'};
    // Our tables hold this machine's little-endian IEEE form: rows need no
    // conversion for an engine on it.
    char osname[8] = {'S', 'O', 'L', '-', 'x', '6', '4', ' '};
    int tsm = 0;  // maintenance number sent with the version
};

// The password change outcomes the engine knows (rcode of the reply).
constexpr int PW_OK = 0;
constexpr int PW_INVALID = 1;   // empty, or a character the file cannot hold
constexpr int PW_REUSED = 2;    // the same as the old one
constexpr int PW_SHORT = 3;     // under PW_MINLEN
constexpr int PW_RULES = 4;     // the user's own name
constexpr size_t PW_MINLEN = 6;

// Password file: "USER:HASH:FLAGS" a line, FLAGS empty or "expired".
bool checkpasswords(const std::string& file);
// 1 the password is right (*expired tells whether it must change), 0 not.
int pwcheck(const std::string& file, const std::string& user, const std::string& pass, bool* expired);
// Checks a new password against the rules, and stores it: PW_*.
int pwchange(const std::string& file, const std::string& user, const std::string& oldpass,
             const std::string& newpass);
// "vrtaserv passwd FILE USER [--expired]".
int passwdcmd(const std::vector<std::string>& args);

// One connection: login, then requests until the client leaves.
void conversation(vrta::YXSOCK_OPEN* so, long conn, void* ctx);

// Answers requests on a logged-in connection.
void requests(vrta::YXSOCK_OPEN* so, long conn, const Config& cfg, const std::string& user);

// One open table of a connection, with the data port its rows go out on.
struct Table {
    void* fid = nullptr;       // null once closed
    std::string name;
    int obslen = 0;
    int blockfactor = 0;       // rows a block
    int compress = 0;          // the engine asked for compressed blocks
    int lfd = -1;              // the data port, listening
    int dfd = -1;              // the engine's data connection
    std::string upath;         // the data port's UNIX path, when it has one
};

// What a logged-in connection holds: its domains, open tables and member
// lists, each numbered from 1 on this connection; null once given back.
struct Session {
    vrta::YXSOCK_OPEN* so;
    long conn;
    int native;  // headers in this machine's order (by the tag we sent)
    int level;   // the level the engine speaks to us at
    std::vector<void*> libs;
    std::vector<Table> tables;
    std::vector<std::vector<std::string>> dirs;  // member names still to hand out
};

// The direct API keeps its last error text in one place for the process:
// a call and the fetch of its text go together under this lock.
extern std::mutex apilock;

// A request whose body does not fit its method: refused, the connection goes on.
vrta::rctype badreq(Session& s, int id);
// A reply of the server's text only; rclass 2 for a failure.
vrta::rctype msgreply(Session& s, int id, int rclass, const std::string& msg);
// The storage layer's text of a code.
std::string apitext(int rc);

// Table requests: open with its reply stream, close, repair; member lists.
vrta::rctype tableopen(Session& s, const unsigned char* body, long len);
vrta::rctype tableclose(Session& s, const unsigned char* body, long len);
vrta::rctype tablefix(Session& s, const unsigned char* body, long len);
vrta::rctype diropen(Session& s, const unsigned char* body, long len);
vrta::rctype dirread(Session& s, const unsigned char* body, long len);
vrta::rctype dirclose(Session& s, const unsigned char* body, long len);
// Gives back what a leaving client kept open.
void sessionend(Session& s);

// The data port of an open table: a listener on the address the engine
// reached us on (or a UNIX path when it asked for one). 0, or -1 with why.
int portopen(Session& s, Table& t, bool unixpath, int* port, std::string* why);
// Accepts the engine's data connection and greets it with one byte.
bool portaccept(Session& s, Table& t, int waitms);
void portclose(Table& t);
// Waits for the next request, accepting data connections meanwhile: false
// when the wait timed out or the server is stopping.
bool waitrequest(Session& s, int waitms);
// DS_YOEGET_START: the reply, then the rows on the data port.
vrta::rctype tableget(Session& s, const unsigned char* body, long len);
// DS_YOEROPN.
vrta::rctype tablereopen(Session& s, const unsigned char* body, long len);

}  // namespace vrtaserv
