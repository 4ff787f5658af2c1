// What the tests of the host's services share: options of a run of their own, a client of the management
// socket, and the daemon's end of the route bus.
#ifndef TESTS_UNIT_HOST_ACL_HOST_ENVIRONMENT_H
#define TESTS_UNIT_HOST_ACL_HOST_ENVIRONMENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "aclrule/acl_rule.h"

namespace hosttest {

aclrule::AclRule rule(uint32_t aclNum, const std::string &text); // of a text that is right

// The folder of this test process; every socket of it is below. Options: host.root, host.device=memory.
const std::string &root();

// Opens the process's management socket, once. Result: empty, or why not.
std::string mgmtOpen();

// A connection to a management socket; reads wait at most 20 s.
class Client {
public:
    explicit Client(const std::string &path);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool isConnected() const { return fd >= 0; }
    void send(const std::string &bytes);     // all of it
    size_t sendSome(const std::string &bytes); // what fits without waiting
    void finish();                           // no more input
    std::optional<std::string> line();       // the next line without its end; none: closed
    std::optional<nlohmann::json> answer();  // the next line
    nlohmann::json call(const nlohmann::json &request); // send and answer; {} when closed
    bool isClosed();                         // waits for the end; false: more bytes came

private:
    int fd = -1;
    std::string buffer;
};

// The daemon's end of the bus, member of the ACL and NQA groups.
class RouteSocket {
public:
    RouteSocket();
    ~RouteSocket();
    RouteSocket(const RouteSocket &) = delete;
    RouteSocket &operator=(const RouteSocket &) = delete;

    // The next message; empty after `ms` without one.
    std::vector<uint8_t> read(uint32_t ms);
    void drain(); // takes what waits

private:
    int32_t fd = -1;
};

} // namespace hosttest

#endif
