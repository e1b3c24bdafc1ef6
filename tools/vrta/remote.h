// A domain reached over the wire, as a host reaches it: the module's engine
// vector, the domain options parsed by the module, the name server's
// answer, and a login to the data server.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "apiload.h"
#include "vrta/vrtaeng.h"
#include "vrta/vrtahost.h"

namespace vrta {
struct HPOOPT;
}

namespace vrtacli {

struct RemoteArgs {
    std::string nameserver;  // HOST:PORT, empty when not given
    std::string user;
    std::string road;        // "wire", "direct" or empty: the engine's choice
};

// Takes "--name-server HOST:PORT" and "--user USER" out of args. 0, or the
// exit status after saying what is wrong.
int takeRemote(std::vector<std::string>& args, RemoteArgs* r);

// An assigned remote domain; deassigned when it goes.
class RemoteDomain {
public:
    RemoteDomain() = default;
    ~RemoteDomain();
    RemoteDomain(const RemoteDomain&) = delete;
    RemoteDomain& operator=(const RemoteDomain&) = delete;
    // Assigns DOMAIN (a name of the name server's map). The password comes
    // from VRTA_PASSWORD, or is asked for on a terminal. 0 or an exit status.
    int assign(const std::string& cmd, const RemoteArgs& r, const std::string& domain);
    // The domain's table names, upper case as the server gives them. 0 or an exit status.
    int tables(const std::string& cmd, std::vector<std::string>* names);

private:
    friend class RemoteTable;
    const HPD_ENGTBL* tbl_ = nullptr;
    void* engid_ = nullptr;
    void* opts_ = nullptr;
    struct {
        char libref[8];
        void* englib;
    } ref_{};
    bool assigned_ = false;
};

// A table of a remote domain open for input through the engine; closed
// when it goes.
class RemoteTable {
public:
    RemoteTable() = default;
    ~RemoteTable();
    RemoteTable(const RemoteTable&) = delete;
    RemoteTable& operator=(const RemoteTable&) = delete;
    // Opens TABLE with the table options opts (or none). With road "direct"
    // a table the engine reads over the wire is refused. 0 or an exit status.
    int open(const std::string& cmd, RemoteDomain& d, const std::string& table, vrta::HPOOPT* opts,
             const std::string& road);
    const INFOSTR& info() const { return info_; }
    const std::vector<ColInfo>& columns() const { return cols_; }
    bool direct() const { return direct_; }
    int blockfactor() const;
    // The table's sort order: column numbers from 1, negative descending.
    std::vector<int> sortOrder() const;
    // One pass over the rows asked for, from the first: each(row) until it
    // returns false. A second pass starts again from the first row.
    int rows(const std::string& cmd, const std::function<bool(const unsigned char*)>& each);

private:
    const HPD_ENGTBL* tbl_ = nullptr;
    void* fid_ = nullptr;
    XOFPENT fast_{};
    INFOSTR info_{};
    std::vector<ColInfo> cols_;
    bool direct_ = false;
    int passes_ = 0;
};

}  // namespace vrtacli
