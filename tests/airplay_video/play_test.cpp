// POST /play from a sender in the sandbox: the start command that player_sim receives for
// text and binary bodies, the events that follow, and the bodies the daemon must refuse
// or survive.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "airplay_video/bplist_bodies.h"
#include "airplay_video/video_sender.h"

namespace {

using zt::as_text;
using zt::load_bplist;

const std::string kUrl = "http://192.0.2.20:8080/media/movie one.mp4";
const std::string kEncodedUrl = "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fmedia%2Fmovie+one%2Emp4";
const std::string kEncodedProxy = "http%3A%2F%2F127%2E0%2E0%2E1%3A4000%2Fproxy%3Furl%3D";
const std::string kStart = "/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=";

class VideoPlay : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(media_.start());
        ASSERT_TRUE(box_.start());
        ASSERT_TRUE(sender_.new_session());
    }
    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }

    // The targets of the start commands player_sim has received.
    std::vector<std::string> starts() const {
        std::vector<std::string> out;
        for (const auto& c : box_.commands())
            if (c.name == "start_vod") out.push_back(c.target);
        return out;
    }
    // Waits for the n-th start command and returns its target.
    std::string nth_start(size_t n) {
        if (!box_.wait_command("start_vod", n)) return "(no start_vod #" + std::to_string(n) + ")";
        return starts().at(n - 1);
    }

    zt::MediaServer media_;
    zt::Box box_;
    zt::VideoSender sender_;
};

TEST_F(VideoPlay, BinaryBodyStartsTheBareUrl) {
    ASSERT_TRUE(sender_.open_reverse());
    std::string reply = sender_.play_binary(as_text(load_bplist("simple")));
    EXPECT_EQ(zt::status_code(reply), 200) << reply;
    EXPECT_EQ(nth_start(1), kStart + kEncodedUrl + "&arg3=show&arg4=00.250000");
    EXPECT_TRUE(box_.wait_log("s->content : " + kUrl));
    EXPECT_TRUE(sender_.wait_event("playing")) << box_.daemon_log();
    // Boolean options beside the location: a false one is no reason to refuse the body.
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_binary(as_text(load_bplist("with_false")))), 200);
    EXPECT_EQ(nth_start(2), kStart + kEncodedUrl + "&arg3=show&arg4=00.000000");
}

TEST_F(VideoPlay, BodiesAreReadWholeWhenTheyArriveAfterTheirHeader) {
    // 8.5 KB: more than the request reader takes in with the header block.
    EXPECT_EQ(zt::status_code(sender_.play_binary(as_text(load_bplist("large")), true)), 200);
    EXPECT_EQ(nth_start(1), kStart + kEncodedUrl + "&arg3=show&arg4=00.500000");

    ASSERT_TRUE(sender_.new_session());
    std::string text = "X-Padding: " + std::string(6000, 'x') +
                       "\nStart-Position: 0.75\nContent-Location: http://192.0.2.20:8080/b\n";
    EXPECT_EQ(zt::status_code(sender_.play("text/parameters", text, true)), 200);
    EXPECT_EQ(nth_start(2),
              kStart + kEncodedProxy +
                  "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fb&arg3=show&arg4=00.750000");
}

TEST_F(VideoPlay, TextBodyValuesAsWritten) {
    // Text bodies go through the proxy (the rest of the start command is seen elsewhere).
    // A CR before the LF stays part of the URL; a negative position starts at 0.
    sender_.play_text("Start-Position: -3\r\nContent-Location: http://192.0.2.20:8080/a.mp4\r\n");
    EXPECT_EQ(nth_start(1), kStart + kEncodedProxy +
                                "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fa%2Emp4%0D"
                                "&arg3=show&arg4=00.000000");
    // A location without a line feed runs to the end of the body.
    ASSERT_TRUE(sender_.new_session());
    sender_.play_text("Content-Location: http://192.0.2.20:8080/b.mp4");
    EXPECT_EQ(nth_start(2), kStart + kEncodedProxy +
                                "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fb%2Emp4"
                                "&arg3=show&arg4=00.000000");
    // Only a position: accepted, nothing is played.
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_text("Start-Position: 0.3\n")), 200);
    EXPECT_TRUE(box_.wait_log("fposition: 0.300000"));
    // A URL far longer than 256 bytes still travels whole.
    ASSERT_TRUE(sender_.new_session());
    std::string path(1500, 'p');
    sender_.play_text("Content-Location: http://192.0.2.20:8080/" + path + "\n");
    EXPECT_EQ(nth_start(3), kStart + kEncodedProxy + "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2F" +
                                path + "&arg3=show&arg4=00.000000");
    EXPECT_EQ(starts().size(), 3u);
}

TEST_F(VideoPlay, RefusedStartsAnswerWithAnErrorAndTheDaemonServesOn) {
    std::string location = "Content-Location: " + kUrl + "\n";
    // Neither body form.
    EXPECT_EQ(zt::status_code(sender_.play("application/octet-stream", "")), 500);
    // A body cut short by the sender.
    ASSERT_TRUE(sender_.new_session());
    sender_.play_head("text/parameters", location.size() + 50, location, false, true);
    EXPECT_TRUE(box_.wait_log("Invalid socket read"));
    ASSERT_TRUE(sender_.new_session());
    std::string binary = as_text(load_bplist("simple"));
    EXPECT_EQ(zt::status_code(sender_.play_head("application/x-apple-binary-plist",
                                                binary.size() + 50, binary, false, true)),
              500);
    // Too large to be a play request: refused before a byte of it is read (the sender
    // keeps its side open, so a read would wait).
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_head("text/parameters", 70000, "", false, false)), 500);
    // A URL whose encoding cannot fit the start command.
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(
                  sender_.play_text("Content-Location: http://h/" + std::string(2000, '/') + "\n")),
              500);
    EXPECT_TRUE(box_.wait_log("does not fit the start command"));
    // The player refuses the start.
    ASSERT_TRUE(sender_.new_session());
    box_.sim("/sim/refuse?cmd=start_vod&count=1");
    EXPECT_EQ(zt::status_code(sender_.play_binary(binary)), 500);
    EXPECT_EQ(starts().size(), 1u);
    EXPECT_TRUE(sender_.serving());
    // The next start goes through.
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_binary(binary)), 200);
    EXPECT_EQ(nth_start(2), kStart + kEncodedUrl + "&arg3=show&arg4=00.250000");
}

TEST_F(VideoPlay, BrokenBinaryBodiesPlayNothingAndTheDaemonServesOn) {
    for (const zt::BrokenBody& b : zt::broken_bodies()) {
        SCOPED_TRACE(b.what);
        ASSERT_TRUE(sender_.new_session());
        EXPECT_EQ(zt::status_code(sender_.play_binary(as_text(b.body))), 200);
        EXPECT_TRUE(sender_.serving());
    }
    // Found nowhere a dictionary reaches, or not usable: nothing to play either.
    for (const char* name : {"in_array", "utf16_other", "short_key", "no_location"}) {
        ASSERT_TRUE(sender_.new_session());
        EXPECT_EQ(zt::status_code(sender_.play_binary(as_text(load_bplist(name)))), 200) << name;
    }
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_binary("")), 200);
    EXPECT_TRUE(starts().empty());
    EXPECT_TRUE(box_.wait_log("malformed body (nesting deeper than 32)"));

    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(zt::status_code(sender_.play_binary(as_text(load_bplist("utf16_ascii")))), 200);
    EXPECT_EQ(nth_start(1),
              kStart + "http%3A%2F%2F192%2E0%2E2%2E20%2FA%2Emp4&arg3=show&arg4=00.000000");
}

}  // namespace
