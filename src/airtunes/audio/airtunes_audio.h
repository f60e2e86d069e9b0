// AirTunes audio: the RTP receiver thread and the main loop's audio status poll.
#pragma once

// The UDP receive loop; returns when the stop flag is set.
void* audio_receiver_thread(void* unused);

// The main loop's audio poll: 1 buffering, 2 playing, 4 stopped, 5 unknown.
int airtunes_audio_status();
