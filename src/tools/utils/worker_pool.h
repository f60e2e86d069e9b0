// A small pool of threads for work that may block for long (a proxy relay) and must not
// hold up the thread that hands it out.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class worker_pool {
   public:
    // At most max_threads jobs run at once; threads are started as jobs need them.
    explicit worker_pool(int max_threads) : max_threads_(max_threads) {}
    ~worker_pool();
    worker_pool(const worker_pool&) = delete;
    worker_pool& operator=(const worker_pool&) = delete;

    // Runs job on a worker, in the order of submission; while every worker is busy it
    // waits its turn. When no worker can be started at all it runs on the caller's thread.
    void submit(std::function<void()> job);

   private:
    void work();

    const int max_threads_;
    std::mutex lock_;  // guards the fields below
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    int idle_ = 0;
    bool stopping_ = false;
};
