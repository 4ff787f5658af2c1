// See mgmt_client.h.
#include "host/mgmt/mgmt_client.h"

#include <utility>

#include <nlohmann/json.hpp>

namespace host {

void MgmtClient::onEnd(std::function<void()> ended) {
    if (hasEnded_) {
        ended();
        return;
    }
    onEnd_.push_back(std::move(ended));
}

bool MgmtClient::push(const nlohmann::json &line) { return !hasEnded_ && push_ && push_(line); }

void MgmtClient::roomMade() {
    if (onRoom_) {
        onRoom_();
    }
}

void MgmtClient::end() {
    hasEnded_ = true;
    for (const std::function<void()> &ended : std::exchange(onEnd_, {})) {
        ended();
    }
}

} // namespace host
