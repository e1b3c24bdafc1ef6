// The progress bar of the long-running commands.
#pragma once
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace vrtacli {

// A bar on standard error, only when it is a terminal.
struct Progress {
    bool on = isatty(2);
    uint64_t total = 0;
    int shown = -1;
    std::string what;
    void show(uint64_t done, long rows) {
        if (!on || total == 0) return;
        int pct = static_cast<int>(done * 100 / total);
        if (pct == shown) return;
        shown = pct;
        int w = pct / 4;
        std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%  %ld rows", what.c_str(), w, "#########################", 25 - w, "",
                     pct, rows);
        std::fflush(stderr);
    }
    void done() {
        if (on && shown >= 0) std::fprintf(stderr, "\r\033[K");
        shown = -1;
    }
};

}  // namespace vrtacli
