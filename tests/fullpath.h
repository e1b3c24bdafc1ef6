// A path that fills up, through the runtime's file-system vector (see
// fullbudget.h for the rule). The vector is put back when the object goes.
#pragma once
#include <gtest/gtest.h>
#include <string>

#include "fullbudget.h"
#include "hs/hs.h"
#include "hs/hsgcb.h"

namespace vrtatest {

class FullPath {
public:
    FullPath(const std::string& prefix, long budget) {
        if (!vrta::HSGCB) {
            EXPECT_EQ(0, vrta::hsgblinit());
        }
        prefix_() = prefix;
        budget_().store(budget);
        spent_().store(0);
        old_ = vrta::HSGCB->xxpwrite;
        vrta::HSGCB->xxpwrite = pwrite;
    }
    ~FullPath() { vrta::HSGCB->xxpwrite = old_; }
    FullPath(const FullPath&) = delete;
    FullPath& operator=(const FullPath&) = delete;
    // New bytes that went under the prefix so far.
    long spent() const { return spent_().load(); }

private:
    ssize_t (*old_)(int, const void*, size_t, off_t);
    static std::string& prefix_() {
        static std::string p;
        return p;
    }
    static std::atomic<long>& budget_() {
        static std::atomic<long> b;
        return b;
    }
    static std::atomic<long>& spent_() {
        static std::atomic<long> s;
        return s;
    }
    static ssize_t pwrite(int fd, const void* b, size_t n, off_t o) {
        return budgetWrite(::pwrite, prefix_().c_str(), budget_().load(), spent_(), fd, b, n, o);
    }
};

}  // namespace vrtatest
