// player_sim: stands in for the box's media player and its control service, so the daemon
// can run on a PC and be tested end to end.
//
// It serves HTTP GET on 127.0.0.1:PORT, one reply per connection:
//   /playback?arg0=CMD&arg1=...   get_current_vod_info, start_vod, set_time_seek_vod,
//                                 resume_vod, pause_vod, stop_vod, insert_pod_queue,
//                                 stop_pod, get_current_aod_info, start_aod, stop_aod
//   /system?arg0=set_system_volume&arg1=N
// Replies carry <returnValue>0</returnValue> on success and -1 on refusal or an unknown
// command; the two info queries add <currentStatus>, <totalTime>, <currentTime> (whole
// seconds) and <seekEnable>. Commands are accepted in any state.
//
// Every command received is logged, before it is acted on, to OUT/commands.log as
//   <unix time in ms> TAB <arg0> TAB <request target exactly as received> LF
// and summarised on standard output. Control requests (below) are not logged.
//
// Options:
//   --port N            listening port (8008)
//   --out DIR           output folder (/tmp/player_sim): commands.log, audio.wav, photo-N.jpg
//   --duration S        duration of every video in seconds (120)
//   --fifo PATH         PCM pipe that start_aod reads (/tmp/airtunes)
//   --fetch-fail S      status reported when a video's fetch fails before any data (stop)
//   --vod-status S      always report S for the video (as /sim/force?vod=S)
//   --aod-status S      always report S for the audio (as /sim/force?aod=S)
//   --refuse CMD        answer CMD with returnValue -1, every time ("*": every command)
//   --close CMD         close CMD's connection without answering, every time
//   --delay CMD=MS      answer CMD MS milliseconds late (the command acts late too)
// Control requests on the same port (GET; reply text/plain "ok" or 400):
//   /sim/refuse?cmd=CMD[&count=N]          refuse the next N (no count: all; 0: clear)
//   /sim/close?cmd=CMD[&count=N]           close the next N without an answer
//   /sim/delay?cmd=CMD&ms=MS[&count=N]     answer the next N late (ms=0 clears)
//   /sim/force?vod=S&aod=S&seek=true|false report S / seekEnable ("none": simulate again)
//   /sim/duration?s=S                      set the video duration
//   /sim/stall?aod=1|0                     stop / resume reading the PCM FIFO
//   /sim/reset                             clear all faults and forced values
//   /sim/state                             key=value lines: vod, vod_time, vod_duration,
//       vod_seekable, vod_bytes, vod_url, aod, aod_bytes, volume, photo (shown|hidden),
//       photos, commands
// A delay applies first, then close, then refuse. SIGTERM or SIGINT ends it cleanly.
#include <signal.h>
#include <stdio.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "http_server.h"
#include "player.h"

namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void on_signal(int) {
    g_stop = true;
}

const char* kUsage =
    "usage: player_sim [--port N] [--out DIR] [--duration S] [--fifo PATH] [--fetch-fail S]\n"
    "                  [--vod-status S] [--aod-status S] [--refuse CMD] [--close CMD]\n"
    "                  [--delay CMD=MS]\n"
    "Stands in for the box's player control service on 127.0.0.1:PORT (8008).\n"
    "  --out DIR        commands.log, audio.wav, photo-N.jpg go here (/tmp/player_sim)\n"
    "  --duration S     duration of every video (120 s)\n"
    "  --fifo PATH      PCM pipe read by start_aod (/tmp/airtunes)\n"
    "  --fetch-fail S   video status after a failed fetch (stop)\n"
    "  --vod-status S   always report video status S; --aod-status S likewise for audio\n"
    "  --refuse CMD     answer CMD with returnValue -1 (CMD \"*\": every command)\n"
    "  --close CMD      close CMD's connection without answering\n"
    "  --delay CMD=MS   answer CMD MS milliseconds late\n"
    "Control: GET /sim/refuse?cmd=C[&count=N], /sim/close?cmd=C[&count=N],\n"
    "  /sim/delay?cmd=C&ms=MS[&count=N], /sim/force?vod=S&aod=S&seek=true|false (none to\n"
    "  undo), /sim/duration?s=S, /sim/stall?aod=1|0, /sim/reset, /sim/state.\n"
    "Log: OUT/commands.log, one line per command: unix ms TAB arg0 TAB raw target.\n";

struct Config {
    int port = 8008;
    sim::PlayerOptions player;
    std::string vod_status, aod_status;
    std::vector<std::pair<sim::Fault, std::string>> faults;  // delay: "CMD=MS"
};

// Returns 0 to run, -1 after printing the help, otherwise the exit status of an error.
int parse_args(int argc, char** argv, Config* c) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return -1;
        }
        if (i + 1 >= argc)
            return fprintf(stderr, "player_sim: %s needs a value\n%s", a.c_str(), kUsage), 2;
        std::string v = argv[++i];
        if (a == "--port")
            c->port = std::atoi(v.c_str());
        else if (a == "--out")
            c->player.out_dir = v;
        else if (a == "--duration")
            c->player.duration_s = std::atol(v.c_str());
        else if (a == "--fifo")
            c->player.fifo = v;
        else if (a == "--fetch-fail")
            c->player.fetch_fail_status = v;
        else if (a == "--vod-status")
            c->vod_status = v;
        else if (a == "--aod-status")
            c->aod_status = v;
        else if (a == "--refuse")
            c->faults.emplace_back(sim::Fault::refuse, v);
        else if (a == "--close")
            c->faults.emplace_back(sim::Fault::close, v);
        else if (a == "--delay" && v.find('=') != std::string::npos)
            c->faults.emplace_back(sim::Fault::delay, v);
        else
            return fprintf(stderr, "player_sim: bad option %s %s\n%s", a.c_str(), v.c_str(),
                           kUsage),
                   2;
    }
    if (c->port <= 0 || c->port > 65535 || c->player.duration_s <= 0)
        return fprintf(stderr, "player_sim: bad --port or --duration\n"), 2;
    return 0;
}

void apply(const Config& c, sim::Player* p) {
    if (!c.vod_status.empty()) p->vod().force_status(c.vod_status);
    if (!c.aod_status.empty()) p->aod().force_status(c.aod_status);
    for (const auto& [kind, arg] : c.faults) {
        size_t eq = arg.find('=');
        if (kind == sim::Fault::delay)
            p->faults().set(kind, arg.substr(0, eq), -1, std::atol(arg.c_str() + eq + 1));
        else
            p->faults().set(kind, arg, -1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Config config;
    if (int rc = parse_args(argc, argv, &config)) return rc < 0 ? 0 : rc;
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    sim::Stopper stopper;
    sim::Player player(config.player, &stopper);
    sim::HttpServer server;
    std::string error;
    if (!player.open(&error) || !server.listen("127.0.0.1", config.port, &error)) {
        fprintf(stderr, "player_sim: %s\n", error.c_str());
        return 1;
    }
    apply(config, &player);
    sim::say("player control service on 127.0.0.1:" + std::to_string(config.port) + ", output in " +
             config.player.out_dir);
    server.run([&](const sim::Request& r) { return player.handle(r); }, g_stop,
               [&] { stopper.stop(); });
    player.shutdown();
    sim::say("stopped");
    return 0;
}
