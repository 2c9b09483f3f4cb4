#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "ProcessState.h"

namespace qel::test {

/// True if the result of a started task is there.
template <typename Result>
bool IsReady(const std::future<Result>& result) {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// A thread that does what it is told, one thing after the other: for what has to be done by a
/// certain thread at a certain time.
class Worker {
public:
    Worker() : thread_([this] { Work(); }) {
        threadId_ = Do([] { return ThisThread(); });
    }
    ~Worker() {
        Give({});
        thread_.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Has `task` done without waiting for it.
    template <typename Task>
    auto Start(Task task) -> std::future<decltype(task())> {
        using Result = decltype(task());
        auto job = std::make_shared<std::packaged_task<Result()>>(std::move(task));
        auto result = job->get_future();
        Give([job] { (*job)(); });
        return result;
    }
    /// Has `task` done; returns what it returns and throws what it throws.
    template <typename Task>
    auto Do(Task task) -> decltype(task()) {
        return Start(std::move(task)).get();
    }

    /// Has `task`, which takes a lock that is not free, begun. Returns when the thread waits in the
    /// system call `number`, see AwaitBlocked, or when the task is done, not having had to wait.
    template <typename Task>
    auto StartBlocked(Task task, long number) -> std::future<decltype(task())> {
        auto begun = std::make_shared<std::promise<void>>();
        auto result = Start([begun, task] {
            begun->set_value();
            return task();
        });
        begun->get_future().wait();
        while (!IsReady(result) && !IsBlocked(::getpid(), threadId_, number)) {
            ::sched_yield();
        }
        return result;
    }

    [[nodiscard]] pid_t Thread() const { return threadId_; }

private:
    void Give(std::function<void()> job) {
        const std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
        given_.notify_one();
    }
    void Work() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            given_.wait(lock, [this] { return !jobs_.empty(); });
            done_.push_back(std::move(jobs_.front()));
            jobs_.pop_front();
            lock.unlock();
            if (!done_.back()) {
                return;
            }
            done_.back()();
        }
    }

    std::mutex mutex_;
    std::condition_variable given_;
    std::deque<std::function<void()>> jobs_;
    // Kept to the end, by this thread alone: an exception that another thread looks at would else
    // be freed here, and the race detector does not see how the C++ library counts its users.
    std::deque<std::function<void()>> done_;
    pid_t threadId_ = 0;
    std::thread thread_;
};

}  // namespace qel::test
