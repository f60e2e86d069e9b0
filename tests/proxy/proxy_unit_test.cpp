// add_header_line and the proxy URL with its limits.
#include <gtest/gtest.h>

#include <cstring>

#include "proxy/proxy_request.h"

namespace {

std::string with_line(const std::string& block, const char* line) {
    char buf[kTextSize] = {};
    std::memcpy(buf, block.data(), std::min(block.size(), sizeof(buf) - 1));
    return add_header_line(buf, line);
}

TEST(AddHeaderLine, InsertsBeforeTheBlankLineWithinTheBuffer) {
    const std::string crlf = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
    EXPECT_EQ(with_line(crlf, "Accept: */*"), "GET / HTTP/1.1\r\nHost: a\r\nAccept: */*\r\n\r\n");
    // LF blocks get a CR LF blank line; what followed the blank line is overwritten.
    EXPECT_EQ(with_line("GET /\nA: a\n\nbody", "B: b"), "GET /\nA: a\nB: b\r\n\r\n");
    EXPECT_EQ(with_line("GET / HTTP/1.1\r\nHost: a", "B: b"), "GET / HTTP/1.1\r\nHost: a");
    EXPECT_EQ(with_line(crlf, ""), crlf);
    EXPECT_EQ(with_line("", "B: b"), "");
    // A full buffer cuts the line; a blank line too late for any leaves the block alone.
    std::string full = "GET / HTTP/1.1\r\nX: " + std::string(kTextSize - 30, 'x') + "\r\n\r\n";
    std::string out = with_line(full, std::string(100, 'L').c_str());
    EXPECT_EQ(out.size(), static_cast<size_t>(kTextSize - 1));
    EXPECT_TRUE(out.ends_with("x\r\nLLLL\r\n\r\n"));
    std::string late = std::string(kTextSize - 4, 'x') + "\n\n";
    EXPECT_EQ(with_line(late, "B: b"), late);
}

TEST(ProxyUrl, SplitsAndEnforcesLimits) {
    proxy_url url;
    std::string request;  // url's views point into it
    auto parse = [&](const std::string& rest) {
        request = "GET /proxy?url=http://" + rest + "\r\nHost: x:80/y\r\n\r\n";
        return proxy_parse_url(request, &url);
    };
    ASSERT_EQ(parse("media.example:8080/v/a.mp4?s=1 HTTP/1.1"), kProxyUrlOk);
    EXPECT_EQ(std::tuple(url.host, url.port, url.request_rest),
              std::tuple("media.example", 8080, "/v/a.mp4?s=1 HTTP/1.1"));
    EXPECT_EQ(parse(std::string(127, 'h') + ":65535/" + std::string(4095 - 5, 'p')), kProxyUrlOk);
    for (const std::string& bad : std::vector<std::string>{
             std::string(128, 'h') + ":80/a", "h:0/a", "h:65536/a", "h:000080/a", "h:8a/a",
             "h/a:80", "h: HTTP/1.1", "h:80/" + std::string(4095 - 4, 'p')})
        EXPECT_EQ(parse(bad), kProxyUrlBad) << bad.substr(0, 40);
    EXPECT_EQ(proxy_parse_url("GET /v/a.mp4 HTTP/1.1\r\n\r\n", &url), kProxyUrlAbsent);
}

}  // namespace
