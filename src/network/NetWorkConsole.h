#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>

class QEL_BaseItem;
class QEL_BaseThread;
class QEL_SocketFile;
class QEL_SocketInfo;
class QEL_SocketInline;
class QEL_ThreadInLine;

// Wires the agent together: the three connections, the send threads, the
// application-link writer and the 21 items, indexed by message type.
class NetWorkConsole : public QObject
{
    Q_OBJECT
public:
    static const int kItemCount = 21;

    explicit NetWorkConsole(QObject* parent);

    void FirstInit();

    static int ParseTypeFromInfo(const QString& text);
    static int ParseTypeFromTrig(const QString& path);

    // Any thread: queue a text for the application.
    void sendInfoToInline(const QString& text);
    // Main thread: store every request queued for the INFO send thread.
    void saveWithOutSend();
    // Any thread: store one request text (time-stamped when asked).
    void saveWithOutSend(const QString& text);
    // Main thread: the 30 s rewrite of the failure history from the queue.
    void refreshFailHistory();
    // Main thread: the server link is lost: keep the queue, tell the application.
    void reportLinkLost();

    // Main thread: hand a reply to the item it names, if that item can take one.
    void routeReply(int number, const QString& body);
    // The item that may send or receive for `number`, or null (0, 9, out of range).
    QEL_BaseItem* routableItem(int number) const;

    QEL_SocketFile* socketFile = nullptr;
    QEL_SocketInfo* socketInfo = nullptr;
    QEL_SocketInline* socketInline = nullptr;
    QEL_BaseThread* threadInfo = nullptr;
    QEL_BaseThread* threadFile = nullptr;
    QEL_ThreadInLine* threadInline = nullptr;
    QEL_BaseItem* items[kItemCount] = {};

    std::atomic<bool> loggedIn{false};
    std::atomic<bool> secondState{false};   // read by the alarm-image item; never set

private:
    void storeTexts(const QStringList& texts, bool replace);
    QStringList snapshotInfoQueue() const;

    QStringList inlineHeld_;    // texts waiting for the application link to come up
};
