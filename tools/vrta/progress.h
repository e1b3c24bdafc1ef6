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

// A bar for a job in two phases (sorting, then writing what was sorted):
// the engine calls phaseProgress with the phase, what is done and the total.
struct PhaseBar {
    Progress bar;
    std::string first, second;  // what each phase shows
    int phase = 0;
};

inline void phaseProgress(void* arg, int phase, int64_t done, int64_t total) {
    auto* b = static_cast<PhaseBar*>(arg);
    if (phase != b->phase) {
        b->bar.done();
        b->phase = phase;
        b->bar.total = static_cast<uint64_t>(total);
        b->bar.what = phase == 1 ? b->first : b->second;
    }
    b->bar.show(static_cast<uint64_t>(done), static_cast<long>(done));
}

}  // namespace vrtacli
