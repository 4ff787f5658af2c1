// See iso_text.h.
#include "host/timerange/iso_text.h"

#include <cstdio>

#include "schedule/schedule_text.h"

namespace host {

std::string isoText(int64_t instant, const TimeZone &zone) {
    const int32_t offset = zone.offsetAt(instant);
    std::string text = schedule::localTimeText(instant + offset);
    text[text.find(' ')] = 'T';
    if (text.size() == sizeof "2026-11-21T18:00" - 1) {
        text += ":00";
    }
    const int32_t size = offset < 0 ? -offset : offset;
    char tail[32];
    snprintf(tail, sizeof tail, "%c%02d:%02d", offset < 0 ? '-' : '+', size / 3600, size / 60 % 60);
    return text + tail;
}

} // namespace host
