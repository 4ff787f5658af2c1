// One connection of the management socket, as operations see it.
#ifndef HOST_MGMT_MGMT_CLIENT_H
#define HOST_MGMT_MGMT_CLIENT_H

#include <functional>
#include <memory>
#include <utility>
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

    // Sends a line that answers nothing, behind what is still to be sent. From the first one on the client
    // may take its time: what waits for it is kept, and its connection is not closed for not reading or
    // for sending nothing more. Result: false, and nothing is sent, when too much waits, or the connection
    // has ended.
    bool push(const nlohmann::json &line);

    // Calls `room` whenever everything has been sent that waited. One function a connection.
    void onRoom(std::function<void()> room) { onRoom_ = std::move(room); }

    // The server's: how lines are pushed; everything that waited has been sent; the connection has ended.
    void pushBy(std::function<bool(const nlohmann::json &line)> push) { push_ = std::move(push); }
    void roomMade();
    void end();

private:
    bool hasEnded_ = false;
    std::vector<std::function<void()>> onEnd_;
    std::function<void()> onRoom_;
    std::function<bool(const nlohmann::json &line)> push_;
};
using MgmtClientPtr = std::shared_ptr<MgmtClient>;

} // namespace host

#endif
