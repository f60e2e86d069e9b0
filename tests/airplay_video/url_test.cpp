// The URL encoding of the start command and the time text of the seek command.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "airplay/video/airplay_video_seek.h"
#include "airplay/video/airplay_video_url.h"

namespace {

std::string encode(const std::string& src, size_t size = 5034, bool* complete = nullptr) {
    std::string dst(size, 'Z');
    bool all = airplay_url_encode(src.c_str(), dst.data(), size);
    if (complete) *complete = all;
    EXPECT_LT(dst.find('\0'), size);
    return dst.substr(0, dst.find('\0'));
}

TEST(UrlEncode, EverythingButLettersAndDigitsIsEscaped) {
    EXPECT_EQ(encode("http://127.0.0.1:4000/proxy?url=http://h:80/a b+c_d-e%f.mp4"),
              "http%3A%2F%2F127%2E0%2E0%2E1%3A4000%2Fproxy%3Furl%3Dhttp%3A%2F%2Fh%3A80%2Fa+b%2Bc"
              "%5Fd%2De%25f%2Emp4");
    EXPECT_EQ(encode("\xe9\x7f"), "%E9%7F");
}

TEST(UrlEncode, PortSevenThousandProxyPrefixesPassVerbatim) {
    EXPECT_EQ(encode("x/http://127.0.0.1:7000/proxy?url=a:b"),
              "x%2Fhttp://127.0.0.1:7000/proxy?url=a%3Ab");
    EXPECT_EQ(encode("http://127.0.0.1:7000/proxy?useragent=Quicktime&url=a.b"),
              "http://127.0.0.1:7000/proxy?useragent=Quicktime&url=a%2Eb");
    // Almost the prefix is ordinary text.
    EXPECT_EQ(encode("http://127.0.0.1:7001/proxy?url="),
              "http%3A%2F%2F127%2E0%2E0%2E1%3A7001%2Fproxy%3Furl%3D");
}

TEST(UrlEncode, ATooSmallDestinationIsNeverOverrun) {
    bool complete = true;
    EXPECT_EQ(encode("abc", 4, &complete), "abc");
    EXPECT_TRUE(complete);
    EXPECT_EQ(encode("abcd", 4, &complete), "abc");
    EXPECT_FALSE(complete);
    EXPECT_EQ(encode("ab/", 5, &complete), "ab");  // "%2F" does not fit whole
    EXPECT_FALSE(complete);
    EXPECT_EQ(encode("ahttp://127.0.0.1:7000/proxy?url=", 32, &complete), "a");
    EXPECT_FALSE(complete);
    EXPECT_EQ(encode("", 1, &complete), "");
    EXPECT_TRUE(complete);
}

std::string time_text(int target) {
    char out[64];
    airplay_video_seek_time_text(target, out, sizeof(out));
    return out;
}

TEST(SeekTime, HoursMinutesSeconds) {
    EXPECT_EQ(time_text(3725), "01:02:05");
    EXPECT_EQ(time_text(75), "00:01:15");
    EXPECT_EQ(time_text(0), "00:00:00");
    EXPECT_EQ(time_text(-5), "00:00:00");
    EXPECT_EQ(time_text(360000 + 59), "100:00:59");
    EXPECT_EQ(time_text(2147483647), "596523:14:07");
}

TEST(SeekTime, NumbersTruncateTowardZeroWithinRange) {
    EXPECT_EQ(airplay_video_to_int(12.9), 12);
    EXPECT_EQ(airplay_video_to_int(-12.9), -12);
    EXPECT_EQ(airplay_video_to_int(0.5 + 0.5), 1);
    EXPECT_EQ(airplay_video_to_int(1e300), 2147483647);
    EXPECT_EQ(airplay_video_to_int(-1e300), -2147483647 - 1);
    EXPECT_EQ(airplay_video_to_int(std::nan("")), 0);
}

}  // namespace
