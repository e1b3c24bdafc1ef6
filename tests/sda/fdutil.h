// Helpers of the table-layer suites that make files directly through the
// file layer, beside what the table layer makes.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "sda/dafd.h"
#include "sda/darc.h"

namespace fdtest {

using namespace vrta;

inline bool there(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Opens (or with DA_FDCREATE makes) a logical file over paths; null after
// a failed expectation. *fiboff is where its FIB lies, in and out.
inline DA_FD* openfile(const char* name, std::vector<const char*> paths, int flags, DA_FD* mdfd = nullptr,
                       da_off_t* fiboff = nullptr) {
    DA_FDSTR fs{};
    fs.name = name;
    fs.namelen = static_cast<int>(strlen(name));
    fs.numpath = static_cast<int>(paths.size());
    fs.paths = paths.data();
    fs.flags = flags;
    fs.perms = 0644;
    fs.minfree = -1;
    fs.mdfd = mdfd;
    fs.fiboff = fiboff ? *fiboff : -1;
    DA_FD* fd = nullptr;
    rctype rc = dafdopn(&fs, &fd);
    EXPECT_GE(rc, 0) << name;
    if (fiboff && rc >= 0) *fiboff = fs.fiboff;
    return rc < 0 ? nullptr : fd;
}

// A real metadata file with its FIB, so that a member's component lock has
// bytes to lock; true when it was made.
inline bool makemdf(const char* dir, const char* name) {
    DA_FD* fd = openfile(name, {dir}, DA_FDCREATE | DA_FDWRITE | DA_FDDIRECT | DA_FDFORCE1ST);
    if (!fd) return false;
    EXPECT_GE(fd->fdclose(fd), 0);
    return true;
}

}  // namespace fdtest
