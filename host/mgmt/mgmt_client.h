// One connection of the management socket, as operations see it.
#ifndef HOST_MGMT_MGMT_CLIENT_H
#define HOST_MGMT_MGMT_CLIENT_H

#include <functional>
#include <memory>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace host {

// Answers a request, once, on the event thread. answer includes "ok".
using MgmtDone = std::function<void(nlohmann::json answer)>;

// One connection: whatever is begun in its name can be ended with it. Event thread only.
class MgmtClient {
public:
    // Calls `ended` once when the connection has ended; at once when it has ended already.
    void onEnd(std::function<void()> ended);

    // The server's: the connection has ended.
    void end();

private:
    bool hasEnded_ = false;
    std::vector<std::function<void()>> onEnd_;
};
using MgmtClientPtr = std::shared_ptr<MgmtClient>;

} // namespace host

#endif
