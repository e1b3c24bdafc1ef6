// What our two reference servers share: the runtime brought up, log lines on
// stderr, listening on loopback (and a UNIX path), one thread per
// connection, a clean stop on SIGTERM, the login's first word.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "eng/yxsoc.h"

namespace vrtasrv {

// Names the server in its log lines and messages; first thing in main.
void srvinit(const char* name);

// One log line on stderr: "NAME[pid] text".
void srvlog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

struct Listen {
    std::string addr = "127.0.0.1";
    int port = -1;          // -1: not given
    std::string unixpath;   // also listen here when not empty
    int waitms = 600000;    // a client silent for longer is dropped
    long maxreq = 1000000;  // requests on one connection
    int maxconn = 256;      // connections at once
};

// Parses the listening options common to both servers; false with a
// message on stderr for a bad or missing value. i points at the option.
bool parseListen(const std::vector<std::string>& args, size_t& i, Listen& l, bool& used);

// Per connection: the server's handler runs on its own thread with a
// message block and pool of its own, on a socket record ready for counted
// reads; it returns when the conversation is over. The record is closed
// after it returns.
using Handler = void (*)(vrta::YXSOCK_OPEN* so, long conn, void* ctx);

// Brings up the runtime, listens, prints the port on the first line of
// stdout, serves until SIGTERM or SIGINT, then stops every connection and
// waits for their threads. Returns the exit status.
int serve(const Listen& l, Handler h, void* ctx);

// A 4-byte number the client must echo in its login.
int32_t newmagic();

// Whether the server is stopping (handlers look between requests).
bool stopping();

}  // namespace vrtasrv
