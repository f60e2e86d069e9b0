// Helpers of the seek, rate and scrub handlers, shared with their tests.
#pragma once

#include <cstddef>

// A number from a request converted to int by truncation toward zero; NaN gives 0 and
// values outside the int range are clamped to it.
int airplay_video_to_int(double value);

// The seek target as the player's time text "hh:mm:ss", two digits each; hours of 100 and
// more take the digits they need, and negative targets count as 0.
void airplay_video_seek_time_text(int target, char* out, size_t size);
