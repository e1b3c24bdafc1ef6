// A domain reached over the wire, as a host reaches it: the module's engine
// vector, the domain options parsed by the module, the name server's
// answer, and a login to the data server.
#pragma once
#include <string>
#include <vector>

#include "vrta/vrtaeng.h"

namespace vrtacli {

struct RemoteArgs {
    std::string nameserver;  // HOST:PORT, empty when not given
    std::string user;
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
    const HPD_ENGTBL* tbl_ = nullptr;
    void* engid_ = nullptr;
    void* opts_ = nullptr;
    struct {
        char libref[8];
        void* englib;
    } ref_{};
    bool assigned_ = false;
};

}  // namespace vrtacli
