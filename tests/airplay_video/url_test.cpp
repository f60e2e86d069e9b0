// The URL encoding of the start command.
#include <gtest/gtest.h>

#include <string>

#include "airplay/video/airplay_video_url.h"

namespace {

TEST(UrlEncode, Table) {
    const std::string proxy7000 = "http://127.0.0.1:7000/proxy?";
    const struct {
        std::string src;
        size_t size;
        std::string encoded;
        bool complete;
    } cases[] = {
        // Everything but letters and digits is escaped, a blank as "+".
        {"http://127.0.0.1:4000/proxy?url=http://h:80/a b+c_d-e%F@[`{.mp4", 5034,
         "http%3A%2F%2F127%2E0%2E0%2E1%3A4000%2Fproxy%3Furl%3Dhttp%3A%2F%2Fh%3A80%2Fa+b%2Bc"
         "%5Fd%2De%25F%40%5B%60%7B%2Emp4",
         true},
        {"\xe9\x7f", 5034, "%E9%7F", true},
        // Port 7000's proxy prefixes pass verbatim; almost the prefix is ordinary text.
        {"x/" + proxy7000 + "url=a:b", 5034, "x%2F" + proxy7000 + "url=a%3Ab", true},
        {proxy7000 + "useragent=Quicktime&url=a.b", 5034,
         proxy7000 + "useragent=Quicktime&url=a%2Eb", true},
        {"http://127.0.0.1:7001/proxy?url=", 5034,
         "http%3A%2F%2F127%2E0%2E0%2E1%3A7001%2Fproxy%3Furl%3D", true},
        // A too small destination is never overrun, and escapes are never cut.
        {"abc", 4, "abc", true},
        {"abcd", 4, "abc", false},
        {"ab/", 5, "ab", false},
        {"a" + proxy7000 + "url=", 32, "a", false},
        {"", 1, "", true},
    };
    for (const auto& c : cases) {
        std::string dst(c.size, 'Z');
        EXPECT_EQ(airplay_url_encode(c.src.c_str(), dst.data(), c.size), c.complete) << c.src;
        ASSERT_LT(dst.find('\0'), c.size) << c.src;
        EXPECT_EQ(dst.substr(0, dst.find('\0')), c.encoded);
    }
}

}  // namespace
