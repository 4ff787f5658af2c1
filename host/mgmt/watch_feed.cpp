// See watch_feed.h. Events are posted, so that they are told in the order in which they happened.
#include "host/mgmt/watch_feed.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <utility>

#include "host/event/event_loop.h"

namespace host {

namespace {

struct Feed {
    std::atomic<bool> isOn = false;
    WatchListener listener; // event thread only
};

Feed &feed() {
    static Feed *pFeed = new Feed; // outlives all threads
    return *pFeed;
}

} // namespace

std::string watchTimeText(std::chrono::system_clock::time_point time) {
    const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const time_t seconds = static_cast<time_t>(since / 1000);
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[64];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(since % 1000));
    return text;
}

bool watchIsOn() { return feed().isOn; }

void watchTell(const char *kind, const std::string &text, nlohmann::json members) {
    if (!watchIsOn()) {
        return;
    }
    members["time"] = watchTimeText(std::chrono::system_clock::now());
    members["event"] = kind;
    members["text"] = text;
    hostEventLoop().post([event = std::move(members)] {
        if (feed().listener) {
            feed().listener(event);
        }
    });
}

void watchListen(WatchListener listener) {
    feed().listener = std::move(listener);
    feed().isOn = feed().listener != nullptr;
}

} // namespace host
