// The main loop's side of the audio stream: the player's audio state and its start.
#include "airtunes/audio/airtunes_audio.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>

#include "airtunes/audio/airtunes_session.h"
#include "main/daemon.h"
#include "tools/utils/player_client.h"

namespace {

constexpr const char kStartAod[] =
    "/playback?arg0=start_aod&arg1=AirPlayMusic&arg2=airtunes://AirPlayMusic.airtunes"
    "&arg3=marquee&arg4=disable";
constexpr const char kAodInfo[] = "/playback?arg0=get_current_aod_info";
constexpr const char kArtworkFile[] = "/tmp/airtunes_thumbnail.jpg";
// The player is started on this poll after RECORD at the latest (at once with artwork).
constexpr int kStartPoll = 12;
constexpr int kRunningWaitSteps = 40;  // of 10 ms: how long the start waits for the receiver
constexpr int kRunningWaitStepMs = 10;

// The exchange of the audio poll and the player start; main thread only.
net_exchange audio_exchange;

void poll_player_status() {
    net_exchange* x = &audio_exchange;
    player_command(x, kAodInfo);
    // No reply at all leaves the state as it was.
    if (x->player_reply.body[0] != '\0')
        audio_status.store(airtunes_status_from_reply(x->player_reply.body, audio_status.load()));
}

void run_pending_start() {
    airtunes_session_record& s = airtunes_session;
    // Video alone on screen: this RECORD's audio is not started.
    if (get_activity_mask() == kActivityVideo) s.player_start_pending.store(0);
    if (s.player_start_pending.load() != 1) {
        s.start_poll_count.store(0);
        return;
    }
    if (access(kArtworkFile, F_OK) == 0)
        s.start_poll_count.store(kStartPoll);
    else
        s.start_poll_count.fetch_add(1);
    if (s.start_poll_count.load() >= kStartPoll) {
        airtunes_start_player();
        s.player_start_pending.store(0);
        s.start_poll_count.store(0);
    }
}

}  // namespace

int airtunes_status_from_reply(const char* body, int last) {
    if (std::strstr(body, "<returnValue>0<") == nullptr) return kAudioStopped;
    int status = last;
    if (std::strstr(body, "<currentStatus>play<") != nullptr) status = kAudioPlaying;
    if (std::strstr(body, "<currentStatus>unknown<") != nullptr) status = kAudioUnknown;
    if (std::strstr(body, "<currentStatus>buffering<") != nullptr) status = kAudioBuffering;
    return status;
}

int airtunes_start_player() {
    pollfd stop{get_stop_fd(), POLLIN, 0};
    for (int i = 0; i < kRunningWaitSteps; ++i) {
        if (airtunes_session.receiver_state.load() == kReceiverRunning) break;
        if (get_stop_flag() == 1) return -1;
        poll(&stop, stop.fd >= 0 ? 1 : 0, kRunningWaitStepMs);
    }
    if (airtunes_session.receiver_state.load() != kReceiverRunning) return -1;
    return player_command(&audio_exchange, kStartAod) ? 0 : -1;
}

int airtunes_audio_status() {
    if (airtunes_session.session_active.load() == 0) return kAudioStopped;
    poll_player_status();
    run_pending_start();
    return audio_status.load();
}
