// The sender's media end to end: a text-form video that player_sim fetches through the
// proxy, and photos shown through the player and ended from the FIFO.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/airplay_sender.h"
#include "support/media_server.h"

namespace {

using namespace std::literals;
const char kPhoto[] = "/tmp/airplay_photo.jpg", kFlag[] = "/tmp/airplay_photo.flg";

TEST(Media, TextFormVideoPlaysThroughTheProxy) {
    zt::MediaFileServer media;
    zt::Box box;
    zt::VideoSender sender;
    ASSERT_TRUE(media.start(std::string(2 << 20, 'm')));
    ASSERT_TRUE(box.start() && sender.new_session() && sender.open_reverse());
    media.hold(true);  // the player buffers until the first bytes come
    const std::string location = "Content-Location: http://192.0.2.20:8080/m.mp4\n";
    EXPECT_EQ(zt::status_code(sender.play("text/parameters", location)), 200);
    EXPECT_TRUE(media.wait_request(1).starts_with("GET /m.mp4 HTTP/1.1\r\nAccept: */*\r\n"));
    EXPECT_TRUE(sender.wait_event("loading"));
    media.hold(false);
    EXPECT_TRUE(sender.wait_event("playing"));
    EXPECT_NE(media.wait_request(2).find("User-Agent: ZorBoxPlayer/1.0\r\n"), std::string::npos);
    // A scrub to 60 s of the 120 s video: a Range fetch from the middle of the file.
    EXPECT_EQ(sender.post("/scrub?position=60"), 200);
    EXPECT_NE(media.wait_request(3, 15s).find("Range: bytes=1048576-\r\n"), std::string::npos);
}

// A PUT /photo's status; a failed one must also close the connection.
int put_photo(const std::string& jpeg, const std::string& extra = "", size_t length = 0) {
    zt::Client c = zt::VideoSender::connect();
    c.send("PUT /photo HTTP/1.1\r\nContent-Length: " +
           std::to_string(length ? length : jpeg.size()) + "\r\n" + extra + "\r\n" + jpeg);
    int status = zt::status_code(c.recv_message(10s));
    EXPECT_TRUE(status == 200 || c.closed_by_peer());
    return status;
}

TEST(Media, PhotosShowAndStop) {
    zt::Box box;
    zt::VideoSender sender;
    ASSERT_TRUE(box.start() && sender.open_reverse());
    std::string jpeg = "\xff\xd8\xff\xe0\0\x10JFIF\0"s + std::string(300000, 'Z') + "\xff\xd9";
    EXPECT_EQ(put_photo(jpeg), 200);
    EXPECT_TRUE(zt::read_file(kPhoto) == jpeg);
    EXPECT_EQ(zt::read_file(kFlag), "\n");
    ASSERT_TRUE(box.wait_command("insert_pod_queue"));
    EXPECT_EQ(box.targets("insert_pod_queue"),
              std::vector<std::string>{"/playback?arg0=insert_pod_queue&arg1=AirPlayPhoto&arg2="
                                       "file:///tmp/airplay_photo.jpg&arg3=&arg4=rot0&arg5=show"});
    // Cache-only: read and dropped. Beyond 32 MiB: refused unread (500, connection closed).
    EXPECT_EQ(put_photo("other", "X-Apple-Purpose: cacheOnly\r\n"), 200);
    EXPECT_EQ(put_photo("", "", 40u << 20), 500);
    EXPECT_TRUE(box.wait_log("Failed to malloc"));
    EXPECT_TRUE(zt::read_file(kPhoto) == jpeg);
    EXPECT_EQ(box.commands().size() - box.count("get_current_vod_info"), 1u);  // nothing else
    // "stop" in the FIFO once the photo bit is set: "stopped", category photo; twice, twice.
    std::this_thread::sleep_for(2500ms);
    for (const std::string stop : {"stop\n", "stop"}) {
        sender.events.clear();
        int fd = ::open("/tmp/airplay_pipe", O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(::write(fd, stop.data(), stop.size()), static_cast<ssize_t>(stop.size()));
        ::close(fd);
        EXPECT_TRUE(sender.wait_event("stopped")) << stop;
        EXPECT_NE(sender.events.find("<string>photo</string>"), std::string::npos) << stop;
    }
    // POST /stop: stop_pod, and both files go, also when the player does not answer.
    auto gone = [] { return !zt::file_exists(kPhoto) && !zt::file_exists(kFlag); };
    EXPECT_EQ(sender.post("/stop"), 200);
    EXPECT_TRUE(box.wait_command("stop_pod") && gone());
    EXPECT_EQ(put_photo(jpeg), 200);
    std::this_thread::sleep_for(2500ms);
    box.sim("/sim/close?cmd=stop_pod");
    EXPECT_EQ(sender.post("/stop"), 500);
    EXPECT_TRUE(gone());
}

}  // namespace
