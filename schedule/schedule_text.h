// The words of a schedule, read strictly and written: days, times of day, dates. Texts that are wrong are
// refused with std::runtime_error, whose text names what was read and what is allowed. Pure: the C++ library
// only, no clock and no zone.
#ifndef SCHEDULE_SCHEDULE_TEXT_H
#define SCHEDULE_SCHEDULE_TEXT_H

#include <cstdint>
#include <string>

#include "schedule/schedule.h"

namespace schedule {

// "mon-fri", "mon,wed,sat-sun", "fri-mon" (over the week's end), "weekend", "weekdays", "daily"; capitals
// and spaces do not matter. Result: never 0. Lock: none
uint8_t daysRead(const std::string &text);
std::string daysText(uint8_t days);

// "HH:MM" or "HH:MM:SS", 00:00 to 23:59:59; as an end also 24:00. Result: second of the day. Lock: none
uint32_t timeOfDayRead(const std::string &text, bool isEnd);
std::string timeOfDayText(uint32_t second);

// "YYYY-MM-DD HH:MM" or "YYYY-MM-DD HH:MM:SS", also with T between, or "YYYY-MM-DD" alone (its 00:00), years
// 1970 to 9999. `pName` says what it is where it is refused. Result: local time. Lock: none
int64_t localTimeRead(const std::string &text, const char *pName = "date and time");
std::string localTimeText(int64_t local);

// Refuses an end that is not after the start. Lock: none
void windowCheck(const Schedule &schedule);

// "mon-fri 08:00-18:00; sat 10:00-14:00; from 2026-12-24 00:00 until 2027-01-01 00:00". Lock: none
std::string scheduleText(const Schedule &schedule);

} // namespace schedule

#endif
