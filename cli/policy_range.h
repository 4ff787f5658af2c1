// A time range of a policy file on the management socket. Its words are those of schedule/schedule_text.h.
#ifndef CLI_POLICY_RANGE_H
#define CLI_POLICY_RANGE_H

#include <nlohmann/json.hpp>

#include "schedule/schedule.h"

namespace cli {

using schedule::Schedule;
using schedule::TimePeriod;

// The form of the management socket, whole; and back: what is missing there has its default, and what is no
// such word is passed over, as a newer daemon may say more. Lock: none
nlohmann::json scheduleJson(const Schedule &schedule);
Schedule scheduleOfJson(const nlohmann::json &config);

} // namespace cli

#endif
