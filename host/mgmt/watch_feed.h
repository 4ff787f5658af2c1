// Events for those who watch: what services tell, and who listens. A service says what happened in words
// and members; nobody has to watch for it.
#ifndef HOST_MGMT_WATCH_FEED_H
#define HOST_MGMT_WATCH_FEED_H

#include <chrono>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace host {

// Tells an event: {"time", "event": kind, "text", ...members}. Returns at once whatever locks are held: the
// listener is called later, on the event thread. Any thread. Lock: none
void watchTell(const char *kind, const std::string &text, nlohmann::json members = nlohmann::json::object());

// Whether somebody listens: for events that cost something to make. Any thread. Lock: none
bool watchIsOn();

// Who gets the events from now on, instead of who did; an empty function: nobody. Event thread.
using WatchListener = std::function<void(const nlohmann::json &event)>;
void watchListen(WatchListener listener);

// "2026-03-01T12:00:00.250Z". Lock: none
std::string watchTimeText(std::chrono::system_clock::time_point time);

} // namespace host

#endif
