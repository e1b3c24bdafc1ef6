// Connections: the openers of every socket the engine makes, the logins on
// them, the name server's question, and the list of data-server connections
// of an engine.
#pragma once
#include "eng/hpd.h"
#include "eng/hpdopt.h"
#include "eng/yxsoc.h"

namespace vrta {

// The protocol this engine speaks, and the level of each known server version.
inline constexpr char HPD_PROT[5] = "4.50";
constexpr int HPD_LEVEL_450 = 13;
constexpr int HPD_LEVEL_440 = 12;
constexpr int HPD_LEVEL_UNKNOWN = -1;
// Level of the login exchange, before the server's version is known.
constexpr int HPD_LEVEL_LOGIN = 12;
// Level of the name server's answer.
constexpr int HPD_LEVEL_NAME = 11;
// Smallest record buffer of a login connection: one enciphered block of 2048.
constexpr long HPD_MINRECL = 2736;

// The greeting a data server sends after a login, plain and as it stands.
struct PROXY_ACK {
    char prot[4];
    char proxy[4];
    char osname[8];
    char flag[4];
    char comp[8];
    char gcbid[4];
    unsigned char filler[7][4];  // big-endian: [0] maintenance, [1] hot-fix number
};
static_assert(sizeof(PROXY_ACK) == 60);

// Opens a data-server connection and logs in: the new HPDSERV comes back in
// *s with its socket, level, tag and version filled; the caller links it.
rctype hpdcsrv(hpdptr hpd, hpdopt opt, HPDSERV** s);
// Asks the name server about the domain ninfo->libname (group ninfo->group).
rctype hpdnsrv(hpdptr hpd, hpdopt opt, hpdnptr ninfo);

// The sockets derived from a connection: same host, port s.
rctype hporsrv(YXSOCK_OPEN** sopena, int s, const void* data, int datal);
// Opens a socket to port (or UNIX path) on the host of from, with lrecl;
// greet: read the one-byte greeting first. The engine's break word follows.
rctype hpdport(YXSOCK_OPEN* from, int port, const char* path, int pathl, long lrecl, int greet, int failmsg,
               YXSOCK_OPEN** out);

// The sockets of an operator session, a proxy-to-proxy read and a list
// read: port s on the host of the session's connection, stored in oopen.
// An operator session logs in (2/135 when the port cannot be reached, the
// text of 2/136 when the login fails); a proxy read is greeted with one byte
// and answers with one; a list read has no greeting.
rctype hpdosrv(hpdodcb odcb, int s);
rctype hpbosrv(hpdbdcb bdcb, int s);
rctype hpblsrv(hpdldcb ldcb, int s);
// Record length of the sockets whose opener names none.
constexpr long HPD_DEFRECL = HPD_MINRECL;

// The logins, on an open socket.
rctype init_conn(YXSOCK_OPEN** sopena, hpdopt opt);
rctype init_conn_oper(YXSOCK_OPEN* sopen, hpdopt opt, int* magic, int* lport);
rctype init_conn_name(YXSOCK_OPEN* sopen, hpdopt opt, hpdnptr ninfo);

// Reads PROXY_ACK and sets the level and the server's tag and version.
rctype hpdack(YXSOCK_OPEN* sopen, hpdopt opt, HPDSERV* serv);

// Closes and frees a connection's socket and the HPDSERV itself.
void hpdsfree(HPDSERV* s);
// Steps 9 to 11 of an assign: purge the dead, share a connection or open
// and log in a new one; count is not raised here.
rctype hpdgetserv(hpdptr hpd, hpdopt opt, HPDSERV** s);
// Step of every assign: closes, unlinks and frees each dead connection.
void hpdpurge(hpdptr hpd);
// The first connection an assign with opt may share, or null.
HPDSERV* hpdfind(hpdptr hpd, hpdopt opt);
// Unlinks a connection from its engine's list.
void hpdunlink(hpdptr hpd, HPDSERV* s);

// Frees a socket record made by an opener (after yxsclos).
void hpdsofree(YXSOCK_OPEN* so);

}  // namespace vrta
