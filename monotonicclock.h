#ifndef MONOTONICCLOCK_H
#define MONOTONICCLOCK_H

#include <chrono>
#include <cstdint>

// The clock every capture time, sound block and recording stamp is on: the
// monotonic one, which the camera driver's frame stamps use too, so that
// pictures and sound line up whatever the wall clock does.
inline int64_t monotonicNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

#endif // MONOTONICCLOCK_H
