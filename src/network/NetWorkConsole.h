#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>

#include "QEL_Settings.h"
#include "JobRunner.h"
#include "ShellCommand.h"
#include "QEL_Inotify.h"
#include "QEL_ItemHost.h"

class QEL_BaseItem;
class QEL_BaseThread;
class QEL_FailStore;
class QEL_SocketFile;
class QEL_SocketInfo;
class QEL_SocketInline;
class QEL_ThreadInLine;

// Wires the agent together: the three connections, the send threads, the
// application-link writer, the failure history and the 21 items, indexed by
// message type. The sockets only announce replies and lost links; what
// follows is decided here.
class NetWorkConsole : public QObject, public QEL_ItemHost
{
    Q_OBJECT
public:
    static const int kItemCount = 21;
    // INFO requests held in memory; the rest wait in the failure history alone.
    static const int kInfoWindow = 64;

    // `conf`: the configuration, handed on to the items and sockets as they
    // are made; `dbPath`: its database, which also holds the failure history.
    NetWorkConsole(QObject* parent, const QEL_Settings& conf, const QString& dbPath);
    ~NetWorkConsole() override;

    void FirstInit();
    // Main thread: the orderly stop. Takes no more application messages,
    // releases and ends every worker, and leaves the failure history
    // holding every request not yet answered. Bounded in time.
    void stop();

    static int ParseTypeFromInfo(const QString& text);
    static int ParseTypeFromTrig(const QString& path);

    // Any thread: queue a text for the application.
    void sendInfoToInline(const QString& text) override;
    // The INFO queue is kept in the failure history as it changes: storing
    // it all again is never needed, so there is nothing left to do here.
    void saveWithOutSend();
    // Any thread: keep one request text for the next start.
    void saveWithOutSend(const QString& text);
    // Main thread: the 30 s look at the failure history.
    void refreshFailHistory() override;
    // Main thread: the server link is lost: tell the application.
    void reportLinkLost() override;

    // Main thread: hand a reply to the item it names, if that item can take one.
    void routeReply(int number, const QString& body);
    // The item that may send or receive for `number`, or null (0, 9, out of range).
    QEL_BaseItem* routableItem(int number) const override;
    QEL_BaseItem* catchAllItem() const override { return items[0]; }
    QEL_BaseItem* item(int number) const override;
    bool loggedIn() const override { return loggedIn_; }
    void setLoggedIn(bool loggedIn) override { loggedIn_ = loggedIn; }
    bool secondState() const override { return secondState_; }
    JobRunner& imagePacker() override { return imagePacker_; }
    ShellCommand& packerShell() override { return packerShell_; }

    QEL_BaseSocket* infoSocket() override;
    QEL_BaseSocket* fileSocket() override;
    QEL_BaseSocket* removalSocket() override;
    QEL_BaseThread* infoThread() override;
    QEL_BaseThread* fileThread() override;

    QEL_SocketFile* socketFile = nullptr;
    QEL_SocketFile* socketRemoval = nullptr;
    QEL_SocketInfo* socketInfo = nullptr;
    QEL_SocketInline* socketInline = nullptr;
    QEL_BaseThread* threadInfo = nullptr;
    QEL_BaseThread* threadFile = nullptr;
    QEL_ThreadInLine* threadInline = nullptr;
    QEL_FailStore* failStore = nullptr;
    QEL_Inotify* watcher = nullptr;         // the watcher SlotSysChange maps through; none by default
    QEL_BaseItem* items[kItemCount] = {};

public slots:
    // Directory changes in batches: created images go to their item to be
    // packed. Start-up neither creates a watcher nor connects this.
    void SlotSysChange(const QList<watchinfo>& changes);

private:
    // `sender`: the send thread whose requests go out on `socket`.
    void wireServerSocket(QEL_BaseSocket* socket, QEL_BaseThread* sender);
    // Main thread: one message from the application, split by the link.
    void takeApplicationMessage(int type, const QString& body, const std::function<void()>& handled);
    void queueKept(const QList<struct QEL_QueuedRequest>& kept, qint64 spilled);
    // The failure history's budget from `queue_limit_mb` (default 1024 MiB).
    static qint64 queueLimitBytes(const QString& text);

    JobRunner imagePacker_;                 // listing, tar, mv and rm of the image items, in order
    ShellCommand packerShell_;              // the image packer's commands (a running tar ends at the stop)
    std::atomic<bool> loggedIn_{false};
    std::atomic<bool> secondState_{false};  // read by the alarm-image item; never set
    QStringList inlineHeld_;    // texts waiting for the application link to come up
    bool stopped_ = false;
};
