// Bodies of the login exchanges and of the name server's question, packed
// and parsed by both ends. Text fields point into the caller's bytes: a
// parsed record lives no longer than the buffer it was read from.
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

// Method numbers of the exchanges made before a connection knows its server.
constexpr int DS_ID_SERVER_INIT = 24;
constexpr int DS_ID_SERVER_O_I = 45;
constexpr int DS_ID_PASSWORD = 49;
constexpr int DS_ID_LIBNAME_INFO8 = 91;

struct DS_SERVER_INIT {
    int32_t userl;
    const char* user;
    int32_t m;
    int32_t passl;
    const char* pass;
    int32_t magic;
    int32_t nodel;
    const char* node;
    int32_t m1;
    int32_t special;
    int32_t namemagic;
    int32_t npassl;
    const char* npass;
    int32_t aclgrpl;
    const char* aclgrp;
    int32_t recordlock;
    char osuser[8];
};

struct DS_SERVER_INIT_REPLY {
    int32_t msglen;
    const char* msg;
    int32_t code;
    int32_t reserved1, reserved2, reserved3;  // read and ignored
    int32_t expire;
    int32_t aclgrpl;
    const char* aclgrp;
    int32_t lockport;
    int32_t tokenl;
    const char* token;
};

struct DS_PASSWORD {
    int32_t magic;
    int32_t userl;
    const char* user;
    int32_t passl;
    const char* pass;
};

struct DS_SERVER_O_I {
    int32_t userl;
    const char* user;
    int32_t m;
    int32_t passl;
    const char* pass;
    int32_t magic;
    int32_t nodel;
    const char* node;
    int32_t m1;
    int32_t special;
    int32_t noauth;
    int32_t aclgrpl;
    const char* aclgrp;
};

struct DS_SERVER_O_I_REPLY {
    int32_t msglen;
    const char* msg;
    int32_t usertokl;
    const char* usertok;
    int32_t m;
    int32_t logno;
};

struct DS_LIBNAME_INFO8 {
    int32_t magic;
    int32_t liblen;
    const char* libname;
    int32_t grplen;
    const char* group;
    int32_t usrlen;
    const char* user;
    int32_t passlen;
    const char* pass;
    int32_t nodelen;
    const char* node;
};

// The name server's answer; flag only from level 7 on.
struct DS_LIB_INFO_REPLY {
    int32_t pnl;
    const char* pn;
    int32_t nodelen;
    const char* node;
    int32_t port;
    int32_t optl;
    const char* option;
    int32_t roptl;
    const char* roption;
    int32_t namemagic;
    char owner[8];
    int32_t odbc;
    int32_t oport;
    int32_t perf;
    int32_t backup;
    int32_t flag;
};

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

// Packers (hpdpackfn): with out null they count; the result is the length.
long dspack_server_init(const void* m, int level, unsigned char* out);
long dspack_server_init_reply(const void* m, int level, unsigned char* out);
long dspack_password(const void* m, int level, unsigned char* out);
long dspack_server_o_i(const void* m, int level, unsigned char* out);
long dspack_server_o_i_reply(const void* m, int level, unsigned char* out);
long dspack_libname_info8(const void* m, int level, unsigned char* out);
long dspack_lib_info_reply(const void* m, int level, unsigned char* out);

// Parsers: 0, or 0x80010005 when the body is short or a length does not fit
// it; nothing is read past len.
rctype dsparse(DS_SERVER_INIT* m, const void* body, long len);
rctype dsparse(DS_SERVER_INIT_REPLY* m, const void* body, long len);
rctype dsparse(DS_PASSWORD* m, const void* body, long len);
rctype dsparse(DS_SERVER_O_I* m, const void* body, long len);
rctype dsparse(DS_SERVER_O_I_REPLY* m, const void* body, long len);
rctype dsparse(DS_LIBNAME_INFO8* m, const void* body, long len);
rctype dsparse(DS_LIB_INFO_REPLY* m, const void* body, long len, int level);

}  // namespace vrta
