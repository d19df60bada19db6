#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// A single worker thread that runs posted jobs in order: for work that may
// block (running shell commands) and so must stay off the event loop.
class JobRunner
{
public:
    JobRunner() = default;
    ~JobRunner();
    JobRunner(const JobRunner&) = delete;
    JobRunner& operator=(const JobRunner&) = delete;

    void post(std::function<void()> job);
    // Drops the jobs not started yet, waits for the one running, and takes
    // no more.
    void stop();
    // Runs every job posted so far, then ends; takes no more. (The
    // destructor does the same.)
    void finish();

private:
    void loop();

    std::mutex m_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_;
    bool quit_ = false;
    bool stopped_ = false;
    std::thread worker_;
};
