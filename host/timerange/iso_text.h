// An instant in text, for reports.
#ifndef HOST_TIMERANGE_ISO_TEXT_H
#define HOST_TIMERANGE_ISO_TEXT_H

#include <cstdint>
#include <string>

#include "host/timerange/schedule.h"

namespace host {

// An instant as the zone's wall clock shows it: "2026-11-21T18:00:00+01:00". Lock: none
std::string isoText(int64_t instant, const TimeZone &zone);

} // namespace host

#endif
