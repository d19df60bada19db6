#include "ServiceNotify.h"

#include <QMetaObject>
#include <QTimer>
#include <cstdlib>
#include <systemd/sd-daemon.h>

#include <glog/logging.h>

#include "NetWorkConsole.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "QEL_FailStore.h"
#include "QEL_ItemVideo.h"
#include "MuxThread.h"

namespace {

// 1204 -> "1 204": read at a glance in `systemctl status`.
QString grouped(qint64 n)
{
    QString digits = QString::number(n);
    for (int at = digits.size() - 3; at > 0; at -= 3)
        digits.insert(at, ' ');
    return digits;
}

void notify(const QString& state)
{
    sd_notify(0, state.toUtf8().constData());
}

}  // namespace

void ServiceNotify::attach(NetWorkConsole* console, QObject* parent)
{
    if (getenv("NOTIFY_SOCKET") == nullptr)
        return;
    new ServiceNotify(console, parent);
}

void ServiceNotify::stopping()
{
    sd_notify(0, "STOPPING=1\nSTATUS=stopping: every request not yet answered is kept for the next start");
}

ServiceNotify::ServiceNotify(NetWorkConsole* console, QObject* parent)
    : QObject(parent)
    , console_(console)
{
    for (QEL_BaseSocket* socket : {static_cast<QEL_BaseSocket*>(console->socketInfo),
                                   static_cast<QEL_BaseSocket*>(console->socketFile)})
        connect(socket, &QEL_BaseSocket::sigReply, this, [this] { lastAnswer_.start(); });

    // Ready once the history has been read (or could not be, for now):
    // storage trouble is reported in the status line, never waited out, or
    // systemd would restart an agent whose only fault is a full disk.
    console->failStore->whenLoadTried(
        [this] { QMetaObject::invokeMethod(this, [this] { ready(); }, Qt::QueuedConnection); });

    // The ping comes from this thread's event loop: a main thread that stops
    // turning stops the pings, and systemd ends the agent.
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) > 0 && usec > 0) {
        auto* watchdog = new QTimer(this);
        connect(watchdog, &QTimer::timeout, this, [] { sd_notify(0, "WATCHDOG=1"); });
        watchdog->start(static_cast<int>(qMax<uint64_t>(1, usec / 2000)));
        LOG(INFO) << "systemd:" << "(watchdog every " << usec / 2000 << " ms)";
    }
}

void ServiceNotify::ready()
{
    // Logged first: whoever sees the service active finds the line.
    LOG(INFO) << "systemd:" << "(ready: configuration and failure history read)";
    updateStatus();
    notify("READY=1");
    // Checked once a second; systemd hears only a line that changed.
    auto* status = new QTimer(this);
    connect(status, &QTimer::timeout, this, &ServiceNotify::updateStatus);
    status->start(1000);
}

void ServiceNotify::updateStatus()
{
    const QString line = statusLine();
    if (line == lastStatus_)
        return;
    lastStatus_ = line;
    notify("STATUS=" + line);
}

QString ServiceNotify::statusLine() const
{
    const NetWorkConsole& console = *console_;
    const QString server = console.loggedIn()              ? "logged in"
                           : console.socketInfo->connected ? "connected, not logged in"
                                                           : "not connected";
    const auto* video = static_cast<const QEL_ItemVideo*>(console.items[9]);
    int streaming = 0;
    for (const VideoPushInfo& push : video->pushList)
        streaming += (push.mux != nullptr && push.mux->mux() != nullptr && push.mux->mux()->streaming()) ? 1 : 0;
    const QString answer = lastAnswer_.isValid() ? QString("last answer %1 s ago").arg(lastAnswer_.elapsed() / 1000)
                                                 : QString("no answer yet");
    QString store = console.failStore->trouble();
    store = store.isEmpty() ? QString() : QString::fromUtf8(" · database: ") + store;
    if (const qint64 dropped = console.failStore->droppedOldest())
        store += QString::fromUtf8(" · dropped %1 oldest since start").arg(grouped(dropped));
    return QString::fromUtf8("server: %1 · queued %2 · files queued %3 · cameras streaming %4/%5 · %6%7")
        .arg(server)
        .arg(console.threadInfo->queue.size())
        .arg(console.threadFile->queue.size())
        .arg(streaming)
        .arg(video->pushList.size())
        .arg(answer)
        .arg(store);
}
