// Relay throughput of the proxy: a 256 MiB body fetched through the real daemon's port 4000
// versus fetched directly from the same media server, in the same run, and the daemon's
// CPU seconds per GiB relayed. Runs inside tests/sandbox.sh (the media server binds the
// sender's address): tests/sandbox.sh build/proxy_bench
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/media_server.h"
#include "support/support.h"

namespace {

constexpr long long kChunk = 1 << 20;
constexpr long long kRepeat = 256;  // 256 MiB
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

struct Setup {
    zt::MediaFileServer media;
    zt::Process daemon;
    bool ok = false;
    Setup() {
        std::string chunk(static_cast<size_t>(kChunk), '\0');
        for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 13);
        ok = media.start(chunk, "192.0.2.20", 8080, kRepeat) &&
             daemon.start({zt::build_dir() + "/zor_airplay"}, "/tmp/zor_bench.log") &&
             zt::wait_until([] { return zt::Client::connect("127.0.0.1", 4000, {}).ok(); });
    }
};

Setup& setup() {
    static Setup s;
    return s;
}

// The daemon's user + system CPU seconds so far.
double cpu_seconds(pid_t pid) {
    std::string stat = zt::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t end = stat.rfind(')');
    if (end == std::string::npos) return 0;
    unsigned long utime = 0, stime = 0;
    std::sscanf(stat.c_str() + end + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                &utime, &stime);
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Sends request and reads the response to its end; returns the body bytes.
long long fetch(const std::string& host, int port, const std::string& request) {
    zt::Client c = zt::Client::connect(host, port);
    if (!c.ok() || !c.send(request)) return -1;
    std::vector<char> buf(static_cast<size_t>(kChunk));
    std::string head;
    long long body = 0, want = -1;
    for (;;) {
        ssize_t n = ::recv(c.fd(), buf.data(), buf.size(), 0);
        if (n <= 0) break;
        if (want < 0) {
            head.append(buf.data(), static_cast<size_t>(n));
            size_t end = head.find("\r\n\r\n");
            if (end == std::string::npos) continue;
            want = std::atoll(zt::header_value(head, "Content-Length").c_str());
            body = static_cast<long long>(head.size() - end - 4);
        } else {
            body += n;
        }
        if (body >= want) break;
    }
    return body;
}

void run(benchmark::State& state, const std::string& host, int port, const std::string& req) {
    Setup& s = setup();
    if (!s.ok) {
        state.SkipWithError("media server or daemon did not start (run inside tests/sandbox.sh)");
        return;
    }
    long long total = 0;
    double cpu0 = cpu_seconds(s.daemon.pid());
    for (auto _ : state) {
        long long got = fetch(host, port, req);
        if (got != kChunk * kRepeat) {
            state.SkipWithError("short body");
            return;
        }
        total += got;
    }
    state.SetBytesProcessed(total);
    state.counters["daemon_cpu_s_per_GiB"] =
        (cpu_seconds(s.daemon.pid()) - cpu0) / (static_cast<double>(total) / kGiB);
}

void BM_Direct(benchmark::State& state) {
    run(state, "192.0.2.20", 8080, "GET /big.mp4 HTTP/1.1\r\nAccept: */*\r\n\r\n");
}
void BM_ThroughProxy(benchmark::State& state) {
    run(state, "127.0.0.1", 4000,
        "GET /proxy?url=http://192.0.2.20:8080/big.mp4 HTTP/1.1\r\nAccept: */*\r\n\r\n");
}

BENCHMARK(BM_Direct)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThroughProxy)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Direct)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThroughProxy)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
