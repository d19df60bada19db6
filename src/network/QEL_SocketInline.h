#pragma once

#include "CHttp_AppBack.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"

struct CameraAnnounce;
struct VideoPushInfo;

// The link to the inspection application on 127.0.0.1:8890. One TCP read is
// one message "<type>:<field>:..!<body>"; every read is acknowledged with a
// "/back/" notice before it is parsed.
class QEL_SocketInline : public QEL_BaseSocket
{
    Q_OBJECT
public:
    explicit QEL_SocketInline(QObject* parent);

    int Init() override;
    int ParsingAndSend(const QString& message);
    // The message grammar alone: RET_OK with type and body, RET_MALFORMED
    // (separator or head not exactly two parts) or RET_TYPE_RANGE.
    static int splitMessage(const QString& message, int& type, QString& body);
    // Type 9: attaches the announced camera buffers and starts their pushes,
    // once per process. 9 when done before, 14 when the body is unusable.
    int OperaSharedMemory(const QString& body);

    bool sharedMemoryStarted = false;

public slots:
    void SlotRecvData() override;

private:
    // The camera's segment and semaphore, when their ids are the announced ones.
    static bool attachCamera(const CameraAnnounce& camera, VideoPushInfo& push);

    CHttp_AppBack appBack_;
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
