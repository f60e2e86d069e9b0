// The player client against stand-ins for the control service on 127.0.0.1:8008 that answer,
// refuse, close, ramble on or fall silent.
#include "tools/utils/player_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "support/support.h"

namespace {

// Accepts one connection, keeps the request it got, sends `reply` and, if `hang`, stays
// silent until destroyed; otherwise closes.
class FakeService {
   public:
    explicit FakeService(std::string reply, bool hang = false) {
        listen_fd_ = zt::listen_on("127.0.0.1", 8008);
        thread_ = std::thread([this, reply, hang] {
            zt::Client c(zt::accept_one(listen_fd_, std::chrono::seconds(15)));
            if (!c.ok()) return;
            connected = true;
            received = c.recv_message(std::chrono::seconds(5));
            c.send(reply);
            if (hang) zt::wait_until([&] { return done.load(); }, std::chrono::seconds(20));
        });
    }
    ~FakeService() {
        done = true;
        ::shutdown(listen_fd_, SHUT_RDWR);
        thread_.join();
        ::close(listen_fd_);
    }
    std::atomic<bool> connected{false}, done{false};
    std::string received;

   private:
    int listen_fd_ = -1;
    std::thread thread_;
};

struct Exchange {
    std::unique_ptr<net_exchange> x = std::make_unique<net_exchange>();
    Exchange() { net_exchange_clear(x.get()); }
    int send(const std::string& url = "http://127.0.0.1:8008/playback?arg0=stop_vod") {
        std::snprintf(x->player_request.body, sizeof(x->player_request.body), "%s", url.c_str());
        return cs_request_with_response(&x->player_request, x.get());
    }
};

TEST(PlayerClient, JudgesEveryKindOfReply) {
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0</returnValue>";
    const std::string no = "HTTP/1.1 200 OK\r\n\r\n<returnValue>-1</returnValue>";
    const std::string start = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0<";
    struct Case {
        std::string reply;
        bool hang;
        int length;  // the reply length the client keeps
        bool ok;
    } cases[] = {
        {ok, false, int(ok.size()), true},
        {no, false, int(no.size()), false},                   // refused
        {"", false, 0, false},                                 // closed without a word
        {start + std::string(5119 - start.size(), 'p'), false, 5119, true},
        {start + std::string(6000, 'p'), false, 5119, true},  // cut at 5119 bytes
        {start, true, 0, false},                              // a start, then silence
    };
    for (const Case& c : cases) {
        Exchange e;
        FakeService service(c.reply, c.hang);
        EXPECT_EQ(e.send(), 0) << c.reply.size();
        EXPECT_EQ(e.x->player_reply.content_length, c.length) << c.reply.size();
        EXPECT_EQ(std::string(e.x->player_reply.body), c.reply.substr(0, size_t(c.length)));
        EXPECT_EQ(player_command_ok(e.x.get()), c.ok) << c.reply.size();
        service.done = true;
        if (c.reply == ok) {  // the request, byte for byte
            EXPECT_EQ(service.received,
                      "GET /playback?arg0=stop_vod HTTP/1.1\r\nUser-Agent: Wget/1.11.2\r\n"
                      "Accept: */*\r\nHost: 127.0.0.1:8008\r\nConnection: Keep-Alive\r\n\r\n");
        }
    }
}

TEST(PlayerClient, MalformedUrlsAndAServiceDownFailWithMinusOne) {
    Exchange down;
    EXPECT_EQ(down.send(), -1);
    EXPECT_FALSE(player_command_ok(down.x.get()));
    FakeService service("");
    for (const char* url : {"", "http://127.0.0.1/playback?arg0=stop_vod", "127.0.0.1:8008/x",
                            "http://127.0.0.1:8008"}) {
        Exchange e;
        std::strcpy(e.x->player_reply.body, "untouched");
        EXPECT_EQ(e.send(url), -1) << url;
        EXPECT_STREQ(e.x->player_reply.body, "untouched") << url;
    }
    EXPECT_FALSE(service.connected);
}

}  // namespace
