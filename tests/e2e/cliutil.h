// Running the vrta tool from the end-to-end suites.
#pragma once
#include <dirent.h>

#include <string>
#include <vector>

#include "testutil.h"

namespace vrtatest {

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs vrta with args; stdout and stderr kept apart.
inline Result vrta(const std::string& args) {
    Result r;
    TempDir tmp;
    std::string errf = tmp.file("err");
    CmdResult c = runCommand(VRTA_TOOLS_DIR "/vrta " + args + " 2>" + errf);
    r.status = c.status;
    r.out = std::move(c.out);
    r.err = readFile(errf);
    return r;
}

inline bool has(const std::string& s, const std::string& what) { return s.find(what) != std::string::npos; }

// Files of the domain directory whose names start with prefix.
inline std::vector<std::string> files(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> v;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0) v.push_back(e->d_name);
        closedir(d);
    }
    return v;
}

}  // namespace vrtatest
