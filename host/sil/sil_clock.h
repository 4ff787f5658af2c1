// The clock of the platform's timers: milliseconds of the monotonic clock, or of a source that a
// simulation gives (tests move time by hand instead of waiting).
#ifndef HOST_SIL_SIL_CLOCK_H
#define HOST_SIL_SIL_CLOCK_H

#include <cstdint>

namespace host {

using ClockSource = uint64_t (*)(); // milliseconds, never going back

// Milliseconds since some fixed moment. Any thread. Lock: none
uint64_t clockMs();

// Replaces the source; null: the monotonic clock again. Any thread. Lock: none
void clockSourceSet(ClockSource source);

} // namespace host

#endif
