// The proxy on port 4000 against a media server of the test's own: the upstream request of
// each case byte for byte, the relayed bytes, the refusals, and a stalled player connection
// that must not hold up the next one.
#include <gtest/gtest.h>

#include "support/box.h"
#include "support/media_server.h"

namespace {

using namespace std::literals;

const std::string kProxy = "GET /proxy?url=http://192.0.2.20:8080";

zt::Client player(int rcvbuf = 1 << 20) {
    return zt::connect_from("127.0.0.1", "127.0.0.1", 4000, rcvbuf);
}

TEST(Proxy, ByteForByteUpstreamRefusalsAndAStalledConnection) {
    std::string file(3 << 20, '\0');  // differs along its length: a shifted or repeated chunk shows
    for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<char>(i * 7 + i / 65521);
    zt::MediaFileServer media;
    zt::Box box;
    ASSERT_TRUE(media.start(file) && box.start());
    zt::Client first = player(), second = player();
    // Each request on its connection: the body relayed from offset on, and what the server got
    // (the whole request, or its start for the last two).
    const std::tuple<zt::Client&, std::string, size_t, std::string> cases[] = {
        {first, kProxy + "/v/a.mp4?sig=x%2By HTTP/1.1\r\nAccept: */*\r\n\r\n", 0,
         "GET /v/a.mp4?sig=x%2By HTTP/1.1\r\nAccept: */*\r\nUser-Agent: Wget/1.11.4\r\n"
         "Host: 192.0.2.20:8080\r\nConnection: Keep-Alive\r\n\r\n"},
        // HEAD: a GET of the remembered line with the player's User-Agent; the whole response.
        {second, "HEAD /proxy?url=http://h:1/x HTTP/1.1\r\nUser-Agent: Box/2\r\n\r\n", 0,
         "GET /v/a.mp4?sig=x%2By HTTP/1.1\r\nHost: 192.0.2.20:8080\r\nUser-Agent: Box/2\r\n\r\n"},
        // Range, on the first connection again, whatever URL it names: HEAD's User-Agent kept.
        {first, kProxy + "/x HTTP/1.1\r\nAccept: */*\r\nRange: bytes=1000-\r\n\r\n", 1000,
         "GET /v/a.mp4?sig=x%2By HTTP/1.1\r\nHost: 192.0.2.20:8080\r\nUser-Agent: Box/2\r\n"
         "Range: bytes=1000-\r\n\r\n"},
        // Anything else goes to the remembered server unchanged, body bytes included.
        {first, "POST /note HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", 0,
         "POST /note HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"},
        // "airplay" anywhere stands for the Accept line: a new target is learnt. A request line
        // of 3000 characters (a signed URL) goes out whole.
        {first, kProxy + "/b.mp4 HTTP/1.1\r\nUser-Agent: CoreMedia airplay\r\n\r\n", 0,
         "GET /b.mp4 HTTP/1.1\r\nAccept: */*\r\n"},
        {first,
         kProxy + "/s.mp4?sig=" + std::string(3000, 'q') + " HTTP/1.1\r\nAccept: */*\r\n\r\n", 0,
         "GET /s.mp4?sig=" + std::string(3000, 'q') + " HTTP/1.1\r\n"},
    };
    size_t n = 0;
    for (const auto& [c, request, offset, upstream] : cases) {
        const std::string row = request.substr(0, 60);
        c.send(request);
        EXPECT_TRUE(zt::body_of(c.recv_message(10s)) == file.substr(offset)) << row;
        EXPECT_EQ(media.wait_request(++n).substr(0, upstream.size()), upstream) << row;
    }
    // Refusals: a peer from outside, and targets that are no media server.
    EXPECT_TRUE(zt::connect_from("192.0.2.20", "192.0.2.10", 4000).closed_by_peer());
    EXPECT_TRUE(box.wait_log("peer not allowed here"));
    for (const std::string& target :
         {"127.0.0.1:8008/playback?arg0=stop_vod"s, "0.0.0.0:8080/a"s, "no-such-host.invalid:80/a"s,
          "192.0.2.20:8080/" + std::string(4100, 'l'), "192.0.2.20:99999/a"s}) {
        auto p = player();
        p.send("GET /proxy?url=http://" + target + " HTTP/1.1\r\nAccept: */*\r\n\r\n");
        EXPECT_EQ(p.recv_all(10s), "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
    }
    EXPECT_EQ(media.wait_request(n + 1, 0ms), "");
    // No Content-Length: nothing relayed, and the connection stays.
    zt::Client p = player();
    p.send(kProxy + "/nolength.mp4 HTTP/1.1\r\nAccept: */*\r\n\r\n");
    EXPECT_FALSE(media.wait_request(n + 1).empty());
    EXPECT_FALSE(p.closed_by_peer(1500ms));

    // A stalled player connection.
    zt::MediaFileServer large;
    ASSERT_TRUE(large.start(file, "192.0.2.20", 8081, 3));
    const std::string big = "GET /proxy?url=http://192.0.2.20:8081/big.mp4 HTTP/1.1\r\n";
    zt::Client stalled = player(4096);
    stalled.send(big + "Accept: */*\r\n\r\n");
    ASSERT_FALSE(large.wait_request(1).empty());
    std::this_thread::sleep_for(500ms);  // its relay fills the buffers and waits
    zt::Client seek = player();
    seek.send(big + "Range: bytes=100-\r\n\r\n");  // answered well within the stalled relay's 10 s
    EXPECT_EQ(zt::body_of(seek.recv_message(8s)).size(), 3 * file.size() - 100);
    EXPECT_TRUE(box.wait_log("relay to socket", 20s));  // cut off by the send time-out
}

}  // namespace
