#include "StopSignals.h"

#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

int StopSignals::pipe_[2] = {-1, -1};

StopSignals::StopSignals(std::function<void(int)> onStop, QObject* parent)
    : QObject(parent)
    , onStop_(std::move(onStop))
{
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    notifier_ = new QSocketNotifier(pipe_[0], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] {
        unsigned char signo = 0;
        if (read(pipe_[0], &signo, 1) == 1 && onStop_)
            onStop_(signo);
    });
    struct sigaction sa = {};
    sa.sa_handler = &StopSignals::handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

StopSignals::~StopSignals()
{
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

void StopSignals::handler(int signo)
{
    // Only async-signal-safe work here: one write, errno left as it was.
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signo);
    if (write(pipe_[1], &byte, 1) < 0) {
        // The pipe is full: a stop is already on its way.
    }
    errno = saved;
}
