// Zones of the tests, by POSIX rules: no zone files are needed.
#ifndef TESTS_UNIT_HOST_TIMERANGE_POSIX_ZONE_H
#define TESTS_UNIT_HOST_TIMERANGE_POSIX_ZONE_H

#include <cstdlib>
#include <ctime>
#include <map>
#include <string>

#include "host/timerange/schedule.h"
#include "schedule/schedule_text.h"

namespace timetest {

constexpr const char *UTC = "UTC0";
constexpr const char *BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char *NEW_YORK = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char *LORD_HOWE = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"; // half an hour
constexpr const char *HAVANA = "CST5CDT,M3.2.0/0,M11.1.0/1";              // changes at midnight

// One zone at a time per process: it is the C library's.
class PosixZone : public host::TimeZone {
public:
    explicit PosixZone(const char *pRules) {
        setenv("TZ", pRules, 1);
        tzset();
    }
    ~PosixZone() override {
        unsetenv("TZ");
        tzset();
    }
    PosixZone(const PosixZone &) = delete;
    PosixZone &operator=(const PosixZone &) = delete;

    // Asked once a quarter of an hour: offsets change at such times only.
    int32_t offsetAt(int64_t instant) const override {
        const int64_t quarter = instant - ((instant % 900) + 900) % 900;
        if (quarter != lastQuarter) {
            const auto at = static_cast<time_t>(quarter);
            struct tm local = {};
            lastOffset = localtime_r(&at, &local) == nullptr ? 0 : static_cast<int32_t>(local.tm_gmtoff);
            lastQuarter = quarter;
        }
        return lastOffset;
    }

private:
    mutable int64_t lastQuarter = -1;
    mutable int32_t lastOffset = 0;
};

// The instant of a local time that exists once; `offset` in hours tells which one of two is meant.
inline int64_t at(const char *pLocal, double offset) {
    return schedule::localTimeRead(pLocal) - static_cast<int64_t>(offset * 3600);
}

} // namespace timetest

#endif
