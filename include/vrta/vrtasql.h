/* Queries people type, run by the module on a domain's tables:
 *   SELECT items FROM table [WHERE clause] [GROUP BY refs] [HAVING clause]
 *          [ORDER BY items [ASC|DESC]] [LIMIT n]
 * An item is * or an expression of the WHERE language (vrtawh.h) with
 * aggregates COUNT(*), COUNT([DISTINCT] x), SUM, AVG, MEAN, MIN, MAX, STD,
 * VAR, CSS, USS, NMISS, RANGE, STDERR and N of an expression over the row,
 * and an optional [AS] alias. GROUP BY takes columns, select aliases or
 * positions and expressions; ORDER BY aliases, positions or expressions. The WHERE clause, the group-by
 * request and the sort are the engine's own.
 *
 * Plain C: a host may include it from C. */
#ifndef VRTA_VRTASQL_H
#define VRTA_VRTASQL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VRTA_API
#define VRTA_API __attribute__((visibility("default")))
#endif

typedef struct VRTASQLOPT {
    int threads;             /* scan threads; below 1: 2 */
    double memlimit;         /* bytes of group-by memory for all threads; 0: the GRPBYROWCACHE option */
    volatile int* interrupt; /* polled; non-zero stops the query */
    const char* ekey;        /* key of an encrypted table, or null */
} VRTASQLOPT;

typedef struct VRTASQLCOL {
    char name[65];  /* the alias, or the item as written (cut to 64 bytes) */
    int type;       /* 1 number (8-byte double, missing values as stored), 2 character */
    int length;
    int offset;     /* in a result row */
} VRTASQLCOL;

typedef struct VRTASQLRES {
    int ncols;
    VRTASQLCOL* cols;
    int rowlen;
    int64_t nrows;
    char* rows;   /* nrows rows of rowlen bytes */
    char* plan;   /* what was done: index use, threads, metascan, spill (terminated) */
    char* notes;  /* warnings of the run, such as values that could not be computed */
} VRTASQLRES;

/* Runs sql (sql_l below 0: strlen) on a domain assigned with splasgn. 0 and
 * *res, or an error with msg (when not null) saying where and why: "at
 * column N: ...". Nothing is returned of a query that failed or was stopped. */
VRTA_API int vrtasql(void* vlib, const char* sql, int sql_l, const VRTASQLOPT* opt, VRTASQLRES** res, char* msg,
                     int msglen);
VRTA_API void vrtasqlfree(VRTASQLRES* res);

#ifdef __cplusplus
}
#endif

#endif
