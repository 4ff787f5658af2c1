// The words of a schedule, read strictly and written: days, times of day, dates. Texts that are wrong are
// refused with std::runtime_error, whose text names what was read and what is allowed.
#ifndef HOST_TIMERANGE_SCHEDULE_TEXT_H
#define HOST_TIMERANGE_SCHEDULE_TEXT_H

#include <cstdint>
#include <string>

#include "host/timerange/schedule.h"

namespace host {

// "mon-fri", "mon,wed,sat-sun", "fri-mon" (over the week's end), "weekend", "weekdays", "daily". Lock: none
uint8_t daysRead(const std::string &text);
std::string daysText(uint8_t days);

// "HH:MM" or "HH:MM:SS", 00:00 to 23:59:59; as an end also 24:00. Result: second of the day. Lock: none
uint32_t timeOfDayRead(const std::string &text, bool isEnd);
std::string timeOfDayText(uint32_t second);

// "YYYY-MM-DD HH:MM" or "YYYY-MM-DD HH:MM:SS", years 1970 to 9999. Result: local time. Lock: none
int64_t localTimeRead(const std::string &text);
std::string localTimeText(int64_t local);

// "mon-fri 08:00-18:00; sat 10:00-14:00; from 2026-12-24 00:00 until 2027-01-01 00:00". Lock: none
std::string scheduleText(const Schedule &schedule);

// An instant as the zone's wall clock shows it: "2026-11-21T18:00:00+01:00". Lock: none
std::string isoText(int64_t instant, const TimeZone &zone);

} // namespace host

#endif
