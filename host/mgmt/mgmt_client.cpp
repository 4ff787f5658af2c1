// See mgmt_client.h.
#include "host/mgmt/mgmt_client.h"

#include <utility>

namespace host {

void MgmtClient::onEnd(std::function<void()> ended) {
    if (hasEnded_) {
        ended();
        return;
    }
    onEnd_.push_back(std::move(ended));
}

void MgmtClient::end() {
    hasEnded_ = true;
    for (const std::function<void()> &ended : std::exchange(onEnd_, {})) {
        ended();
    }
}

} // namespace host
