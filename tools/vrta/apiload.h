// The direct access API reached the way a host reaches it: libvrta.so loaded
// with dlopen and each entry found with dlsym. Shared by the table commands.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

#include "vrta/directapi.h"

namespace vrtacli {

struct DirectApi {
#define VRTA_API_FN(n) decltype(&::n) n = nullptr;
    VRTA_API_FN(splasgn)
    VRTA_API_FN(spldeasgn)
    VRTA_API_FN(vrtaopen)
    VRTA_API_FN(vrtaclose)
    VRTA_API_FN(vrtainfo)
    VRTA_API_FN(vrtagetnpp)
    VRTA_API_FN(vrtacreate)
    VRTA_API_FN(vrtapartinfo)
    VRTA_API_FN(spdelete)
    VRTA_API_FN(spopendir)
    VRTA_API_FN(spreaddir)
    VRTA_API_FN(spclosedir)
    VRTA_API_FN(spnewrd)
    VRTA_API_FN(spnewwr)
    VRTA_API_FN(spfreerd)
    VRTA_API_FN(spfreeio)
    VRTA_API_FN(spsetloc)
    VRTA_API_FN(spreadv)
    VRTA_API_FN(spwritev)
    VRTA_API_FN(vrtaerrtext)
    VRTA_API_FN(vrtasort)
    VRTA_API_FN(vrtaidxcreate)
    VRTA_API_FN(vrtaidxlist)
    VRTA_API_FN(vrtaidxdrop)
    VRTA_API_FN(vrtaidxrows)
    VRTA_API_FN(spgetr)
#undef VRTA_API_FN

    // "text (0x........)" for a code the API returned.
    std::string text(int rc) const;
};

// dlopens libvrta.so as a host does: the file VRTA_LIB names, else the one
// beside this program, else the one in the build directory. *path gets the
// file tried; null after printing why it could not be loaded.
void* loadModule(std::string* path);

// The module takes its message files from MSGPATH and its exit modules from
// VRTA_LIBRARY_PATH only; what the user has not set is pointed at what is
// installed with this program (or, run from a build, at the source tree's
// message files).
void setInstallPaths();

// Entries of the module found by name, as a host finds them: ok stays true
// while every lookup succeeds; a missing one is said on the way.
struct ModuleEntries {
    std::string path;
    void* handle = nullptr;
    bool ok = false;
    ModuleEntries();  // loads the module; ok false after saying why it could not
    void* lookup(const char* name);
    template <class F>
    void get(F& slot, const char* name) {
        slot = reinterpret_cast<F>(lookup(name));
    }
};

// Loads the module once; null after printing why it could not be loaded.
const DirectApi* directApi();

// The module prints its own diagnostics on standard output; the table
// commands send them to standard error, so that what a command prints (a CSV
// above all) is only its own. Returns the stream for the command's output.
FILE* commandOutput();

// A domain assigned for the life of a command: the directory must exist.
struct Domain {
    const DirectApi* api = nullptr;
    void* lib = nullptr;
    std::string dir;
    ~Domain();
    // 0, or the exit status after printing what went wrong.
    int assign(const std::string& dir);
};

// The domain's table names, as the directory lists them (upper case).
std::vector<std::string> tableNames(const Domain& d);
bool hasTable(const Domain& d, const std::string& name);

// A table open for input for the life of a command.
struct OpenTable {
    const DirectApi* api = nullptr;
    void* fid = nullptr;
    ~OpenTable();
    int open(const Domain& d, const std::string& name, const std::string& key);
};

// A table's columns and the text of a value in a row.
struct ColInfo {
    std::string name, label;
    int type = 0;  // 1 number, 2 character
    int pos = 0, len = 0;
};
std::vector<ColInfo> columns(const OpenTable& t);
// Characters without their trailing blanks; a number's shortest text, or
// nothing when missing.
std::string cellText(const ColInfo& c, const unsigned char* row);

// True when the table's creator never finished it (a load killed midway):
// the header flag that create sets and only a clean close clears.
bool unfinished(const std::string& dir, const std::string& name);
// True when the table's description says it is encrypted.
bool encrypted(const std::string& dir, const std::string& name);
// Warns on standard error when the table is unfinished; true when it is.
bool warnUnfinished(const std::string& dir, const std::string& name);

// Table names: 1 to 32 letters, digits and underscores, not starting with a digit.
bool validName(const std::string& name);

// A number in a row: an 8-byte double; a value whose top 16 bits are all
// ones is missing.
bool isMissing(const unsigned char* p);
void putMissing(unsigned char* p);
// Shortest text that reads back to the same double; integers without exponent.
std::string formatNumber(double v);

}  // namespace vrtacli
