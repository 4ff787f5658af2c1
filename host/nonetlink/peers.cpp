// The peers of a host without netlink: registered and shown, never asked. Their state is what other processes say
// on the route bus, which goes to the daemon directly; here it stays Unknown, and nobody waits for it. See
// host/hrd/hrd_service.h.
#include <map>
#include <mutex>

#include "host/hrd/hrd_peers.h"
#include "host/hrd/hrd_service.h"

namespace host {

namespace {

struct State {
    std::mutex lock;
    std::map<HrdPeerKey, HrdPeer> peers; // under lock
};

State &state() {
    static State *pState = new State; // lives as long as the event thread, that is to the end
    return *pState;
}

} // namespace

bool hrdRunning() {
    return true;
}

void hrdPeerAdd(const HrdPeerKey &key) {
    HrdPeer peer;
    peer.vrfid = key.vrfid;
    peer.version = key.version;
    peer.address = key.address;
    peer.reason = "not watched";
    const std::lock_guard guard(state().lock);
    state().peers.emplace(key, peer);
}

void hrdPeerDel(const HrdPeerKey &key) {
    const std::lock_guard guard(state().lock);
    state().peers.erase(key);
}

std::vector<HrdPeer> hrdPeers() {
    const std::lock_guard guard(state().lock);
    std::vector<HrdPeer> rows;
    for (const auto &[key, peer] : state().peers) {
        rows.push_back(peer);
    }
    return rows;
}

bool hrdUndetermined() {
    return false;
}

HrdCounters hrdCounters() {
    return {};
}

std::string hrdStart() {
    return "";
}

} // namespace host
