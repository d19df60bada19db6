#pragma once

#include <QObject>
#include <functional>

class QSocketNotifier;

// SIGTERM and SIGINT ask for an orderly stop. The handler only writes a
// byte into a pipe; the event loop reads it and calls `onStop` on the main
// thread, where everything may be touched. Fatal signals are left to the
// logging library's crash report.
class StopSignals : public QObject
{
    Q_OBJECT
public:
    StopSignals(std::function<void(int signo)> onStop, QObject* parent);
    ~StopSignals() override;

private:
    static void handler(int signo);

    std::function<void(int)> onStop_;
    QSocketNotifier* notifier_ = nullptr;
    static int pipe_[2];
};
