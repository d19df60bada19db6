#pragma once

#include <QSet>
#include <functional>

#include "CHttp_AppBack.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"

// The link to the inspection application on 127.0.0.1:8890. One TCP read is
// one message "<type>:<field>:..!<body>", handed on as sigMessage; every
// read is acknowledged with a "/back/" notice once what it queued is stored
// (acknowledged means kept across a crash), or after kAckBoundMs if the
// store cannot commit: the application is then not held up, and the log
// says so once per episode.
class QEL_SocketInline : public QEL_BaseSocket
{
    Q_OBJECT
public:
    explicit QEL_SocketInline(QObject* parent);

    static const int kAckBoundMs = 2000;

    // How the link learns that everything queued so far is stored: the
    // function runs its argument (on any thread) once that is so.
    using WhenStored = std::function<void(std::function<void()>)>;
    void setWhenStored(WhenStored whenStored) { whenStored_ = std::move(whenStored); }

    int Init() override;
    // Splits one message and emits it; a message that does not parse is
    // dropped quietly. `handled` runs once what the message leads to is queued.
    void ParsingAndSend(const QString& message, const std::function<void()>& handled = {});
    // The message grammar alone: RET_OK with type and body, RET_MALFORMED
    // (separator or head not exactly two parts) or RET_TYPE_RANGE.
    static int splitMessage(const QString& message, int& type, QString& body);

signals:
    // Main thread, connected directly: one message of type 0..20. The
    // receiver calls `handled` (if set) once what it leads to is queued.
    void sigMessage(int type, const QString& body, const std::function<void()>& handled);
    // A text for the application (the "/back/" notices).
    void sigToApplication(const QString& text);

public slots:
    void SlotRecvData() override;

private:
    // Main thread: a "/back/" owed for one message; the returned function
    // says its message has been handled (queued).
    std::function<void()> owedAcknowledgement();
    void acknowledge(quint64 ack, bool stored);

    CHttp_AppBack appBack_;
    WhenStored whenStored_;
    quint64 lastAck_ = 0;
    QSet<quint64> owed_;            // acknowledgements not sent yet
    bool unstoredEpisode_ = false;  // acknowledged without a commit, not yet logged over
};

// Writes the texts queued for the application, in order, one at a time.
class QEL_ThreadInLine : public QEL_BaseThread
{
    Q_OBJECT
public:
    explicit QEL_ThreadInLine(QObject* parent = nullptr);
    void setSocket(QEL_BaseSocket* socket);

protected:
    void drain() override;

private:
    QEL_BaseSocket* socket_ = nullptr;
};
