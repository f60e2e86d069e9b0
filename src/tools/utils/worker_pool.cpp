#include "tools/utils/worker_pool.h"

#include <system_error>

worker_pool::~worker_pool() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;  // jobs not begun are dropped; running ones end by themselves
        jobs_.clear();
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
}

void worker_pool::submit(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        jobs_.push_back(std::move(job));
        if (idle_ < static_cast<int>(jobs_.size()) &&
            static_cast<int>(threads_.size()) < max_threads_) {
            try {
                threads_.emplace_back(&worker_pool::work, this);
            } catch (const std::system_error&) {
                // Out of threads: the ones there are take the job in turn.
            }
        }
        if (!threads_.empty()) {
            wake_.notify_one();
            return;
        }
        job = std::move(jobs_.back());
        jobs_.pop_back();
    }
    job();
}

void worker_pool::work() {
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        ++idle_;
        wake_.wait(hold, [this] { return stopping_ || !jobs_.empty(); });
        --idle_;
        if (stopping_) return;
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        hold.unlock();
        job();
        hold.lock();
    }
}
