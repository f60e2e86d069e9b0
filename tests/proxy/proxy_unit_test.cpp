// add_header_line and the proxy URL with its limits.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "proxy/proxy_request.h"

namespace {

std::string with_line(const std::string& block, const char* line) {
    char buf[kTextSize] = {};
    std::memcpy(buf, block.data(), std::min(block.size(), sizeof(buf) - 1));
    return add_header_line(buf, line);
}

TEST(AddHeaderLine, InsertsBeforeTheBlankLine) {
    struct Case {
        std::string block, line, expect;
    } cases[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", "Accept: */*",
         "GET / HTTP/1.1\r\nHost: a\r\nAccept: */*\r\n\r\n"},
        // LF blocks get a CR LF blank line; what followed the blank line is overwritten.
        {"GET / HTTP/1.1\nHost: a\n\nbody bytes", "Accept: */*",
         "GET / HTTP/1.1\nHost: a\nAccept: */*\r\n\r\n"},
        {"GET / HTTP/1.1\r\nHost: a", "Accept: */*", "GET / HTTP/1.1\r\nHost: a"},
        {"GET / HTTP/1.1\r\n\r\n", "", "GET / HTTP/1.1\r\n\r\n"},
        {"", "Accept: */*", ""},
    };
    for (const Case& c : cases) EXPECT_EQ(with_line(c.block, c.line.c_str()), c.expect) << c.block;
}

TEST(AddHeaderLine, AFullBufferCutsTheLine) {
    std::string block = "GET / HTTP/1.1\r\nX: " + std::string(kTextSize - 30, 'x') + "\r\n\r\n";
    std::string out = with_line(block, std::string(100, 'L').c_str());
    EXPECT_EQ(out.size(), static_cast<size_t>(kTextSize - 1));
    EXPECT_TRUE(out.ends_with("LL\r\n\r\n"));
    // A blank line that starts beyond the last place a line fits is left alone.
    std::string late = std::string(kTextSize - 4, 'x') + "\n\n";
    EXPECT_EQ(with_line(late, "Accept: */*"), late.substr(0, kTextSize - 1));
}

TEST(ProxyUrl, SplitsAndEnforcesLimits) {
    const std::string prefix = "GET /proxy?url=http://";
    struct Case {
        std::string line;
        proxy_url_result result;
        std::string host = {};
        int port = 0;
        std::string rest = {};
    } cases[] = {
        {"media.example:8080/v/a.mp4?sig=1 HTTP/1.1", kProxyUrlOk, "media.example", 8080,
         "/v/a.mp4?sig=1 HTTP/1.1"},
        {std::string(127, 'h') + ":65535/a HTTP/1.1", kProxyUrlOk, std::string(127, 'h'), 65535,
         "/a HTTP/1.1"},
        {std::string(128, 'h') + ":80/a HTTP/1.1", kProxyUrlBad},
        {"h:0/a HTTP/1.1", kProxyUrlBad},
        {"h:65536/a HTTP/1.1", kProxyUrlBad},
        {"h:000080/a HTTP/1.1", kProxyUrlBad},
        {"h:8a/a HTTP/1.1", kProxyUrlBad},
        {"h/a:80 HTTP/1.1", kProxyUrlBad},  // no port before the path
        {"h: HTTP/1.1\r\nHost: x:80/", kProxyUrlBad},  // the port is never taken from a later line
        {"h:80/" + std::string(4095 - 5, 'p'), kProxyUrlOk, "h", 80, "/" + std::string(4090, 'p')},
        {"h:80/" + std::string(4095 - 4, 'p'), kProxyUrlBad},
    };
    for (const Case& c : cases) {
        proxy_url url;
        std::string head = prefix + c.line + "\r\nAccept: */*\r\n\r\n";
        ASSERT_EQ(proxy_parse_url(head, &url), c.result) << c.line.substr(0, 60);
        if (c.result != kProxyUrlOk) continue;
        EXPECT_EQ(url.host, c.host);
        EXPECT_EQ(url.port, c.port);
        EXPECT_EQ(url.request_rest, c.rest);
    }
    proxy_url url;
    EXPECT_EQ(proxy_parse_url("GET /v/a.mp4 HTTP/1.1\r\n\r\n", &url), kProxyUrlAbsent);
}

}  // namespace
