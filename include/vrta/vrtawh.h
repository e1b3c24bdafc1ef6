/* The WHERE language: a clause checked against a table's columns and turned
 * into the wire form of its tree, and a wire form shown again as a clause and
 * as a tree. Every call returns 0 or an error below zero.
 *
 * A clause: comparisons (= ^= <> < <= > >=, and =: <: ... on the leading
 * part of strings), + - * / ** and || on values, and, or, not, in (...),
 * between ... and ..., like, contains, =* (sounds like), is [not] null or
 * is [not] missing, missing(x); strings in single or double quotes, where a
 * doubled quote stands for itself; numbers; missing values . ._ .A to .Z;
 * column names; calls of the library's functions.
 *
 * Plain C: a host may include it from C. */
#ifndef VRTA_VRTAWH_H
#define VRTA_VRTAWH_H

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VRTA_API
#define VRTA_API __attribute__((visibility("default")))
#endif

/* A column the clause may name. cols[i] is the table's column i + 1. */
typedef struct VRTAWHCOL {
    const char* name;
    int name_l;  /* below 0: strlen */
    int type;    /* 1 numeric, 2 character */
    int length;  /* bytes in the row */
    int pos;     /* offset in the row */
} VRTAWHCOL;

/* Parses clause (clause_l below 0: strlen) against the columns. On success
 * *wire points at the wire form (free it with vrtawhfree) and *wire_l holds
 * its length. On failure msg (when not null) says where and why: "at column
 * N: ...", cut to msglen and always terminated. */
VRTA_API int vrtawhparse(const char* clause, int clause_l, const VRTAWHCOL* cols, int ncols, void** wire,
                         int* wire_l, char* msg, int msglen);

#define VRTAWH_TEXT 1 /* the clause rendered from the tree */
#define VRTAWH_TREE 2 /* the tree drawn sideways, one node a line */
/* Reads a wire form and shows it; *text is terminated, free it with vrtawhfree. */
VRTA_API int vrtawhshow(const void* wire, int wire_l, int what, char** text);

VRTA_API void vrtawhfree(void* p);

#ifdef __cplusplus
}
#endif

#endif
