// AirTunes RTSP sessions against the real daemon and player_sim, played by the test sender
// from the sender address: reply formats, the challenge answer, files for the player, the
// single-sender rule, key-stop, and hostile bodies.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/airtunes_sender.h"
#include "support/box.h"

namespace zt {
namespace {

constexpr char kJack[] = "Audio-Jack-Status: connected; type=analog\r\n";

std::string ok_lines(int cseq) {
    return std::string("RTSP/1.0 200 OK\r\n") + kJack + "CSeq: " + std::to_string(cseq) +
           "\r\n\r\n";
}

std::string dmap_item(const std::string& tag, const std::string& value) {
    std::string s = tag;
    for (int shift = 24; shift >= 0; shift -= 8)
        s += static_cast<char>((value.size() >> shift) & 0xff);
    return s + value;
}

void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

size_t count_commands(const Box& box, const std::string& name) {
    size_t n = 0;
    for (const auto& c : box.commands()) n += c.name == name;
    return n;
}

// OPTIONS, ANNOUNCE, SETUP, RECORD with the checks every session shares.
void start_stream(AirtunesSender& s) {
    ASSERT_TRUE(s.verify_apple_response(s.options(true)));
    std::string reply = s.announce();
    ASSERT_TRUE(reply.starts_with("RTSP/1.0 200 OK\r\nApple-Response: ")) << reply;
    ASSERT_TRUE(
        reply.ends_with(std::string(kJack) + "CSeq: " + std::to_string(s.cseq()) + "\r\n\r\n"));
    ASSERT_TRUE(s.verify_apple_response(reply));
    {
        std::string r = s.setup();
        ASSERT_EQ(r, "RTSP/1.0 200 OK\r\n" + std::string(kJack) +
                         "CSeq: " + std::to_string(s.cseq()) +
                         "\r\nTransport: RTP/AVP/UDP;unicast;mode=record;server_port=6000;"
                         "control_port=6001;timing_port=6002;event_port=5000\r\n"
                         "Session: DEADBEEF\r\n\r\n");
    }
    {
        std::string r = s.record();
        ASSERT_EQ(r, ok_lines(s.cseq()));
    }
}

TEST(AirtunesSession, WholeSessionAndOwnership) {
    Box box;
    ASSERT_TRUE(box.start());
    AirtunesSender a;
    ASSERT_EQ(a.connect(), ok_lines(1));  // player stopped: no Public line
    start_stream(a);
    EXPECT_TRUE(box.wait_log("Successfully decrypted key: 16"));

    {
        std::string r = a.request("SET_PARAMETER", "Content-Type: text/parameters\r\n",
                                  "volume: -20.500000\r\n");

        EXPECT_EQ(r, ok_lines(a.cseq()));
    }
    EXPECT_TRUE(box.wait_command("set_system_volume", 2));
    for (const auto& c : box.commands())
        if (c.name == "set_system_volume") {
            EXPECT_EQ(c.target, "/system?arg0=set_system_volume&arg1=-10");
        }
    EXPECT_EQ(
        read_file("/tmp/airplay_volume"),
        "wget -q -O /dev/null 'http://127.0.0.1:8008/system?arg0=set_system_volume&arg1=-10'");
    EXPECT_EQ(read_file("/tmp/airplay_update"), "vol\n");

    std::string dmap =
        dmap_item("mlit", dmap_item("minm", "Song") + dmap_item("asar", "Band") +
                              dmap_item("asal", "Record") + dmap_item("asgn", "Rock"));
    a.request("SET_PARAMETER", "Content-Type: application/x-dmap-tagged\r\n", dmap);
    EXPECT_EQ(read_file("/tmp/airtunes_info"), "Record|zor|Band|zor|Song|zor|Rock|zor|");
    std::string jpeg("\xff\xd8\xff\xe0\0JFIF\0\xff\xd9", 13);
    a.request("SET_PARAMETER", "Content-Type: image/jpeg\r\n", jpeg);
    EXPECT_EQ(read_file("/tmp/airtunes_thumbnail.jpg"), jpeg);

    {
        std::string r =
            a.request("GET_PARAMETER", "Content-Type: text/parameters\r\n", "volume\r\n");

        EXPECT_EQ(r,
                  "RTSP/1.0 200 OK\r\nServer: AirTunes/130.14\r\nContent-Type: text/parameters\r\n"
                  "Content-Length: 18\r\nCSeq: " +
                      std::to_string(a.cseq()) + "\r\n\r\nvolume: 0.000000\r\n");
    }
    EXPECT_EQ(a.request("FLUSH"), "RTSP/1.0 200 OK\r\n");  // player stopped: status line alone
    EXPECT_EQ(a.request("PAUSE"), "RTSP/1.0 501 Not Implemented\r\n");

    // A second device is refused while A owns the service; A's stream stays.
    AirtunesSender b("FFEEDDCCBBAA99");
    b.connect();
    b.options(false);
    EXPECT_EQ(b.announce(), "RTSP/1.0 -1 Unknown\r\n");
    EXPECT_TRUE(b.connection().closed_by_peer());
    EXPECT_TRUE(file_exists("/tmp/airtunes_info"));
    {
        std::string r = a.request("OPTIONS");
        EXPECT_EQ(r, ok_lines(a.cseq()));
    }

    EXPECT_EQ(a.teardown(), "RTSP/1.0 200 OK\r\n");  // player stopped: no stop_aod
    EXPECT_EQ(count_commands(box, "stop_aod"), 0u);
    EXPECT_FALSE(file_exists("/tmp/airtunes_info"));
    EXPECT_FALSE(file_exists("/tmp/airtunes_thumbnail.jpg"));
    b.connect();
    start_stream(b);  // B is the owner now
    EXPECT_EQ(a.announce(), "RTSP/1.0 -1 Unknown\r\n");
}

// The audio status poll reports what player_sim plays; without it (audio path not built in)
// there is nothing to observe here.
TEST(AirtunesSession, WhilePlaying) {
    Box box;
    ASSERT_TRUE(box.start({"--aod-status", "play"}));
    AirtunesSender a;
    a.connect();
    start_stream(a);
    if (!wait_until([&] { return a.request("OPTIONS").find("Public: ") != std::string::npos; },
                    std::chrono::seconds(4)))
        GTEST_SKIP() << "the daemon does not poll the audio status";
    {
        std::string r = a.request("OPTIONS");
        EXPECT_EQ(r, "RTSP/1.0 200 OK\r\n" + std::string(kJack) +
                         "CSeq: " + std::to_string(a.cseq()) +
                         "\r\nPublic: ANNOUNCE, SETUP, RECORD, PAUSE, FLUSH, TEARDOWN, OPTIONS, "
                         "GET_PARAMETER, SET_PARAMETER, POST, GET\r\n\r\n");
    }
    {
        std::string r = a.request("FLUSH");
        EXPECT_EQ(r, ok_lines(a.cseq()));
    }
    // A second ANNOUNCE of the owner stops the running stream first.
    EXPECT_TRUE(a.announce().starts_with("RTSP/1.0 200 OK\r\nApple-Response: "));
    EXPECT_EQ(count_commands(box, "stop_aod"), 1u);
    {
        std::string r = a.teardown();
        EXPECT_EQ(r,
                  "RTSP/1.0 200 OK\r\nServer: AirTunes/130.14\r\nConnection: close\r\n"
                  "CSeq: " +
                      std::to_string(a.cseq()) + "\r\n\r\n");
    }
    EXPECT_EQ(count_commands(box, "stop_aod"), 2u);
}

TEST(AirtunesSession, AnnounceStopsVideoAndKeyStop) {
    Box box;
    ASSERT_TRUE(box.start({"--vod-status", "play"}));
    Client airplay = Client::connect("127.0.0.1", 7000);
    airplay.send("GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: 1\r\nContent-Length: 0\r\n\r\n");
    airplay.recv_message();
    std::string play = "Content-Location: http://192.0.2.20:1/v.mp4\r\nStart-Position: 0\r\n";
    airplay.send("POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\nContent-Length: " +
                 std::to_string(play.size()) + "\r\n\r\n" + play);
    ASSERT_TRUE(box.wait_command("start_vod"));
    ASSERT_TRUE(box.wait_command("get_current_vod_info", 2));
    AirtunesSender a;
    a.connect();
    EXPECT_TRUE(a.announce().starts_with("RTSP/1.0 200 OK\r\n"));
    EXPECT_EQ(count_commands(box, "stop_vod"), 1u);

    // Other text in the key-stop file: served as usual, the file stays.
    write_text("/tmp/airplay_key_stopped.txt", "key_pressed\n");
    {
        std::string r = a.request("OPTIONS");
        EXPECT_EQ(r, ok_lines(a.cseq()));
    }
    EXPECT_TRUE(file_exists("/tmp/airplay_key_stopped.txt"));
    write_text("/tmp/airtunes_info", "x");
    write_text("/tmp/airplay_key_stopped.txt", "key_stopped\n");
    a.connection().send(a.request_text("OPTIONS", "", ""));
    EXPECT_EQ(a.connection().recv_all(), "RTSP/1.0 200 OK\r\nRTSP/1.0 200 OK\r\n");
    EXPECT_FALSE(file_exists("/tmp/airplay_key_stopped.txt"));
    EXPECT_FALSE(file_exists("/tmp/airtunes_info"));
    EXPECT_TRUE(box.wait_command("stop_aod"));  // the player reports stopped
    AirtunesSender b("FFEEDDCCBBAA99");         // the owner is cleared
    b.connect();
    EXPECT_TRUE(b.announce().starts_with("RTSP/1.0 200 OK\r\n"));
}

TEST(AirtunesSession, HostileBodiesLeaveTheServiceRunning) {
    Box box;
    ASSERT_TRUE(box.start());
    AirtunesSender owner;
    owner.connect();
    ASSERT_TRUE(owner.announce().starts_with("RTSP/1.0 200 OK\r\n"));

    struct Case {
        std::string head;  // method and Content-Length
        std::string body;
        std::string reply;
    };
    const Case cases[] = {
        {"ANNOUNCE rtsp://x RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 70000\r\n", "v=0",
         "RTSP/1.0 -1 Unknown\r\n"},
        {"ANNOUNCE rtsp://x RTSP/1.0\r\nCSeq: 1\r\nContent-Length: -5\r\n", "v=0",
         "RTSP/1.0 -1 Unknown\r\n"},
        {"ANNOUNCE rtsp://x RTSP/1.0\r\nCSeq: 1\r\n", "", "RTSP/1.0 -1 Unknown\r\n"},
        {"SET_PARAMETER rtsp://x RTSP/1.0\r\nCSeq: 7\r\nContent-Length: 17000000\r\n", "volume: 0",
         ok_lines(7)},
        {"GET_PARAMETER rtsp://x RTSP/1.0\r\nCSeq: 1\r\nContent-Length: abc\r\n", "volume",
         "RTSP/1.0 200 OK\r\n"},
    };
    for (const Case& c : cases) {
        Client peer = connect_from(sender_ip(), "192.0.2.10", 5000);
        peer.send(c.head + "X-Apple-Device-ID: 0A1B2C3D4E5F60\r\n\r\n" + c.body);
        EXPECT_EQ(peer.recv_all(), c.reply) << c.head;  // and the connection is closed
    }
    // Oversized attributes, a long fmtp line and a challenge of 24 unpadded characters.
    std::string sdp = "a=aesiv:" + std::string(700, 'A') + "\r\na=fmtp:" + std::string(40, '9') +
                      std::string(60, ' ') + "\r\na=rsaaeskey:QUJD";
    std::string reply =
        owner.request("ANNOUNCE", "Apple-Challenge: QUJDREVGR0hJSktMTU5PUFFSU1RV\r\n", sdp);
    EXPECT_TRUE(reply.starts_with("RTSP/1.0 200 OK\r\nApple-Response: ")) << reply;
    EXPECT_EQ(owner.setup().substr(0, 17), "RTSP/1.0 200 OK\r\n");
    EXPECT_EQ(owner.request("POST /fp-setup"), "RTSP/1.0 501 Not Implemented\r\n");
    {
        std::string r = owner.request("OPTIONS");
        EXPECT_EQ(r, ok_lines(owner.cseq()));
    }
    Client airplay = Client::connect("127.0.0.1", 7000);
    airplay.send("GET /server-info HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(status_code(airplay.recv_message()), 200);
}

}  // namespace
}  // namespace zt
