#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>

#include "RetError.h"

class CHttpBase;
class QEL_BaseSocket;
class QEL_BaseThread;
class QEL_ItemHost;

// One kind of message to the server. The item's number is its index in the
// console's item table and the "SessionId" of its requests, so replies come
// back to it. Items live in the main thread; Item_NetSendOperate and
// Item_NetErrorOperate run in the send thread.
class QEL_BaseItem : public QObject
{
    Q_OBJECT
public:
    explicit QEL_BaseItem(QObject* parent);
    ~QEL_BaseItem() override;

    virtual RetError Item_Init();
    virtual RetError Item_ReInit();
    virtual RetError Item_addToSendQueue(const QStringList& list);
    virtual RetError Item_NetSendOperate(const QString& request);
    virtual RetError Item_NetRecvOperate(const QString& body);
    virtual RetError Item_NetErrorOperate(RetError error, const QString& request);
    virtual RetError Item_pickInfo(const QString& info, QString& out);
    virtual void ParseToCamDec(const QString& text, int& camera, int& detect);

    // A message body from the application: build the request and queue it.
    // `handled` runs on the main thread once whatever the message leads to
    // is queued (at once for most items); the application's "/back/" waits
    // for it. Items whose preparation may block override this to do it off
    // the main thread.
    using Handled = std::function<void()>;
    virtual void Item_fromApplication(const QString& body, const Handled& handled);

    void Item_CloseSocket();
    // Main thread: has the send thread go through its queue, connecting
    // first if the socket is down.
    void startSending();

    // True when this item can send: it has a socket and a send thread.
    bool canSend() const { return socket != nullptr && thread != nullptr; }
    // Before Item_Init: the object that wires the items together.
    void setHost(QEL_ItemHost* host) { host_ = host; }

    CHttpBase* http = nullptr;          // owned
    QEL_BaseSocket* socket = nullptr;   // not owned
    QEL_BaseThread* thread = nullptr;   // not owned
    QStringList workList;
    QString textA;
    QString textB;
    QDateTime lastTime;
    qint32 number = 0;

signals:
    void sigNoConnected();

public slots:
    void SlotReConnecting();

protected:
    QEL_ItemHost* host() const { return host_; }

    // Has the main thread write `request` on this item's socket. False when
    // the socket is not (or turned out not to be) connected.
    bool writeRequest(const QString& request);

    // Builds the request for an application text on a fresh builder, leaving
    // the item's own builder (and the request it holds) untouched.
    template <class Builder>
    RetError pickInfoOnOwnBuilder(const QString& info, QString& out) const
    {
        Builder builder(static_cast<const Builder*>(http)->peers());
        builder.repaceBuff(info);
        out = builder.getHttp();
        return RET_OK;
    }

private:
    QEL_ItemHost* host_ = nullptr;
};

// A member of the item family that binds nothing and sends nothing.
class QEL_ItemNone : public QEL_BaseItem
{
    Q_OBJECT
public:
    explicit QEL_ItemNone(QObject* parent);
    RetError Item_Init() override;
    RetError Item_NetErrorOperate(RetError error, const QString& request) override;
};
