// A schedule as members of a management request and answer:
//   days, from, to         one period; each may be missing (daily, 00:00, 24:00)
//   periods                several: a list of objects with days, from, to; not beside the three above
//   start, end             the absolute window; each may be missing
#ifndef HOST_TIMERANGE_SCHEDULE_JSON_H
#define HOST_TIMERANGE_SCHEDULE_JSON_H

#include <nlohmann/json.hpp>

#include "host/timerange/schedule.h"

namespace host {

// Reads a schedule from an object with the members above; the caller has refused others. Refuses a wrong one
// with std::runtime_error. Lock: none
Schedule scheduleRead(const nlohmann::json &members);

// Refuses members that are none of a schedule's. Lock: none
void scheduleMembersOnly(const nlohmann::json &members);

// The members that give this schedule again. Lock: none
nlohmann::json scheduleMembers(const Schedule &schedule);

} // namespace host

#endif
