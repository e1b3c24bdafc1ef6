// The few calls of DuckDB's C library the comparison benchmarks need,
// declared here and looked up at run time in the file the scripts fetch
// (VRTA_DUCKDB_LIB), so that nothing of it is needed to build.
#pragma once
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

struct duckdb_result {
    uint64_t deprecated_column_count, deprecated_row_count, deprecated_rows_changed;
    void* deprecated_columns;
    char* deprecated_error_message;
    void* internal_data;
};

struct Duck {
    int (*open)(const char*, void**);
    int (*connect)(void*, void**);
    int (*query)(void*, const char*, duckdb_result*);
    uint64_t (*row_count)(duckdb_result*);
    int64_t (*value_int64)(duckdb_result*, uint64_t, uint64_t);
    double (*value_double)(duckdb_result*, uint64_t, uint64_t);
    const char* (*result_error)(duckdb_result*);
    void (*destroy_result)(duckdb_result*);
    void (*disconnect)(void**);
    void (*close)(void**);
};

inline bool loadduck(Duck* d, const char* who) {
    const char* path = std::getenv("VRTA_DUCKDB_LIB");
    void* h = dlopen(path && *path ? path : "libduckdb.so", RTLD_NOW);
    if (!h) {
        std::fprintf(stderr, "%s: %s\n", who, dlerror());
        return false;
    }
    bool ok = true;
    auto get = [&](auto& slot, const char* name) {
        slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(h, name));
        ok = ok && slot;
    };
    get(d->open, "duckdb_open");
    get(d->connect, "duckdb_connect");
    get(d->query, "duckdb_query");
    get(d->row_count, "duckdb_row_count");
    get(d->value_int64, "duckdb_value_int64");
    get(d->value_double, "duckdb_value_double");
    get(d->result_error, "duckdb_result_error");
    get(d->destroy_result, "duckdb_destroy_result");
    get(d->disconnect, "duckdb_disconnect");
    get(d->close, "duckdb_close");
    return ok;
}
