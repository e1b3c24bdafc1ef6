// Calling library functions by name from a test, the way the WHERE
// evaluator does: a block of arguments, a code from find_fnc, xfxfn.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "sfnc/xf.h"
#include "ssubs/vz.h"

namespace fnctest {

using namespace vrta;

// Arguments in order; the block is made on first use and kept, so that
// functions with state see one call site.
class Args {
public:
    Args() = default;
    Args(const Args&) = delete;
    Args& operator=(const Args&) = delete;
    ~Args() { if (par_) xfpfree(par_); }

    Args& n(double v) {
        nums_.push_back(v);
        kinds_.push_back({XF_NUM, nums_.size() - 1});
        return *this;
    }
    Args& s(const std::string& v) {
        strs_.push_back(v);
        X_STRING x{};
        x.maxlen = static_cast<short>(v.size());
        x.curlen = static_cast<short>(v.size());
        x.data = strs_.back().data();
        xs_.push_back(x);
        kinds_.push_back({XF_STR, xs_.size() - 1});
        return *this;
    }
    // Changes argument i (from 1) between calls.
    void setn(int i, double v) { nums_[kinds_[static_cast<size_t>(i - 1)].second] = v; }
    void sets(int i, const std::string& v) {
        size_t k = kinds_[static_cast<size_t>(i - 1)].second;
        strs_[k] = v;
        xs_[k].data = strs_[k].data();
        xs_[k].maxlen = xs_[k].curlen = static_cast<short>(v.size());
    }
    FNCPAR* block() {
        if (!par_) {
            mem_.assign(static_cast<size_t>(xfparsize(static_cast<long>(kinds_.size()))), 0);
            par_ = reinterpret_cast<FNCPAR*>(mem_.data());
            par_->access = 1;
            par_->par[0].type = XF_NUM;
            par_->par[0].loc.n = static_cast<long>(kinds_.size());
            for (size_t i = 0; i < kinds_.size(); i++) {
                FNCARG& a = par_->par[i + 1];
                a.type = kinds_[i].first;
                if (a.type == XF_NUM) a.loc.dp = &nums_[kinds_[i].second];
                else a.loc.xs = &xs_[kinds_[i].second];
            }
        }
        return par_;
    }

private:
    std::deque<double> nums_;
    std::deque<std::string> strs_;
    std::deque<X_STRING> xs_;
    std::vector<std::pair<char, size_t>> kinds_;
    std::vector<char> mem_;
    FNCPAR* par_ = nullptr;
};

inline long code(const char* name) {
    long c = 0;
    FNCSTR attr{};
    EXPECT_EQ(find_fnc(name, static_cast<int>(strlen(name)), 'U', &attr, &c), 0) << name;
    return c;
}

// A numeric result; the return code must be 0.
inline double num(const char* name, Args& a) {
    double r = 0;
    int rc = xfxfn(code(name), a.block(), &r);
    EXPECT_EQ(rc, 0) << name;
    return r;
}

// A string result with room for `room` bytes.
inline std::string str(const char* name, Args& a, int room = 200) {
    std::vector<char> buf(static_cast<size_t>(room) + 1, '#');
    X_STRING r{static_cast<short>(room), 0, buf.data()};
    int rc = xfxfn(code(name), a.block(), &r);
    EXPECT_EQ(rc, 0) << name;
    EXPECT_GE(r.curlen, 0);
    EXPECT_LE(r.curlen, room) << name;
    EXPECT_EQ(buf[static_cast<size_t>(room)], '#') << name << " wrote past its room";
    return std::string(buf.data(), static_cast<size_t>(std::max<short>(r.curlen, 0)));
}

}  // namespace fnctest
