// AirTunes against the real daemon and player_sim, played by the test sender at 192.0.2.20: RTSP
// sessions (real RSA), encrypted ALAC packets whose PCM player_sim records from "/tmp/airtunes".
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/airtunes_sender.h"
#include "support/airplay_sender.h"

namespace zt {
namespace {

using namespace std::chrono_literals;

const std::string kOk = "RTSP/1.0 200 OK\r\n", kRefused = "RTSP/1.0 -1 Unknown\r\n",
                  kJack = "Audio-Jack-Status: connected; type=analog\r\n";

// The plain 200 reply to s's last request: s.cseq is read once the request is made.
void expect_ok(const AirtunesSender& s, const std::string& reply) {
    EXPECT_EQ(reply, kOk + kJack + "CSeq: " + std::to_string(s.cseq) + "\r\n\r\n");
}

// Challenge, ANNOUNCE, SETUP and RECORD, each reply checked once byte for byte.
void start_stream(AirtunesSender& s) {
    ASSERT_TRUE(s.verify_apple_response(s.request("OPTIONS", s.new_challenge() + "\r\n")));
    std::string r = s.announce();
    ASSERT_TRUE(s.verify_apple_response(r));
    ASSERT_EQ(r, kOk + "Apple-Response: " + header_value(r, "Apple-Response") + "\r\n" + kJack +
                     "CSeq: " + std::to_string(s.cseq) + "\r\n\r\n");
    r = s.setup();
    ASSERT_EQ(r, kOk + kJack + "CSeq: " + std::to_string(s.cseq) + "\r\nTransport: RTP/AVP/UDP;"
                     "unicast;mode=record;server_port=6000;control_port=6001;timing_port=6002;"
                     "event_port=5000\r\nSession: DEADBEEF\r\n\r\n");
    expect_ok(s, s.request("RECORD"));
}

TEST(AirtunesSession, WholeSessionOwnershipKeyStopAndHostileBodies) {
    Box box;  // the player never reports playing music here, and always a video
    ASSERT_TRUE(box.start({"--aod-status", "stop", "--vod-status", "play"}));
    VideoSender video;
    ASSERT_TRUE(video.new_session());
    ASSERT_EQ(video.play_status(kText, "Content-Location: http://192.0.2.20:1/v.mp4\n"), 200);
    ASSERT_TRUE(box.wait_command("get_current_vod_info", 2));
    AirtunesSender a, b("FFEEDDCCBBAA99");
    ASSERT_EQ(a.connect(), kOk + kJack + "CSeq: 1\r\n\r\n");  // player stopped: no Public
    start_stream(a);                                          // its ANNOUNCE stops the video
    EXPECT_EQ(box.targets("stop_vod"), std::vector<std::string>{"/playback?arg0=stop_vod"});
    EXPECT_TRUE(box.wait_log("Successfully decrypted key: 16"));

    expect_ok(a, a.request("SET_PARAMETER", "Content-Type: text/parameters\r\n",
                           "volume: -20.500000\r\n"));
    EXPECT_TRUE(box.wait_command("set_system_volume", 2));  // from the shell's wget and directly
    EXPECT_EQ(box.targets("set_system_volume"),
              std::vector<std::string>(2, "/system?arg0=set_system_volume&arg1=-10"));
    EXPECT_EQ(read_file("/tmp/airplay_volume"), "wget -q -O /dev/null "
              "'http://127.0.0.1:8008/system?arg0=set_system_volume&arg1=-10'");
    EXPECT_EQ(read_file("/tmp/airplay_update"), "vol\n");
    a.request("SET_PARAMETER", "Content-Type: application/x-dmap-tagged\r\n", dmap_item("mlit",
              dmap_item("minm", "Song") + dmap_item("asar", "Band") + dmap_item("asal", "Record")));
    EXPECT_EQ(read_file("/tmp/airtunes_info"), "Record|zor|Band|zor|Song|zor||zor|");
    std::string jpeg("\xff\xd8\xff\0\xff\xd9", 6);
    a.request("SET_PARAMETER", "Content-Type: image/jpeg\r\n", jpeg);
    EXPECT_EQ(read_file("/tmp/airtunes_thumbnail.jpg"), jpeg);
    std::string r = a.request("GET_PARAMETER", "Content-Type: text/parameters\r\n", "volume\r\n");
    EXPECT_EQ(r, kOk + "Server: AirTunes/130.14\r\nContent-Type: text/parameters\r\nContent-Length:"
                     " 18\r\nCSeq: " + std::to_string(a.cseq) + "\r\n\r\nvolume: 0.000000\r\n");
    EXPECT_EQ(a.request("FLUSH"), kOk);  // player stopped: the status line alone
    EXPECT_EQ(a.request("POST /fp-setup"), "RTSP/1.0 501 Not Implemented\r\n");

    b.connect();
    EXPECT_EQ(b.announce(), kRefused);
    EXPECT_TRUE(b.conn.closed_by_peer());
    EXPECT_TRUE(file_exists("/tmp/airtunes_info"));  // the owner's stream untouched
    EXPECT_EQ(a.request("TEARDOWN"), kOk);           // player stopped: no stop_aod
    EXPECT_EQ(box.count("stop_aod"), 0u);
    EXPECT_FALSE(file_exists("/tmp/airtunes_info") || file_exists("/tmp/airtunes_thumbnail.jpg"));
    b.connect();
    start_stream(b);
    EXPECT_EQ(a.announce(), kRefused);

    // The remote's stop key: "key_pressed" is served as usual, "key_stopped" ends the stream
    // with two replies, closes the connection and clears the owner.
    std::ofstream("/tmp/airplay_key_stopped.txt") << "key_pressed";
    expect_ok(b, b.request("OPTIONS"));
    std::ofstream("/tmp/airtunes_info") << "x";
    std::ofstream("/tmp/airplay_key_stopped.txt") << "key_stopped\n";
    b.conn.send(b.request_text("OPTIONS"));
    EXPECT_EQ(b.conn.recv_all(), kOk + kOk);
    EXPECT_FALSE(file_exists("/tmp/airplay_key_stopped.txt") || file_exists("/tmp/airtunes_info"));
    EXPECT_EQ(box.targets("stop_aod"), std::vector<std::string>{"/playback?arg0=stop_aod"});
    a.connect();
    ASSERT_TRUE(a.announce().starts_with(kOk));

    // Hostile bodies, from the owner's device id, leave this service and the others running.
    const std::pair<std::string, std::string> cases[] = {
        {"ANNOUNCE x RTSP/1.0\r\nContent-Length: 70000\r\n", kRefused},
        {"ANNOUNCE x RTSP/1.0\r\nContent-Length: -5\r\n", kRefused},
        {"ANNOUNCE x RTSP/1.0\r\n", kRefused},
        {"SET_PARAMETER x RTSP/1.0\r\nCSeq: 7\r\nContent-Length: 17000000\r\n",
         kOk + kJack + "CSeq: 7\r\n\r\n"},
        {"GET_PARAMETER x RTSP/1.0\r\nContent-Length: abc\r\n", kOk}};
    for (const auto& [head, reply] : cases) {
        Client peer = connect_rtsp();
        peer.send(head + "X-Apple-Device-ID: 0A1B2C3D4E5F60\r\n\r\nvolume: 0\r\n");
        EXPECT_EQ(peer.recv_all(), reply) << head;  // and closed
    }
    // Oversized attributes and fmtp tokens, a challenge of 24 characters without padding.
    std::string sdp = "a=aesiv:" + std::string(700, 'A') + "\r\na=fmtp:" + std::string(40, '9') +
                      std::string(60, ' ') + "\r\na=rsaaeskey:QUJD";
    r = a.request("ANNOUNCE", "Apple-Challenge: QUJDREVGR0hJSktMTU5PUFFSU1RV\r\n", sdp);
    EXPECT_TRUE(r.starts_with(kOk + "Apple-Response: ")) << r;
    EXPECT_TRUE(a.setup().starts_with(kOk));
    expect_ok(a, a.request("OPTIONS"));
    EXPECT_EQ(status_code(video.request("GET /server-info HTTP/1.1\r\n\r\n")), 200);
}

std::string recording() {  // the PCM behind the 44-byte WAV header
    return read_file(std::string(Box::kSimOut) + "/audio.wav").erase(0, 44);
}

// A started stream whose artwork has just made the daemon start the player.
void start_playing(Box& box, AirtunesSender& rtsp) {
    ASSERT_TRUE(box.start());
    rtsp.connect();
    ASSERT_NO_FATAL_FAILURE(start_stream(rtsp));
    const std::string art = "\xff\xd8\xff\xd9";
    ASSERT_EQ(status_code(rtsp.request("SET_PARAMETER", "Content-Type: image/jpeg\r\n", art)), 200);
    ASSERT_TRUE(box.wait_command("start_aod"));
    EXPECT_EQ(box.targets("start_aod"), std::vector<std::string>{"/playback?arg0=start_aod&arg1="
              "AirPlayMusic&arg2=airtunes://AirPlayMusic.airtunes&arg3=marquee&arg4=disable"});
}

TEST(AudioStream, PlaysBitExactRestartsOnRecordAndEndsOnSigterm) {
    Box box;
    AirtunesSender rtsp;
    ASSERT_NO_FATAL_FAILURE(start_playing(box, rtsp));
    // 16 rounds of the vector (5.2 s) at real-time pace; between the halves a retransmission,
    // a duplicate, short and foreign-typed datagrams, and packets from another address.
    const auto frames = load_alac_frames("s16_stereo");
    const std::string pcm = load_alac_pcm("s16_stereo");
    std::vector<Frame> half;
    std::string half_pcm;
    for (int round = 0; round < 8; ++round)
        half.insert(half.end(), frames.begin(), frames.end()), half_pcm += pcm;
    RtpSender sender(rtsp.aes_key, rtsp.aes_iv), foreign(rtsp.aes_key, rtsp.aes_iv, "192.0.2.10");
    ASSERT_TRUE(sender.send_frames(half));
    sender.send(sender.packet(frames[3], 1003, 1056, true), 6001);
    std::this_thread::sleep_for(50ms);
    sender.send(sender.packet(frames.back(), static_cast<uint16_t>(sender.seq - 1), 0));
    for (const Frame& bad : {Frame(11, 0x60), Frame{0x80, 0x56, 0, 1, 0x80, 0x60}, Frame(300, 127)})
        sender.send(bad);
    foreign.send(foreign.packet(frames[7], 77, 0));
    ASSERT_TRUE(sender.send_frames(half));
    const std::string expected =  // frame 3's PCM, then the last, shorter frame's
        half_pcm + pcm.substr(3 * 1408, 1408) + pcm.substr((frames.size() - 1) * 1408) + half_pcm;
    EXPECT_TRUE(wait_until([&] { return recording().size() >= expected.size(); }, 3s));
    const std::string got = recording();
    EXPECT_GE(got.size(), expected.size() * 95 / 100);
    EXPECT_TRUE(expected.ends_with(got)) << got.size() << " of " << expected.size();
    EXPECT_FALSE(box.wait_command("start_aod", 2, 100ms));
    const auto polls = box.targets("get_current_aod_info");  // the audio state's polls
    EXPECT_FALSE(polls.empty());
    EXPECT_EQ(polls, std::vector<std::string>(polls.size(), "/playback?arg0=get_current_aod_info"));

    expect_ok(rtsp, rtsp.request("FLUSH"));  // while playing: the jack line too
    // TEARDOWN while playing stops the player; the next RECORD makes a new pipe and waits
    // for a reader, which never comes (start_aod answered late): SIGTERM still ends it.
    EXPECT_EQ(status_code(rtsp.request("TEARDOWN")), 200);
    EXPECT_TRUE(box.wait_command("stop_aod"));
    struct stat before = {}, after = {};
    ::stat("/tmp/airtunes", &before);
    box.sim("/sim/delay?cmd=start_aod&ms=30000");
    ASSERT_NO_FATAL_FAILURE(start_stream(rtsp));
    EXPECT_TRUE(wait_until(
        [&] { return ::stat("/tmp/airtunes", &after) == 0 && after.st_ino != before.st_ino; }));
    sender.send_frames({frames.begin(), frames.begin() + 20}, 0);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
}

TEST(AudioStream, AFullPipeHoldsOnlyTheReceiverAndSigtermEndsTheStream) {
    Box box;
    AirtunesSender rtsp;
    ASSERT_NO_FATAL_FAILURE(start_playing(box, rtsp));
    box.sim("/sim/stall?aod=1");
    const auto frames = load_alac_frames("s16_stereo");
    RtpSender sender(rtsp.aes_key, rtsp.aes_iv);
    for (int round = 0; round < 3; ++round) ASSERT_TRUE(sender.send_frames(frames, 4));
    EXPECT_EQ(status_code(rtsp.request("OPTIONS")), 200);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
    EXPECT_LT(recording().size(), 3 * load_alac_pcm("s16_stereo").size());
}

}  // namespace
}  // namespace zt
