// The message catalogue: every body the engine and a data server exchange,
// written down once. The record structs, the packers, the parsers and the
// listing in docs/wire.md all come from these lists, so the two ends of a
// conversation cannot drift apart.
//
// A list names its fields in wire order, each as X(kind, name, extra, level):
//   I2, I4, I8   big-endian integers of 2, 4 and 8 bytes
//   F8           an IEEE double, big-endian
//   B            one raw byte
//   C            extra raw bytes (blank-padded names, keys), no terminator
//   L            a 4-byte length named extra, then that many bytes
//   S            a record of type extra, its fields in line
// A field with a level is written and read only on a connection of that
// protocol level or above; 0 means always. Include only through hpdmsg.h.
#pragma once

// A column in its wire form. The in-memory record keeps the documented
// offsets (a pointer stands behind nlabell); on the wire it is packed like
// any other body. spare1 is the column's vrtaflag in the requests and
// replies that carry one.
#define DSF_DS_NAMESTR_V8(X)                                                                      \
    X(C, name, 4, 0) X(C, nname, 32, 0) X(B, ntype, _, 0) X(B, nsubtype, _, 0) X(B, nindex, _, 0) \
    X(B, npkey, _, 0) X(B, nfkey, _, 0) X(B, nsort, _, 0) X(B, nfj, _, 0) X(B, nlabsplt, _, 0)    \
    X(L, nlabel, nlabell, 0) X(I4, flags, _, 0) X(I4, npos, _, 0) X(I2, nlng, _, 0)               \
    X(I4, nvar0, _, 0) X(C, nform, 32, 0) X(I2, nfl, _, 0) X(I2, nfd, _, 0) X(C, niform, 32, 0)   \
    X(I2, nifl, _, 0) X(I2, nifd, _, 0) X(I4, spare1, _, 0) X(I4, spare2, _, 0)                   \
    X(I4, spare3, _, 0) X(I4, spare4, _, 0)

// The column fields that follow DS_NAMESTR_V8 in the column messages.
#define DSF_NAMESTR_TAIL(X)                                                                     \
    X(I4, npos2, _, 0) X(I4, nipos, _, 0) X(I4, nlng2, _, 0) X(I4, nprec, _, 0) X(I2, nscale, _, 0) \
    X(I2, ntattr, _, 0) X(B, ntype2, _, 0)

// ------------------------------------------------------------ domains
#define DSF_DS_YHELASG(X)                                                                         \
    X(C, libname, 8, 0) X(L, phys, physlen, 0) X(L, indxpath, indxlen, 0)                         \
    X(L, datapath, datalen, 0) X(L, metapath, metalen, 0) X(I4, bufsize, _, 0) X(I4, create, _, 0) \
    X(I4, acldef, _, 0) X(L, acllist, acllen, 0) X(L, aclres, aclresl, 0) X(C, owner, 8, 0)       \
    X(I4, async, _, 0) X(I4, backup, _, 0) X(C, user, 8, 0) X(I4, flag, _, 7)                     \
    X(C, domain, 32, 7) X(I4, fmtlib, _, 7) X(I4, encoding_cei, _, 9) X(C, locale, 32, 9)         \
    X(L, workpath, workpathl, 11)
#define DSF_DS_YHELASG_REPLY(X)                                                                 \
    X(L, msg, msglen, 0) X(I4, libid, _, 0) X(L, phys, physlen, 0) X(L, metapath, metalen, 0)   \
    X(L, indxpath, indxlen, 0) X(L, datapath, datalen, 0) X(F8, size, _, 0) X(I4, mode, _, 0)   \
    X(I4, aclretc, _, 0) X(I4, pid, _, 0) X(L, usertok, usertokl, 0) X(I4, portno, _, 0)        \
    X(I4, threadid, _, 0) X(I4, oport, _, 0)
#define DSF_DS_LIBID(X) X(I4, libid, _, 0)
// The many replies that carry nothing but the server's text.
#define DSF_DS_MSG_REPLY(X) X(L, msg, msglen, 0)

// ------------------------------------------------------------ members by name
#define DSF_DS_YDEXIST(X) X(I4, libid, _, 0) X(C, memname, 32, 0) X(C, memtype, 8, 0)
#define DSF_DS_YDEDOPN_REPLY(X) X(L, msg, msglen, 0) X(I4, id, _, 0)
#define DSF_DS_YDEDRD(X) X(I4, id, _, 0) X(I4, numpair, _, 0)
#define DSF_DS_YDEDRD_REPLY(X) X(L, msg, msglen, 0) X(L, info, pairinfo, 0)
#define DSF_DS_YDECLS(X) X(I4, id, _, 0)
#define DSF_DS_YDERNM(X) \
    X(I4, libid, _, 0) X(C, oname, 32, 0) X(C, omtype, 8, 0) X(C, nname, 32, 0) X(C, ntype, 8, 0)

// ------------------------------------------------------------ table open and close
#define DSF_DS_YOEOPEN(X)                                                                         \
    X(I4, libid, _, 0) X(C, memname, 32, 0) X(C, memtype, 8, 0) X(I4, opnmode, _, 0)              \
    X(I4, sysid, _, 0) X(I4, blocksize, _, 0) X(C, type, 8, 0) X(L, label, labell, 0)             \
    X(C, user, 8, 0) X(F8, cdate, _, 0) X(F8, mdate, _, 0) X(I4, bufno, _, 0) X(I4, segsize, _, 0) \
    X(I4, async, _, 0) X(I4, sorttype, _, 0) X(I4, ioblocksize, _, 0) X(I4, compress, _, 0)       \
    X(I4, memmap, _, 0) X(L, xlaten, xlatenl, 0) X(L, xlate1, xlate1l, 0) X(I4, afunix, _, 0)     \
    X(I4, acldef, _, 0) X(L, acllist, acllen, 0) X(I4, verbose, _, 0) X(I4, noindex, _, 0)        \
    X(I4, noequals, _, 0) X(I8, firstobs, _, 0) X(I8, lastobs, _, 0) X(I4, ranktype, _, 0)        \
    X(C, lang, 4, 0) X(I4, ltype, _, 0) X(I4, taskid, _, 0) X(I4, uniqsave, _, 0)                 \
    X(I4, nobyindex, _, 0) X(I4, spare3, _, 0) X(C, diskcomp, 8, 0) X(I4, ekeylen, _, 0)          \
    X(C, ekey, 40, 0) X(I4, whflag, _, 0) X(I4, compfree, _, 0) X(C, sysname, 8, 0)               \
    X(I8, datasize, _, 0) X(I4, whthreads, _, 0) X(I4, wheval2, _, 0) X(I4, wheval1, _, 0)        \
    X(C, effuser, 8, 0) X(C, effgrp, 8, 0) X(I4, maxsegratio, _, 0) X(I4, gennum, _, 0)           \
    X(I4, genmax, _, 0) X(F8, gentime, _, 0) X(C, dsreqv, 40, 0) X(I4, rangecnt, _, 0)            \
    X(I4, encoding_cei, _, 11) X(I8, sortsize, _, 11)
#define DSF_DS_YOEOPEN_REPLY(X)                                                                   \
    X(L, msg, msglen, 0) X(I4, openid, _, 0) X(I8, numobs, _, 0) X(I4, obslen, _, 0)              \
    X(I4, blocksize, _, 0) X(I4, blockfactor, _, 0) X(I4, portno, _, 0) X(I4, nvar, _, 0)         \
    X(I4, nindexes, _, 0) X(I4, ridsize, _, 0) X(I4, idxsegsize, _, 0) X(I4, dsorg, _, 0)         \
    X(I4, comp_level, _, 0) X(I4, comp_alg, _, 0) X(C, dstype, 8, 0) X(C, who_created, 8, 0)      \
    X(C, who_modified, 8, 0) X(L, label, labell, 0) X(F8, cdate, _, 0) X(F8, mdate, _, 0)         \
    X(L, spare1, spare1l, 0) X(L, unixpath, unixpathl, 0) X(I8, ndel, _, 0) X(C, collate, 8, 0)   \
    X(I2, flags, _, 0) X(I4, nvars, _, 0) X(L, vars, varslen, 0) X(I4, acldef, _, 0)              \
    X(I4, acluser, _, 0) X(I4, aclretc, _, 0) X(C, aclowner, 8, 0) X(C, aclusern, 8, 0)           \
    X(I4, acllistl, _, 0) X(C, lang, 4, 0) X(I4, ltype, _, 0) X(I4, spare3, _, 0)                 \
    X(I4, spare4, _, 0) X(C, diskcomp, 8, 0) X(I4, encrypt, _, 0) X(I4, numoverflow, _, 0)        \
    X(I4, maxchain, _, 0) X(I4, maxchainvbn, _, 0) X(I4, minovflsize, _, 0)                       \
    X(I4, maxovflsize, _, 0) X(I4, compblocksize, _, 0) X(I8, numblocks, _, 0)                    \
    X(C, sysname, 8, 0) X(C, grpname, 8, 0) X(I4, grpdef, _, 0) X(I8, datasize, _, 0)             \
    X(I4, segcnt, _, 0) X(I4, daver1, _, 0) X(I4, daver2, _, 0) X(I4, ekeylen, _, 0)              \
    X(C, ekey, 40, 0) X(I4, backup, _, 0) X(I4, restrct, _, 0) X(I4, genmax, _, 0)                \
    X(I4, genhigh, _, 0) X(I4, xoeflags, _, 0) X(C, dsreqv, 40, 0) X(L, rangeinfo, rangeinfol, 0) \
    X(I4, encoding_cei, _, 9) X(L, dsn_clust, dsnlist_clust, 11) X(I4, minmaxcount, _, 11)        \
    X(I4, data_en_cei, _, 11)
// The records that follow an open reply, one framed message each.
#define DSF_DS_YOEOPEN_NAMESTR_REPLY(X)                                              \
    X(I4, varnum, _, 0) X(S, ns, DS_NAMESTR_V8, 0) DSF_NAMESTR_TAIL(X) X(L, min, minlen, 0) \
    X(L, max, maxlen, 0)
#define DSF_DS_YOEOPEN_INDEX_REPLY(X)                                                             \
    X(C, name, 32, 0) X(I8, values, _, 0) X(I4, flag, _, 0) X(I4, parts, _, 0) X(L, min, minlen, 0) \
    X(L, max, maxlen, 0) X(L, var0, var0len, 0)
#define DSF_DS_YOEOPEN_GEN_INFO_REPLY(X) \
    X(F8, mdate, _, 0) X(I4, gennum, _, 0) X(F8, gendate, _, 0) X(I8, obs, _, 0)
#define DSF_DS_YOEOPEN_ACLLIST_REPLY(X) X(C, name, 8, 0) X(I4, acluser, _, 0)

// Column definition and rename: a column in its wire form between the table's
// numbers and the long-form tail.
#define DSF_DS_YVEDEFV(X)                                                                     \
    X(I4, openid, _, 0) X(I4, obslen, _, 0) X(I4, nvar, _, 0) X(I4, varnum, _, 0)              \
    X(S, ns, DS_NAMESTR_V8, 0) DSF_NAMESTR_TAIL(X)

#define DSF_DS_OPENID(X) X(I4, openid, _, 0)
#define DSF_DS_YOELOAD_REPLY(X) X(I4, blockingfactor, _, 0) X(I4, reclen, _, 0)
#define DSF_DS_YOECLOS(X)                                                                        \
    X(I4, openid, _, 0) X(I4, disp, _, 0) X(C, collate, 8, 0) X(I2, flags, _, 0) X(I4, nvars, _, 0) \
    X(L, vars, varslen, 0) X(C, type, 8, 0) X(L, label, labell, 0)
#define DSF_DS_YOECLOS_REPLY(X)                                                                  \
    X(L, msg, msglen, 0) X(I8, lastobs, _, 0) X(I8, numdups, _, 0) X(C, uniqds, 32, 0)            \
    X(C, uniqvar, 8, 0) X(C, uniqind, 32, 0) X(F8, pct, _, 0)
#define DSF_DS_YOEFORC(X) X(I4, openid, _, 0) X(I8, obscount, _, 0) X(I4, mode, _, 0)
#define DSF_DS_LASTOBS_REPLY(X) X(L, msg, msglen, 0) X(I8, lastobs, _, 0)
#define DSF_DS_YOEROPN(X) X(I4, openid, _, 0) X(I4, opnmode, _, 0) X(I4, blocksize, _, 0)
#define DSF_DS_YOEROPN_REPLY(X) X(L, msg, msglen, 0) X(I4, blockfactor, _, 0)
#define DSF_DS_YOEFIX(X) X(I4, libid, _, 0) X(C, memname, 32, 0) X(C, memtype, 8, 0) X(F8, mdate, _, 0)
#define DSF_DS_YOEFIX_REPLY(X) X(I4, nindexes, _, 0)
#define DSF_DS_YOEFIX_INDEX_REPLY(X) X(L, msg, msglen, 0) X(C, name, 32, 0)
#define DSF_DS_KEEPVAR_LIST(X) X(I4, openid, _, 0) X(I4, nvar, _, 0) X(L, vars, varlist, 0)
#define DSF_DS_KEEPVAR_LIST_REPLY(X) X(I4, reclen, _, 0) X(I4, blockfactor, _, 0)

// ------------------------------------------------------------ rows
#define DSF_DS_YOEGET_START(X)                                                                \
    X(I4, openid, _, 0) X(L, nvar0, nvarlen, 0) X(I8, firstobs, _, 0) X(I4, flags, _, 0)       \
    X(I8, epos, _, 0)
#define DSF_DS_YOEGET_START_REPLY_452(X) X(L, msg, msglen, 0) X(I4, check, _, 0) X(L, tree, treel, 0)
#define DSF_DS_YOEUPD(X) X(I4, openid, _, 0) X(I8, obsnum, _, 0) X(L, record, reclen, 0) X(I4, split, _, 0)
#define DSF_DS_YOEUPD_REPLY(X) X(L, splits, splitsl, 0)
#define DSF_DS_OBSNUM(X) X(I4, openid, _, 0) X(I8, obsnum, _, 0)
#define DSF_DS_YOEPNT(X) X(I4, openid, _, 0) X(I8, obsnum, _, 0) X(I4, ridtype, _, 0)
#define DSF_DS_YOEPNT_REPLY(X) X(C, vrtauser, 8, 0) X(C, user, 8, 0) X(I4, threadid, _, 0)
#define DSF_DS_YOEGETR(X) X(I4, openid, _, 0) X(I8, obsnum, _, 0) X(I4, flag, _, 0)
#define DSF_DS_YOEGETR_REPLY(X)                                                               \
    X(L, reca, reclen, 0) X(C, user, 8, 0) X(C, vrtauser, 8, 0) X(I4, threadid, _, 0)          \
    X(I8, obsno, _, 0)

// ------------------------------------------------------------ indexes and WHERE
#define DSF_DS_YIEDEF(X)                                                                      \
    X(I4, openid, _, 0) X(C, keyname, 32, 0) X(I4, flags, _, 0) X(I4, varnum, _, 0)            \
    X(L, nvar0, nvarlen, 0)
#define DSF_DS_YIEDEF_STATUS_REPLY(X) X(C, keyname, 32, 0) X(I4, eof, _, 0) X(L, msg, msglen, 0)
#define DSF_DS_YIEOBTN_REPLY(X) X(L, msg, msglen, 0) X(I4, numindx, _, 0)
#define DSF_DS_YIEOBTN_INDEX_REPLY(X) \
    X(C, keyname, 32, 0) X(I4, flags, _, 0) X(I4, varnum, _, 0) X(L, nvar0, nvarlen, 0)
#define DSF_DS_YIEDROP(X) X(I4, openid, _, 0) X(C, keyname, 32, 0)
#define DSF_DS_YOEORDR(X) X(I4, openid, _, 0) X(I4, varnum, _, 0) X(L, nvar0, nvarlen, 0)
#define DSF_DS_YOEWSET(X) X(I4, openid, _, 0) X(L, where, len, 0) X(L, indx, indxlen, 0)
#define DSF_DS_YOEWSET_REPLY(X) X(L, msg, msglen, 0) X(I4, all, _, 0) X(L, tree, treel, 0)
#define DSF_DS_YIEPNT(X)                                                                       \
    X(I4, openid, _, 0) X(C, keyname, 32, 0) X(L, lovalp, lovalpl, 0) X(I4, lovalc, _, 0)       \
    X(L, hivalp, hivalpl, 0) X(I4, hivalc, _, 0) X(I4, type, _, 0)
#define DSF_DS_YIEPNT_REPLY(X) X(I4, mode, _, 0) X(I4, norec, _, 0)
#define DSF_DS_EMPTY(X)

// ------------------------------------------------------------ logins
#define DSF_DS_SERVER_INIT(X)                                                                  \
    X(L, user, userl, 0) X(I4, m, _, 0) X(L, pass, passl, 0) X(I4, magic, _, 0)                 \
    X(L, node, nodel, 0) X(I4, m1, _, 0) X(I4, special, _, 0) X(I4, namemagic, _, 0)            \
    X(L, npass, npassl, 0) X(L, aclgrp, aclgrpl, 0) X(I4, recordlock, _, 0) X(C, osuser, 8, 0)
// The three reserved words are read and ignored.
#define DSF_DS_SERVER_INIT_REPLY(X)                                                            \
    X(L, msg, msglen, 0) X(I4, code, _, 0) X(I4, reserved1, _, 0) X(I4, reserved2, _, 0)        \
    X(I4, reserved3, _, 0) X(I4, expire, _, 0) X(L, aclgrp, aclgrpl, 0) X(I4, lockport, _, 0)   \
    X(L, token, tokenl, 0)
#define DSF_DS_SERVER_O_U(X) X(I4, m, _, 0)
#define DSF_DS_SERVER_O_U_REPLY(X) X(L, userinfo, userinfl, 0)
#define DSF_DS_SERVER_O_I(X)                                                                   \
    X(L, user, userl, 0) X(I4, m, _, 0) X(L, pass, passl, 0) X(I4, magic, _, 0)                 \
    X(L, node, nodel, 0) X(I4, m1, _, 0) X(I4, special, _, 0) X(I4, noauth, _, 0)               \
    X(L, aclgrp, aclgrpl, 0)
#define DSF_DS_SERVER_O_I_REPLY(X) \
    X(L, msg, msglen, 0) X(L, usertok, usertokl, 0) X(I4, m, _, 0) X(I4, logno, _, 0)
#define DSF_DS_PASSWORD(X) X(I4, magic, _, 0) X(L, user, userl, 0) X(L, pass, passl, 0)
#define DSF_DS_LIBNAME_INFO8(X)                                                                \
    X(I4, magic, _, 0) X(L, libname, liblen, 0) X(L, group, grplen, 0) X(L, user, usrlen, 0)    \
    X(L, pass, passlen, 0) X(L, node, nodelen, 0)
#define DSF_DS_LIB_INFO_REPLY(X)                                                                \
    X(L, pn, pnl, 0) X(L, node, nodelen, 0) X(I4, port, _, 0) X(L, option, optl, 0)               \
    X(L, roption, roptl, 0) X(I4, namemagic, _, 0) X(C, owner, 8, 0) X(I4, odbc, _, 0)            \
    X(I4, oport, _, 0) X(I4, perf, _, 0) X(I4, backup, _, 0) X(I4, flag, _, 7)

// ------------------------------------------------------------ server's domains and tables
#define DSF_DS_SHLIBALL_REPLY(X)                                                               \
    X(I4, numlibs, _, 0) X(I4, libno, _, 0) X(L, libpath, libpathl, 0) X(C, owner, 8, 0)        \
    X(I4, acldef, _, 0) X(C, libref, 8, 0)
#define DSF_DS_LIBREF(X) X(C, libref, 8, 0)
#define DSF_DS_SHLIBNAM_REPLY(X)                                                               \
    X(I4, freespace, _, 0) X(L, libpath, libpathl, 0) X(L, metapath, metapathl, 0)              \
    X(I4, metaspace, _, 0) X(L, datapath, datapathl, 0) X(I4, dataspace, _, 0)                  \
    X(L, idxpath, idxpathl, 0) X(I4, idxspace, _, 0) X(L, workpath, workpathl, 0)               \
    X(I4, workspace, _, 0) X(C, owner, 8, 0) X(I4, acldef, _, 0)
#define DSF_DS_SHLIBDSALL_REPLY(X)                                                             \
    X(I4, numds, _, 0) X(I4, dsno, _, 0) X(C, dsname, 32, 0) X(C, dsowner, 8, 0)                \
    X(I4, acldef, _, 0) X(I4, iostate, _, 0)
#define DSF_DS_SHLIBDSNAM(X) X(C, libref, 8, 0) X(C, dsname, 32, 0)
#define DSF_DS_SHLIBDSNAM_REPLY(X)                                                             \
    X(C, dsname, 32, 0) X(I8, numobs, _, 0) X(I4, obslen, _, 0) X(I4, blocksize, _, 0)          \
    X(I4, blockfactor, _, 0) X(I4, portno, _, 0) X(I4, dpsock, _, 0) X(C, dstype, 8, 0)         \
    X(C, label, 40, 0) X(C, dsowner, 8, 0) X(I4, acldef, _, 0) X(L, metapart, metapartl, 0)     \
    X(I4, metasize, _, 0) X(L, datapart, datapartl, 0) X(I4, datasize, _, 0)                    \
    X(I4, nindexes, _, 0) X(I4, iostate, _, 0)
#define DSF_DS_SHLIBDSNAM_INDEX_REPLY(X)                                                       \
    X(C, indexname, 32, 0) X(L, indexpart, indexpartl, 0) X(I4, indexsize, _, 0)                \
    X(L, rankpart, rankpartl, 0) X(I4, ranksize, _, 0) X(L, minval, minvall, 0)                 \
    X(L, maxval, maxvall, 0) X(I8, values, _, 0) X(I4, nparts, _, 0) X(I4, flags, _, 0)         \
    X(L, parts, partsl, 0)
#define DSF_DS_DMPLIBDSALL_REPLY(X)                                                            \
    X(I4, numds, _, 0) X(I4, dsno, _, 0) X(C, dsname, 32, 0) X(C, dsowner, 8, 0)                \
    X(I4, acldef, _, 0)
#define DSF_DS_DMPLIBDSNAM(X) X(C, libref, 8, 0) X(C, dsname, 32, 0) X(I4, nolock, _, 0)
#define DSF_DS_DMPLIBDSNAM_REPLY(X)                                                            \
    X(C, dsname, 32, 0) X(I8, numobs, _, 0) X(I4, obslen, _, 0) X(C, dstype, 8, 0)              \
    X(C, label, 40, 0) X(C, dsowner, 8, 0) X(I4, acldef, _, 0) X(L, metapart, metapartl, 0)     \
    X(I4, metasize, _, 0) X(L, datapart, datapartl, 0) X(I4, datasize, _, 0)                    \
    X(I4, nindexes, _, 0)

// ------------------------------------------------------------ byte streams
#define DSF_DS_YCEOPEN(X)                                                                      \
    X(I4, libid, _, 0) X(C, memname, 32, 0) X(C, memtype, 8, 0) X(I4, opnmode, _, 0)            \
    X(I4, blocksize, _, 0) X(I4, taskid, _, 0)
#define DSF_DS_YCEOPEN_REPLY(X)                                                                \
    X(L, msg, msglen, 0) X(I4, blocksize, _, 0) X(I4, openid, _, 0) X(I8, size, _, 0)           \
    X(C, user, 8, 0) X(C, grp, 8, 0)
#define DSF_DS_YCEROPN(X) X(I4, openid, _, 0) X(I4, opnmode, _, 0)
#define DSF_DS_YCECLOS(X) X(I4, openid, _, 0) X(I4, disp, _, 0)
#define DSF_DS_YCECLOS_REPLY(X) X(L, msg, msglen, 0) X(F8, pct, _, 0)
#define DSF_DS_YCEREAD(X) X(I4, openid, _, 0) X(I4, bytes, _, 0) X(I8, off, _, 0)
#define DSF_DS_YCEREAD_REPLY(X) X(L, msg, msglen, 0) X(L, buf, len, 0)
#define DSF_DS_YCEWRIT(X) X(I4, openid, _, 0) X(I8, off, _, 0) X(L, buf, len, 0)
#define DSF_DS_YCEWRIT_REPLY(X) X(L, msg, msglen, 0) X(I4, left, _, 0)
#define DSF_DS_YCETRNC(X) X(I4, openid, _, 0) X(I8, off, _, 0)

// ------------------------------------------------------------ access control
#define DSF_DS_ACLSETUSER(X) X(C, effuser, 8, 0) X(L, libpath, libpathl, 0)
#define DSF_DS_ACLSETUSER_REPLY(X) X(L, reslist, reslen, 0)
#define DSF_DS_ACLADD(X)                                                                       \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, model, 8, 0) X(I4, acldef, _, 0)             \
    X(I4, grpdef, _, 0) X(C, columnname, 32, 0)
#define DSF_DS_ACLMODDEF(X)                                                                    \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(I4, acldef, _, 0) X(I4, grpdef, _, 0)           \
    X(C, columnname, 32, 0)
#define DSF_DS_ACLMODDEF_REPLY(X)                                                              \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, owner, 8, 0) X(I4, acldef, _, 0)             \
    X(I4, grpdef, _, 0) X(C, columnname, 32, 0)
#define DSF_DS_ACLMODUSER(X)                                                                   \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, acluser, 8, 0) X(I4, userperm, _, 0)         \
    X(C, columnname, 32, 0)
#define DSF_DS_ACLMODUSER_REPLY(X)                                                             \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, owner, 8, 0) X(I4, userperm, _, 0)           \
    X(C, columnname, 32, 0)
#define DSF_DS_ACLLIST(X) X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, columnname, 32, 0)
#define DSF_DS_ACLLIST_REPLY(X)                                                                \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, owner, 8, 0) X(I4, acldef, _, 0)             \
    X(L, user, userlen, 0) X(I4, grpdef, _, 0) X(C, grpname, 8, 0) X(C, columnname, 32, 0)
#define DSF_DS_ACLDEL_REPLY(X) \
    X(C, resource, 32, 0) X(C, restype, 8, 0) X(C, owner, 8, 0) X(C, columnname, 32, 0)

// ------------------------------------------------------------ operator and sessions
#define DSF_DS_SETMODE(X) X(I4, mode, _, 0)
#define DSF_DS_PROXY_CMD(X) \
    X(I4, cmd, _, 0) X(I4, step, _, 0) X(I4, id, _, 0) X(I4, dump, _, 0) X(L, debug, debugl, 0)
#define DSF_DS_LOCK(X) X(I4, dsid, _, 0) X(I4, lock, _, 0)
#define DSF_DS_DIR(X) X(L, dir, dirl, 0)
#define DSF_DS_RENAME_DIR(X) X(L, odir, odirl, 0) X(L, ndir, ndirl, 0)
#define DSF_DS_USER_LIST_REPLY(X) X(I4, threadid, _, 0) X(C, vrtauser, 8, 0) X(C, user, 8, 0)
#define DSF_DS_RECORD(X) X(I4, libid, _, 0) X(C, memname, 32, 0) X(I4, flag, _, 0) X(I8, obsno, _, 0)
#define DSF_DS_USER_CMD(X) X(I4, threadid, _, 0) X(I4, flag, _, 0)
#define DSF_DS_OPER_SYSTEM(X) X(L, text, len, 0)
#define DSF_DS_OPER_SYSTEM_REPLY(X) X(L, msg, len, 0)

// ------------------------------------------------------------ SQL pass-through
#define DSF_DS_SQL_CONNECT(X)                                                                  \
    X(L, text, len, 0) X(L, user, userl, 0) X(L, pass, passl, 0) X(L, dom, doml, 0)             \
    X(L, serv, servl, 0) X(L, port, portl, 0) X(C, defeng, 8, 0) X(L, defopt, defoptl, 0)
#define DSF_DS_SQL_CONNECT_REPLY(X) X(I4, sqlid, _, 0) X(L, log, len, 0)
#define DSF_DS_SQLID(X) X(I4, sqlid, _, 0)
#define DSF_DS_SQL_PREPARE(X) \
    X(I4, sqlid, _, 0) X(L, text, len, 0) X(I4, grammer, _, 0) X(L, mactbl, maclen, 0)
#define DSF_DS_SQL_PREPARE_REPLY(X) X(I4, stmtid, _, 0) X(I4, nvar, _, 0) X(L, log, len, 0)
#define DSF_DS_STMTID(X) X(I4, stmtid, _, 0)
#define DSF_DS_LOG_REPLY(X) X(L, log, len, 0)
#define DSF_DS_SQL_FETCH_REPLY(X) \
    X(I4, portno, _, 0) X(I4, lrecl, _, 0) X(I4, numobs, _, 0) X(L, log, len, 0)
#define DSF_DS_SQL_EXECUTE(X) \
    X(I4, sqlid, _, 0) X(L, text, len, 0) X(L, mactbl, maclen, 0) X(I4, interp, _, 0)
#define DSF_DS_SQL_EXECUTE_REPLY(X) X(L, log, len, 0) X(I4, freespace1, _, 0) X(I4, freespace2, _, 0)
#define DSF_DS_SQL_NAMESTR_REPLY(X)                                                            \
    X(I4, type, _, 0) X(I4, len, _, 0) X(C, name, 32, 0) X(L, dbname, dbnamel, 0)               \
    X(L, label, labell, 0) X(C, fmt, 32, 0) X(I2, fmtlen, _, 0) X(I2, fmtdec, _, 0)             \
    X(C, ifmt, 32, 0) X(I2, ifmtlen, _, 0) X(I2, ifmtdec, _, 0)
#define DSF_DS_SEL_GRP(X)                                                                      \
    X(I4, openid, _, 0) X(I4, ncols, _, 0) X(I4, reclen, _, 0) X(I4, nproj, _, 0)               \
    X(I4, projlen, _, 0) X(I4, ngroupby, _, 0) X(I4, norderby, _, 0) X(I4, flags, _, 0)         \
    X(L, grpvar0, grpvar0l, 0) X(L, ordvar0, ordvar0l, 0) X(L, hav_tree, havlen, 0)
#define DSF_DS_SEL_GRP_REPLY(X) X(I4, block, _, 0)
#define DSF_DS_SEL_GRP_COL(X)                                                                  \
    X(C, func, 8, 0) X(I4, nvar0, _, 0) X(I4, wghtnvar0, _, 0) X(I4, off, _, 0) X(I4, len, _, 0) \
    X(I4, ntype, _, 0) X(C, fmtname, 32, 0) X(I4, fmtlen, _, 0) X(I4, wid, _, 0)                \
    X(I4, ndec, _, 0)

// Every record with its own struct, DS_NAMESTR_V8 first because others hold it.
#define DS_RECORDS(R)                                                                              \
    R(DS_NAMESTR_V8) R(DS_EMPTY) R(DS_MSG_REPLY) R(DS_LOG_REPLY) R(DS_LIBID) R(DS_OPENID)         \
    R(DS_OBSNUM) R(DS_LIBREF) R(DS_SQLID) R(DS_STMTID) R(DS_DIR) R(DS_LASTOBS_REPLY)               \
    R(DS_YHELASG) R(DS_YHELASG_REPLY) R(DS_YDEXIST) R(DS_YDEDOPN_REPLY) R(DS_YDEDRD)              \
    R(DS_YDEDRD_REPLY) R(DS_YDECLS) R(DS_YDERNM) R(DS_YOEOPEN) R(DS_YOEOPEN_REPLY)                \
    R(DS_YOEOPEN_NAMESTR_REPLY) R(DS_YOEOPEN_INDEX_REPLY) R(DS_YOEOPEN_GEN_INFO_REPLY)            \
    R(DS_YOEOPEN_ACLLIST_REPLY) R(DS_YVEDEFV) R(DS_YOELOAD_REPLY) R(DS_YOECLOS)                   \
    R(DS_YOECLOS_REPLY) R(DS_YOEFORC) R(DS_YOEROPN) R(DS_YOEROPN_REPLY) R(DS_YOEFIX)              \
    R(DS_YOEFIX_REPLY) R(DS_YOEFIX_INDEX_REPLY) R(DS_KEEPVAR_LIST) R(DS_KEEPVAR_LIST_REPLY)       \
    R(DS_YOEGET_START) R(DS_YOEGET_START_REPLY_452) R(DS_YOEUPD) R(DS_YOEUPD_REPLY)               \
    R(DS_YOEPNT) R(DS_YOEPNT_REPLY) R(DS_YOEGETR) R(DS_YOEGETR_REPLY) R(DS_YIEDEF)                \
    R(DS_YIEDEF_STATUS_REPLY) R(DS_YIEOBTN_REPLY) R(DS_YIEOBTN_INDEX_REPLY) R(DS_YIEDROP)         \
    R(DS_YOEORDR) R(DS_YOEWSET) R(DS_YOEWSET_REPLY) R(DS_YIEPNT) R(DS_YIEPNT_REPLY)               \
    R(DS_SERVER_INIT) R(DS_SERVER_INIT_REPLY) R(DS_SERVER_O_U) R(DS_SERVER_O_U_REPLY)             \
    R(DS_SERVER_O_I) R(DS_SERVER_O_I_REPLY) R(DS_PASSWORD) R(DS_LIBNAME_INFO8)                    \
    R(DS_LIB_INFO_REPLY) R(DS_SHLIBALL_REPLY) R(DS_SHLIBNAM_REPLY) R(DS_SHLIBDSALL_REPLY)         \
    R(DS_SHLIBDSNAM) R(DS_SHLIBDSNAM_REPLY) R(DS_SHLIBDSNAM_INDEX_REPLY) R(DS_DMPLIBDSALL_REPLY)  \
    R(DS_DMPLIBDSNAM) R(DS_DMPLIBDSNAM_REPLY) R(DS_YCEOPEN) R(DS_YCEOPEN_REPLY) R(DS_YCEROPN)     \
    R(DS_YCECLOS) R(DS_YCECLOS_REPLY) R(DS_YCEREAD) R(DS_YCEREAD_REPLY) R(DS_YCEWRIT)             \
    R(DS_YCEWRIT_REPLY) R(DS_YCETRNC) R(DS_ACLSETUSER) R(DS_ACLSETUSER_REPLY) R(DS_ACLADD)        \
    R(DS_ACLMODDEF) R(DS_ACLMODDEF_REPLY) R(DS_ACLMODUSER) R(DS_ACLMODUSER_REPLY) R(DS_ACLLIST)   \
    R(DS_ACLLIST_REPLY) R(DS_ACLDEL_REPLY) R(DS_SETMODE) R(DS_PROXY_CMD) R(DS_LOCK)               \
    R(DS_RENAME_DIR) R(DS_USER_LIST_REPLY) R(DS_RECORD) R(DS_USER_CMD) R(DS_OPER_SYSTEM)          \
    R(DS_OPER_SYSTEM_REPLY) R(DS_SQL_CONNECT) R(DS_SQL_CONNECT_REPLY) R(DS_SQL_PREPARE)           \
    R(DS_SQL_PREPARE_REPLY) R(DS_SQL_FETCH_REPLY) R(DS_SQL_EXECUTE) R(DS_SQL_EXECUTE_REPLY)       \
    R(DS_SQL_NAMESTR_REPLY) R(DS_SEL_GRP) R(DS_SEL_GRP_REPLY) R(DS_SEL_GRP_COL)

// Messages whose body is that of another record: the message's own name for it.
#define DS_ALIASES(A)                                                                              \
    A(DS_YHELDAS, DS_LIBID) A(DS_YDEDOPN, DS_LIBID) A(DS_YDEDEL, DS_YDEXIST)                       \
    A(DS_YVENAMU, DS_YVEDEFV) A(DS_YOELOAD, DS_OPENID) A(DS_YOEADD_STATUS, DS_OPENID)              \
    A(DS_YOEGET_TERM, DS_OPENID) A(DS_YIEDEF_STATUS, DS_OPENID) A(DS_YIEOBTN, DS_OPENID)           \
    A(DS_YOEADD_START, DS_OPENID) A(DS_SEL_GRP_MSG, DS_OPENID) A(DS_YOEDEL, DS_OBSNUM)             \
    A(DS_YOEUNLK, DS_OBSNUM) A(DS_YIEPNT_GET, DS_EMPTY) A(DS_SHLIBALL, DS_EMPTY)                   \
    A(DS_USER_LIST, DS_EMPTY) A(DS_SHLIBNAM, DS_LIBREF) A(DS_SHLIBDSALL, DS_LIBREF)                \
    A(DS_DMPLIBDSALL, DS_LIBREF) A(DS_DELETE_DIR, DS_DIR) A(DS_EXIST_DIR, DS_DIR)                  \
    A(DS_ACLDEL, DS_ACLLIST) A(DS_SQL_DISCONN, DS_SQLID) A(DS_SQL_DESCRIBE, DS_STMTID)             \
    A(DS_SQL_FETCH, DS_STMTID) A(DS_SQL_DESTROY, DS_STMTID) A(DS_SQL_EXECUTE_INTER_REPLY, DS_LOG_REPLY) \
    A(DS_SEL_GRP_MSG_REPLY, DS_LOG_REPLY) A(DS_YOEFORC_REPLY, DS_LASTOBS_REPLY)                    \
    A(DS_YOEADD_STATUS_REPLY, DS_LASTOBS_REPLY) A(DS_RECORD_REPLY, DS_USER_LIST_REPLY)            \
    A(DS_YHELDAS_REPLY, DS_MSG_REPLY) A(DS_YDEXIST_REPLY, DS_MSG_REPLY) A(DS_YDECLS_REPLY, DS_MSG_REPLY) \
    A(DS_YIEDEF_REPLY, DS_MSG_REPLY) A(DS_YIEDROP_REPLY, DS_MSG_REPLY) A(DS_YOEORDR_REPLY, DS_MSG_REPLY) \
    A(DS_YCEROPN_REPLY, DS_MSG_REPLY) A(DS_SQL_DESCRIBE_REPLY, DS_LOG_REPLY)                      \
    A(DS_SQL_DESTROY_REPLY, DS_LOG_REPLY)

// The methods: M(id, constant, name, request record, reply record). A reply
// of DS_EMPTY has no body (the table of methods shows none). Numbers not
// listed are not used.
#define DS_METHODS(M)                                                                              \
    M(0, DSM_YHELASG, "DS_YHELASG", DS_YHELASG, DS_YHELASG_REPLY)                                  \
    M(1, DSM_YHELDAS, "DS_YHELDAS", DS_LIBID, DS_MSG_REPLY)                                        \
    M(2, DSM_YDEXIST, "DS_YDEXIST", DS_YDEXIST, DS_MSG_REPLY)                                      \
    M(3, DSM_YDEDOPN, "DS_YDEDOPN", DS_LIBID, DS_YDEDOPN_REPLY)                                    \
    M(4, DSM_YDEDRD, "DS_YDEDRD", DS_YDEDRD, DS_YDEDRD_REPLY)                                      \
    M(5, DSM_YDECLS, "DS_YDECLS", DS_YDECLS, DS_MSG_REPLY)                                         \
    M(6, DSM_YDEDEL, "DS_YDEDEL", DS_YDEXIST, DS_EMPTY)                                            \
    M(7, DSM_YDERNM, "DS_YDERNM", DS_YDERNM, DS_EMPTY)                                             \
    M(8, DSM_YOEOPEN, "DS_YOEOPEN", DS_YOEOPEN, DS_YOEOPEN_REPLY)                                  \
    M(9, DSM_YVEDEFV, "DS_YVEDEFV", DS_YVEDEFV, DS_EMPTY)                                          \
    M(10, DSM_YOELOAD, "DS_YOELOAD", DS_OPENID, DS_YOELOAD_REPLY)                                  \
    M(12, DSM_YOECLOS, "DS_YOECLOS", DS_YOECLOS, DS_YOECLOS_REPLY)                                 \
    M(13, DSM_YOEFORC, "DS_YOEFORC", DS_YOEFORC, DS_LASTOBS_REPLY)                                 \
    M(14, DSM_YOEADD_STATUS, "DS_YOEADD_STATUS", DS_OPENID, DS_LASTOBS_REPLY)                      \
    M(16, DSM_YOEGET_TERM, "DS_YOEGET_TERM", DS_OPENID, DS_EMPTY)                                  \
    M(17, DSM_YOEGET_START, "DS_YOEGET_START", DS_YOEGET_START, DS_EMPTY)                          \
    M(18, DSM_YIEDEF, "DS_YIEDEF", DS_YIEDEF, DS_MSG_REPLY)                                        \
    M(19, DSM_YIEDEF_STATUS, "DS_YIEDEF_STATUS", DS_OPENID, DS_YIEDEF_STATUS_REPLY)                \
    M(20, DSM_YIEOBTN, "DS_YIEOBTN", DS_OPENID, DS_YIEOBTN_REPLY)                                  \
    M(21, DSM_YIEDROP, "DS_YIEDROP", DS_YIEDROP, DS_MSG_REPLY)                                     \
    M(22, DSM_YOEORDR, "DS_YOEORDR", DS_YOEORDR, DS_MSG_REPLY)                                     \
    M(23, DSM_YOEWSET, "DS_YOEWSET", DS_YOEWSET, DS_YOEWSET_REPLY)                                 \
    M(24, DSM_SERVER_INIT, "DS_SERVER_INIT", DS_SERVER_INIT, DS_SERVER_INIT_REPLY)                 \
    M(25, DSM_YOEROPN, "DS_YOEROPN", DS_YOEROPN, DS_YOEROPN_REPLY)                                 \
    M(29, DSM_YIEPNT, "DS_YIEPNT", DS_YIEPNT, DS_YIEPNT_REPLY)                                     \
    M(30, DSM_YIEPNT_GET, "DS_YIEPNT_GET", DS_EMPTY, DS_EMPTY)                                     \
    M(32, DSM_YVENAMU, "DS_YVENAMU", DS_YVEDEFV, DS_EMPTY)                                         \
    M(33, DSM_YOEUPD, "DS_YOEUPD", DS_YOEUPD, DS_YOEUPD_REPLY)                                     \
    M(34, DSM_YOEDEL, "DS_YOEDEL", DS_OBSNUM, DS_EMPTY)                                            \
    M(35, DSM_YOEADD_START, "DS_YOEADD_START", DS_OPENID, DS_EMPTY)                                \
    M(36, DSM_YOEPNT, "DS_YOEPNT", DS_YOEPNT, DS_YOEPNT_REPLY)                                     \
    M(37, DSM_YOEGETR, "DS_YOEGETR", DS_YOEGETR, DS_YOEGETR_REPLY)                                 \
    M(38, DSM_SERVER_O_U, "DS_SERVER_O_U", DS_SERVER_O_U, DS_SERVER_O_U_REPLY)                     \
    M(40, DSM_SHLIBALL, "DS_SHLIBALL", DS_EMPTY, DS_SHLIBALL_REPLY)                                \
    M(41, DSM_SHLIBNAM, "DS_SHLIBNAM", DS_LIBREF, DS_SHLIBNAM_REPLY)                               \
    M(43, DSM_SHLIBDSALL, "DS_SHLIBDSALL", DS_LIBREF, DS_SHLIBDSALL_REPLY)                         \
    M(44, DSM_SHLIBDSNAM, "DS_SHLIBDSNAM", DS_SHLIBDSNAM, DS_SHLIBDSNAM_REPLY)                     \
    M(45, DSM_SERVER_O_I, "DS_SERVER_O_I", DS_SERVER_O_I, DS_SERVER_O_I_REPLY)                     \
    M(46, DSM_DMPLIBDSALL, "DS_DMPLIBDSALL", DS_LIBREF, DS_DMPLIBDSALL_REPLY)                      \
    M(47, DSM_DMPLIBDSNAM, "DS_DMPLIBDSNAM", DS_DMPLIBDSNAM, DS_DMPLIBDSNAM_REPLY)                 \
    M(49, DSM_PASSWORD, "DS_PASSWORD", DS_PASSWORD, DS_EMPTY)                                      \
    M(50, DSM_YOEFIX, "DS_YOEFIX", DS_YOEFIX, DS_YOEFIX_REPLY)                                     \
    M(51, DSM_YCEOPEN, "DS_YCEOPEN", DS_YCEOPEN, DS_YCEOPEN_REPLY)                                 \
    M(52, DSM_YCEROPN, "DS_YCEROPN", DS_YCEROPN, DS_MSG_REPLY)                                     \
    M(53, DSM_YCECLOS, "DS_YCECLOS", DS_YCECLOS, DS_YCECLOS_REPLY)                                 \
    M(54, DSM_YCEREAD, "DS_YCEREAD", DS_YCEREAD, DS_YCEREAD_REPLY)                                 \
    M(55, DSM_YCEWRIT, "DS_YCEWRIT", DS_YCEWRIT, DS_YCEWRIT_REPLY)                                 \
    M(57, DSM_YCETRNC, "DS_YCETRNC", DS_YCETRNC, DS_EMPTY)                                         \
    M(58, DSM_ACLSETUSER, "DS_ACLSETUSER", DS_ACLSETUSER, DS_ACLSETUSER_REPLY)                     \
    M(59, DSM_ACLADD, "DS_ACLADD", DS_ACLADD, DS_EMPTY)                                            \
    M(60, DSM_ACLMODDEF, "DS_ACLMODDEF", DS_ACLMODDEF, DS_ACLMODDEF_REPLY)                         \
    M(61, DSM_ACLMODUSER, "DS_ACLMODUSER", DS_ACLMODUSER, DS_ACLMODUSER_REPLY)                     \
    M(62, DSM_ACLLIST, "DS_ACLLIST", DS_ACLLIST, DS_ACLLIST_REPLY)                                 \
    M(63, DSM_ACLDEL, "DS_ACLDEL", DS_ACLLIST, DS_ACLDEL_REPLY)                                    \
    M(64, DSM_SETMODE, "DS_SETMODE", DS_SETMODE, DS_EMPTY)                                         \
    M(65, DSM_PROXY_CMD, "DS_PROXY_CMD", DS_PROXY_CMD, DS_EMPTY)                                   \
    M(66, DSM_LOCK, "DS_LOCK", DS_LOCK, DS_EMPTY)                                                  \
    M(67, DSM_DELETE_DIR, "DS_DELETE_DIR", DS_DIR, DS_EMPTY)                                       \
    M(68, DSM_RENAME_DIR, "DS_RENAME_DIR", DS_RENAME_DIR, DS_EMPTY)                                \
    M(69, DSM_EXIST_DIR, "DS_EXIST_DIR", DS_DIR, DS_EMPTY)                                         \
    M(70, DSM_SQL_CONNECT, "DS_SQL_CONNECT", DS_SQL_CONNECT, DS_SQL_CONNECT_REPLY)                 \
    M(71, DSM_SQL_DISCONN, "DS_SQL_DISCONN", DS_SQLID, DS_EMPTY)                                   \
    M(72, DSM_SQL_PREPARE, "DS_SQL_PREPARE", DS_SQL_PREPARE, DS_SQL_PREPARE_REPLY)                 \
    M(73, DSM_SQL_DESCRIBE, "DS_SQL_DESCRIBE", DS_STMTID, DS_LOG_REPLY)                            \
    M(74, DSM_SQL_FETCH, "DS_SQL_FETCH", DS_STMTID, DS_SQL_FETCH_REPLY)                            \
    M(75, DSM_SQL_DESTROY, "DS_SQL_DESTROY", DS_STMTID, DS_LOG_REPLY)                              \
    M(76, DSM_SQL_EXECUTE, "DS_SQL_EXECUTE", DS_SQL_EXECUTE, DS_SQL_EXECUTE_REPLY)                 \
    M(77, DSM_OPER_SYSTEM, "DS_OPER_SYSTEM", DS_OPER_SYSTEM, DS_OPER_SYSTEM_REPLY)                 \
    M(79, DSM_SEL_GRP, "DS_SEL_GRP", DS_SEL_GRP, DS_SEL_GRP_REPLY)                                 \
    M(80, DSM_SEL_GRP_MSG, "DS_SEL_GRP_MSG", DS_OPENID, DS_LOG_REPLY)                              \
    M(81, DSM_SEL_GRP_GET, "DS_SEL_GRP_MSG", DS_OPENID, DS_LOG_REPLY)                              \
    M(82, DSM_YOEUNLK, "DS_YOEUNLK", DS_OBSNUM, DS_EMPTY)                                          \
    M(84, DSM_USER_LIST, "DS_USER_LIST", DS_EMPTY, DS_USER_LIST_REPLY)                             \
    M(85, DSM_RECORD, "DS_RECORD", DS_RECORD, DS_USER_LIST_REPLY)                                  \
    M(86, DSM_USER_CMD, "DS_USER_CMD", DS_USER_CMD, DS_EMPTY)                                      \
    M(87, DSM_KEEPVAR_LIST, "DS_KEEPVAR_LIST", DS_KEEPVAR_LIST, DS_KEEPVAR_LIST_REPLY)             \
    M(91, DSM_LIBNAME_INFO8, "DS_LIBNAME_INFO8", DS_LIBNAME_INFO8, DS_LIB_INFO_REPLY)

// Records that follow another message without a method number of their own:
// F(record, what it follows).
#define DS_FOLLOWONS(F)                                                                            \
    F(DS_SEL_GRP_COL, "DS_SEL_GRP, one for each result column")                                    \
    F(DS_SHLIBDSNAM_INDEX_REPLY, "DS_SHLIBDSNAM_REPLY, one for each index")                        \
    F(DS_LOG_REPLY, "DS_SQL_EXECUTE while it runs (DS_SQL_EXECUTE_INTER_REPLY)")                   \
    F(DS_SQL_NAMESTR_REPLY, "DS_SQL_DESCRIBE, one for each column")                                \
    F(DS_YIEOBTN_INDEX_REPLY, "DS_YIEOBTN_REPLY, one for each index")                              \
    F(DS_YOEFIX_INDEX_REPLY, "DS_YOEFIX_REPLY, one for each index")                                \
    F(DS_YOEGET_START_REPLY_452, "DS_YOEGET_START, read before the first block")                          \
    F(DS_YOEOPEN_ACLLIST_REPLY, "DS_YOEOPEN_REPLY, acllistl of them")                              \
    F(DS_YOEOPEN_GEN_INFO_REPLY, "DS_YOEOPEN_REPLY, genhigh of them")                              \
    F(DS_YOEOPEN_INDEX_REPLY, "DS_YOEOPEN_REPLY, one for each index")                              \
    F(DS_YOEOPEN_NAMESTR_REPLY, "DS_YOEOPEN_REPLY, one for each column")
