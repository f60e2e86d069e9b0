// The sender's media end to end: a text-form video that player_sim fetches through the
// proxy, and photos shown through the player and ended from the FIFO.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "airplay_video/video_sender.h"
#include "support/media_server.h"

namespace {

using namespace std::chrono_literals;

class Media : public ::testing::Test {
   protected:
    void TearDown() override {
        std::string log = box_.daemon_log();
        EXPECT_EQ(log.find("runtime error"), std::string::npos) << log;
        EXPECT_EQ(log.find("AddressSanitizer"), std::string::npos) << log;
    }
    zt::Box box_;
    zt::VideoSender sender_;
};

TEST_F(Media, TextFormVideoPlaysThroughTheProxy) {
    zt::MediaFileServer media;
    ASSERT_TRUE(media.start(std::string(2 << 20, 'm')));
    ASSERT_TRUE(box_.start());
    ASSERT_TRUE(sender_.new_session());
    ASSERT_TRUE(sender_.open_reverse());
    media.hold(true);  // the player buffers until the first bytes come
    EXPECT_EQ(zt::status_code(sender_.play_text(
                  "Content-Location: http://192.0.2.20:8080/movie.mp4\nStart-Position: 0\n")),
              200);
    EXPECT_TRUE(media.wait_request(1).starts_with("GET /movie.mp4 HTTP/1.1\r\nAccept: */*\r\n"));
    EXPECT_TRUE(sender_.wait_event("loading"));
    media.hold(false);
    EXPECT_TRUE(sender_.wait_event("playing"));
    // The player's HEAD reaches the server with its own User-Agent.
    EXPECT_NE(media.wait_request(2).find("User-Agent: ZorBoxPlayer/1.0\r\n"), std::string::npos);
    EXPECT_TRUE(zt::wait_until([&] {
        return box_.sim("/sim/state").find("vod_bytes=" + std::to_string(2 << 20)) !=
               std::string::npos;
    }));

    // A scrub to 60 s of the 120 s video: a Range fetch from the middle of the file.
    EXPECT_EQ(sender_.post("/scrub?position=60"), 200);
    EXPECT_NE(media.wait_request(3, 15s).find("Range: bytes=" + std::to_string(1 << 20) + "-\r\n"),
              std::string::npos)
        << box_.daemon_log();
}

// A PUT /photo with the body, as a sender sends it; returns the reply ("" when closed).
std::string put_photo(const std::string& jpeg, const std::string& extra = "",
                      size_t length = std::string::npos) {
    zt::Client c = zt::VideoSender::connect();
    c.send("PUT /photo HTTP/1.1\r\nContent-Length: " +
           std::to_string(length == std::string::npos ? jpeg.size() : length) + "\r\n" + extra +
           "\r\n" + jpeg);
    std::string reply = c.recv_message(10s);
    if (zt::status_code(reply) != 200) {
        EXPECT_TRUE(c.closed_by_peer());
    }
    return reply;
}

void write_fifo(const std::string& text) {
    int fd = ::open("/tmp/airplay_pipe", O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
}

TEST_F(Media, PhotosShowAndStop) {
    ASSERT_TRUE(box_.start());
    ASSERT_TRUE(sender_.open_reverse());
    std::string jpeg = "\xff\xd8\xff\xe0" + std::string(300000, '\x5a') + "\xff\xd9";
    jpeg[1000] = '\0';
    EXPECT_EQ(zt::status_code(put_photo(jpeg)), 200);
    EXPECT_TRUE(zt::read_file("/tmp/airplay_photo.jpg") == jpeg);
    EXPECT_EQ(zt::read_file("/tmp/airplay_photo.flg"), "\n");
    ASSERT_TRUE(box_.wait_command("insert_pod_queue"));
    EXPECT_EQ(zt::control_commands(box_).back().target,
              "/playback?arg0=insert_pod_queue&arg1=AirPlayPhoto&"
              "arg2=file:///tmp/airplay_photo.jpg&arg3=&arg4=rot0&arg5=show");

    // Cache-only: read and dropped; a body beyond 32 MiB: refused unread (500, then the
    // connection is closed).
    EXPECT_EQ(zt::status_code(put_photo("other", "X-Apple-Purpose: cacheOnly\r\n")), 200);
    EXPECT_EQ(zt::status_code(put_photo("", "", 40u << 20)), 500);
    EXPECT_TRUE(box_.wait_log("Failed to malloc"));
    EXPECT_TRUE(zt::read_file("/tmp/airplay_photo.jpg") == jpeg);
    EXPECT_EQ(zt::control_names(box_).size(), 1u);

    // "stop" in the FIFO, once the photo bit is set: a "stopped" event with category
    // photo; twice in a row, two events.
    std::this_thread::sleep_for(2500ms);  // the next poll sees the flag file
    write_fifo("stop\n");
    EXPECT_TRUE(sender_.wait_event("stopped"));
    EXPECT_NE(sender_.events().find("<string>photo</string>"), std::string::npos);
    sender_.clear_events();
    write_fifo("stop");
    EXPECT_TRUE(sender_.wait_event("stopped"));

    // POST /stop sends stop_pod and removes both files, also when the player is down.
    EXPECT_EQ(sender_.post("/stop"), 200);
    EXPECT_TRUE(box_.wait_command("stop_pod"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.jpg"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.flg"));
    EXPECT_EQ(zt::status_code(put_photo(jpeg)), 200);
    std::this_thread::sleep_for(2500ms);
    box_.sim("/sim/close?cmd=stop_pod");
    sender_.post("/stop");
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.jpg"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.flg"));
}

}  // namespace
