#include "airtunes/audio/airtunes_session.h"

airtunes_session_record airtunes_session;
std::atomic<int> audio_status{kAudioStopped};
