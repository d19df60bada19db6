#pragma once

#include <cstdint>

// Frame pacing of one live push. Frames carry the caller's wall-clock time in
// epoch milliseconds; the encoder's time base is 1/fps, so a frame's
// presentation time stamp is its time rounded to the nearest frame interval,
// counted in intervals since the epoch (absolute, never rebased to 0).
namespace frameslots {

// The frame queue never holds more than this after a post: a camera whose
// push cannot keep up loses its oldest frames, not memory.
constexpr int kMaxQueued = 51;

// trunc((time_ms + 500/fps) / (1000/fps)), in double precision.
inline int64_t slotOf(int64_t time_ms, int fps)
{
    const double interval = 1000.0 / fps;
    return static_cast<int64_t>((static_cast<double>(time_ms) + 500.0 / fps) / interval);
}

// A frame is taken only when it lands in a later slot than the newest taken
// one; the first frame (last slot -1) always is.
inline bool takes(int64_t slot, int64_t lastSlot) { return slot > lastSlot; }

}  // namespace frameslots
