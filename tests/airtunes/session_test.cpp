// AirTunes RTSP sessions against the real daemon and player_sim, played by the test sender.
#include <gtest/gtest.h>

#include <fstream>

#include "support/airtunes_sender.h"
#include "support/box.h"

namespace zt {
namespace {

const std::string kOk = "RTSP/1.0 200 OK\r\n", kRefused = "RTSP/1.0 -1 Unknown\r\n";
const std::string kJack = "Audio-Jack-Status: connected; type=analog\r\n";

std::string ok_lines(const AirtunesSender& s, const std::string& more = "") {
    return kOk + more + kJack + "CSeq: " + std::to_string(s.cseq) + "\r\n\r\n";
}

// The targets of the commands named name that player_sim received.
std::vector<std::string> targets(const Box& box, const std::string& name) {
    std::vector<std::string> out;
    for (const auto& c : box.commands())
        if (c.name == name) out.push_back(c.target);
    return out;
}

// Challenge, ANNOUNCE, SETUP and RECORD, each reply checked once byte for byte.
void start_stream(AirtunesSender& s) {
    ASSERT_TRUE(s.verify_apple_response(s.options_with_challenge()));
    std::string r = s.announce();
    ASSERT_TRUE(s.verify_apple_response(r));
    ASSERT_EQ(r, ok_lines(s, "Apple-Response: " + header_value(r, "Apple-Response") + "\r\n"));
    r = s.setup();
    ASSERT_EQ(r, kOk + kJack + "CSeq: " + std::to_string(s.cseq) +
                             "\r\nTransport: RTP/AVP/UDP;unicast;mode=record;server_port=6000;"
                             "control_port=6001;timing_port=6002;event_port=5000\r\n"
                             "Session: DEADBEEF\r\n\r\n");
    r = s.request("RECORD");
    ASSERT_EQ(r, ok_lines(s));
}

TEST(AirtunesSession, WholeSessionAndOwnership) {
    Box box;
    ASSERT_TRUE(box.start({"--aod-status", "stop"}));  // the player never reports playing here
    AirtunesSender a, b("FFEEDDCCBBAA99");
    ASSERT_EQ(a.connect(), kOk + kJack + "CSeq: 1\r\n\r\n");  // player stopped: no Public
    start_stream(a);
    EXPECT_TRUE(box.wait_log("Successfully decrypted key: 16"));

    std::string r = a.request("SET_PARAMETER", "Content-Type: text/parameters\r\n", "volume: -20.500000\r\n");
    EXPECT_EQ(r, ok_lines(a));
    EXPECT_TRUE(box.wait_command("set_system_volume", 2));  // from the shell's wget and directly
    EXPECT_EQ(targets(box, "set_system_volume"),
              std::vector<std::string>(2, "/system?arg0=set_system_volume&arg1=-10"));
    EXPECT_EQ(read_file("/tmp/airplay_volume"),
              "wget -q -O /dev/null 'http://127.0.0.1:8008/system?arg0=set_system_volume&arg1=-10'");
    EXPECT_EQ(read_file("/tmp/airplay_update"), "vol\n");
    a.request("SET_PARAMETER", "Content-Type: application/x-dmap-tagged\r\n",
              dmap_item("mlit", dmap_item("minm", "Song") + dmap_item("asar", "Band") +
                                    dmap_item("asal", "Record")));
    EXPECT_EQ(read_file("/tmp/airtunes_info"), "Record|zor|Band|zor|Song|zor||zor|");
    std::string jpeg("\xff\xd8\xff\0\xff\xd9", 6);
    a.request("SET_PARAMETER", "Content-Type: image/jpeg\r\n", jpeg);
    EXPECT_EQ(read_file("/tmp/airtunes_thumbnail.jpg"), jpeg);
    r = a.request("GET_PARAMETER", "Content-Type: text/parameters\r\n", "volume\r\n");
    EXPECT_EQ(r, kOk + "Server: AirTunes/130.14\r\nContent-Type: text/parameters\r\nContent-Length: "
                    "18\r\nCSeq: " + std::to_string(a.cseq) + "\r\n\r\nvolume: 0.000000\r\n");
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
}

TEST(AirtunesSession, AnnounceStopsVideoAndKeyStop) {
    Box box;
    ASSERT_TRUE(box.start({"--vod-status", "play"}));
    Client airplay = Client::connect("127.0.0.1", 7000);
    std::string play = "Content-Location: http://192.0.2.20:1/v.mp4\r\n";
    airplay.send("GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: 1\r\n\r\nPOST /play HTTP/1.1\r\n"
                 "Content-Type: text/parameters\r\nContent-Length: " + std::to_string(play.size()) +
                 "\r\n\r\n" + play);
    ASSERT_TRUE(box.wait_command("get_current_vod_info", 2));
    AirtunesSender a, b("FFEEDDCCBBAA99");
    a.connect();
    EXPECT_TRUE(a.announce().starts_with(kOk));
    EXPECT_EQ(targets(box, "stop_vod"), std::vector<std::string>{"/playback?arg0=stop_vod"});

    std::ofstream("/tmp/airplay_key_stopped.txt") << "key_pressed";  // served as usual
    std::string r = a.request("OPTIONS");
    EXPECT_EQ(r, ok_lines(a));
    std::ofstream("/tmp/airtunes_info") << "x";
    std::ofstream("/tmp/airplay_key_stopped.txt") << "key_stopped\n";
    a.conn.send(a.request_text("OPTIONS"));
    EXPECT_EQ(a.conn.recv_all(), kOk + kOk);  // and closed
    EXPECT_FALSE(file_exists("/tmp/airplay_key_stopped.txt") || file_exists("/tmp/airtunes_info"));
    // The player reports stopped.
    EXPECT_EQ(targets(box, "stop_aod"), std::vector<std::string>{"/playback?arg0=stop_aod"});
    b.connect();
    EXPECT_TRUE(b.announce().starts_with(kOk));  // the owner was cleared
}

TEST(AirtunesSession, HostileBodiesLeaveTheServiceRunning) {
    Box box;
    ASSERT_TRUE(box.start());
    AirtunesSender owner;
    owner.connect();
    ASSERT_TRUE(owner.announce().starts_with(kOk));
    const std::pair<std::string, std::string> cases[] = {
        {"ANNOUNCE x RTSP/1.0\r\nContent-Length: 70000\r\n", kRefused},
        {"ANNOUNCE x RTSP/1.0\r\nContent-Length: -5\r\n", kRefused},
        {"ANNOUNCE x RTSP/1.0\r\n", kRefused},
        {"SET_PARAMETER x RTSP/1.0\r\nCSeq: 7\r\nContent-Length: 17000000\r\n",
         kOk + kJack + "CSeq: 7\r\n\r\n"},
        {"GET_PARAMETER x RTSP/1.0\r\nContent-Length: abc\r\n", kOk},
    };
    for (const auto& [head, reply] : cases) {
        Client peer = connect_rtsp();
        peer.send(head + "X-Apple-Device-ID: 0A1B2C3D4E5F60\r\n\r\nvolume: 0\r\n");
        EXPECT_EQ(peer.recv_all(), reply) << head;  // and closed
    }
    // Oversized attributes and fmtp tokens, a challenge of 24 characters without padding.
    std::string sdp = "a=aesiv:" + std::string(700, 'A') + "\r\na=fmtp:" + std::string(40, '9') +
                      std::string(60, ' ') + "\r\na=rsaaeskey:QUJD";
    std::string r = owner.request("ANNOUNCE", "Apple-Challenge: QUJDREVGR0hJSktMTU5PUFFSU1RV\r\n", sdp);
    EXPECT_TRUE(r.starts_with(kOk + "Apple-Response: ")) << r;
    EXPECT_TRUE(owner.setup().starts_with(kOk));
    r = owner.request("OPTIONS");
    EXPECT_EQ(r, ok_lines(owner));
    Client airplay = Client::connect("127.0.0.1", 7000);  // the other services untouched
    airplay.send("GET /server-info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(status_code(airplay.recv_message()), 200);
}

}  // namespace
}  // namespace zt
