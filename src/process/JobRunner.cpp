#include "JobRunner.h"

JobRunner::~JobRunner()
{
    {
        std::lock_guard<std::mutex> g(m_);
        quit_ = true;
    }
    cv_.notify_all();
    if (worker_.joinable())
        worker_.join();
}

void JobRunner::stop()
{
    {
        std::lock_guard<std::mutex> g(m_);
        stopped_ = true;
        quit_ = true;
        jobs_.clear();
    }
    cv_.notify_all();
    if (worker_.joinable())
        worker_.join();
}

void JobRunner::finish()
{
    {
        std::lock_guard<std::mutex> g(m_);
        stopped_ = true;
        quit_ = true;
    }
    cv_.notify_all();
    if (worker_.joinable())
        worker_.join();
}

void JobRunner::post(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> g(m_);
        if (stopped_)
            return;
        jobs_.push_back(std::move(job));
        if (!worker_.joinable())
            worker_ = std::thread(&JobRunner::loop, this);
    }
    cv_.notify_one();
}

void JobRunner::loop()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> g(m_);
            cv_.wait(g, [this] { return quit_ || !jobs_.empty(); });
            if (jobs_.empty())
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}
