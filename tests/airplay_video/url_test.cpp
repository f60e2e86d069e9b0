// The URL encoding of the start command.
#include <gtest/gtest.h>

#include <string>

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

}  // namespace
