// The numeric and date functions against values computed independently
// (tests/sfnc/data/genref.py, with libraries outside the project), each
// compared at the tolerance of its family.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fnccall.h"

using namespace vrta;
using namespace fnctest;

namespace {

std::string datafile(const char* name) { return std::string(VRTA_SRC_MSGDIR) + "/../tests/sfnc/data/" + name; }

// Relative tolerance by function; dates and counts are exact.
double tolerance(const std::string& f) {
    static const std::map<std::string, double> tol = {
        {"PROBCHI", 1e-9},  {"PROBF", 1e-9},   {"PROBT", 1e-9},   {"CINV", 1e-8},     {"FINV", 1e-8},
        {"TINV", 1e-8},     {"BETAINV", 1e-9}, {"GAMINV", 1e-9},  {"PROBBETA", 1e-10}, {"PROBGAM", 1e-10},
        {"PROBBNML", 1e-10}, {"PROBNEGB", 1e-10}, {"POISSON", 1e-10}, {"PROBHYPR", 1e-10}, {"PROBIT", 1e-12},
        {"PROBNORM", 1e-12}, {"GAMMA", 1e-12},  {"LGAMMA", 1e-12}, {"DIGAMMA", 1e-12}, {"TRIGAMMA", 1e-12},
        {"ERF", 1e-14},     {"ERFC", 1e-13},   {"VAR", 1e-10},    {"STD", 1e-10},     {"STDERR", 1e-10},
        {"CSS", 1e-10},     {"USS", 1e-12},    {"CV", 1e-10},     {"SKEWNESS", 1e-9}, {"KURTOSIS", 1e-9},
    };
    auto it = tol.find(f);
    return it == tol.end() ? 1e-13 : it->second;
}

struct Case {
    std::string line;
    std::string name;
    std::vector<std::string> args;
    std::string want;
};

std::vector<Case> load(const char* file) {
    std::vector<Case> cases;
    std::ifstream in(datafile(file));
    EXPECT_TRUE(in.good()) << datafile(file);
    for (std::string line; std::getline(in, line);) {
        Case c;
        c.line = line;
        std::istringstream fields(line);
        std::vector<std::string> f;
        for (std::string s; std::getline(fields, s, '\t');) f.push_back(s);
        if (f.size() < 2) continue;
        c.name = f.front();
        c.want = f.back();
        c.args.assign(f.begin() + 1, f.end() - 1);
        cases.push_back(c);
    }
    return cases;
}

// Runs every case of a file; returns how many ran.
int check(const char* file) {
    int ran = 0;
    for (const Case& c : load(file)) {
        Args a;
        for (const std::string& s : c.args) {
            if (s.size() >= 2 && s.front() == '\'') a.s(s.substr(1, s.size() - 2));
            else a.n(s == "." ? VZ_MISSING : strtod(s.c_str(), nullptr));
        }
        double got = num(c.name.c_str(), a);
        if (c.want == ".") {
            EXPECT_TRUE(vzismiss(got)) << c.line << " gave " << got;
        } else {
            double want = strtod(c.want.c_str(), nullptr);
            // Quantiles pass through 0, where only an absolute error means
            // anything.
            double floor = c.name == "PROBIT" || c.name == "TINV" ? 1 : 1e-290;
            double tol = tolerance(c.name) * std::max(std::fabs(want), floor);
            EXPECT_FALSE(vzismiss(got)) << c.line;
            EXPECT_NEAR(got, want, tol) << c.line;
        }
        ran++;
    }
    return ran;
}

}  // namespace

TEST(FncReference, SpecialFunctionsAndDistributions) { EXPECT_GT(check("numref.tsv"), 200); }

TEST(FncReference, DatesAndIntervalsAgreeWithACalendarLibrary) { EXPECT_GT(check("dateref.tsv"), 1000); }
