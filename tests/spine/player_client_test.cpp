// The player client against stand-ins for the player that answer, refuse, close or fall silent.
#include "tools/utils/player_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "support/support.h"

namespace {

// Accepts one connection, keeps the request it got, sends `reply` and, if `hang`, stays
// silent until destroyed; otherwise closes.
struct FakeService {
    int listen_fd = zt::listen_on("127.0.0.1", 8008);
    std::atomic<bool> connected{false}, done{false};
    std::string received;
    std::thread thread;
    FakeService(const std::string& reply, bool hang)
        : thread([this, reply, hang] {
              zt::Client c(zt::accept_one(listen_fd, std::chrono::seconds(15)));
              if (!(connected = c.ok())) return;
              received = c.recv_message(std::chrono::seconds(5));
              c.send(reply);
              if (hang) zt::wait_until([&] { return done.load(); }, std::chrono::seconds(20));
          }) {}
    ~FakeService() {
        done = true, ::shutdown(listen_fd, SHUT_RDWR), thread.join(), ::close(listen_fd);
    }
};

// Sends url through a fresh exchange; the exchange's reply record in *x.
int send(const std::string& url, std::unique_ptr<net_exchange>* x) {
    *x = std::make_unique<net_exchange>();
    net_exchange_clear(x->get());
    std::snprintf((*x)->player_request.body, sizeof((*x)->player_request.body), "%s", url.c_str());
    return cs_request_with_response(&(*x)->player_request, x->get());
}
const std::string kStop = "http://127.0.0.1:8008/playback?arg0=stop_vod";

TEST(PlayerClient, JudgesEveryKindOfReplyGivesUpOnSilenceAndRefusesMalformedUrls) {
    std::unique_ptr<net_exchange> x;
    EXPECT_EQ(send(kStop, &x), -1);  // nobody listens
    EXPECT_FALSE(player_command_ok(x.get()));
    {
        FakeService service("", false);
        for (const char* url :
             {"", "http://127.0.0.1/x", "127.0.0.1:8008/x", "http://127.0.0.1:8008"})
            EXPECT_EQ(send(url, &x), -1) << url;
        EXPECT_FALSE(service.connected);
    }
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0</returnValue>";
    const std::string start = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0<";
    // A reply, whether silence follows it, the length of it the client keeps, the verdict.
    const std::tuple<std::string, bool, int, bool> cases[] = {
        {ok, false, int(ok.size()), true},
        {"HTTP/1.1 200 OK\r\n\r\n<returnValue>-1</returnValue>", false, 48, false},  // refused
        {"", false, 0, false},                                                     // closed at once
        {start + std::string(5119 - start.size(), 'p'), false, 5119, true},
        {start + std::string(6000, 'p'), false, 5119, true},  // cut at 5119 bytes
        {start, true, 0, false},                              // a start, then silence
    };
    for (const auto& [reply, hang, length, verdict] : cases) {
        FakeService service(reply, hang);
        EXPECT_EQ(send(kStop, &x), 0) << reply.size();
        EXPECT_EQ(x->player_reply.content_length, length) << reply.size();
        EXPECT_EQ(std::string(x->player_reply.body), reply.substr(0, size_t(length)));
        EXPECT_EQ(player_command_ok(x.get()), verdict) << reply.size();
        if (reply == ok) {  // the request, byte for byte
            EXPECT_EQ(service.received,
                      "GET /playback?arg0=stop_vod HTTP/1.1\r\nUser-Agent: Wget/1.11.2\r\n"
                      "Accept: */*\r\nHost: 127.0.0.1:8008\r\nConnection: Keep-Alive\r\n\r\n");
        }
    }
}

}  // namespace
