#pragma once

#include <QString>

class QEL_BaseItem;
class QEL_BaseSocket;
class QEL_BaseThread;

// What the items and send threads need from the object that wires them
// together (the network console): the shared sockets and threads, routing
// by item number, and the reports towards the application. Keeping it an
// interface lets this layer be built and tested without the console.
class QEL_ItemHost
{
public:
    virtual ~QEL_ItemHost() = default;

    virtual QEL_BaseSocket* infoSocket() = 0;
    virtual QEL_BaseSocket* fileSocket() = 0;
    virtual QEL_BaseThread* infoThread() = 0;
    virtual QEL_BaseThread* fileThread() = 0;

    // The item that may send or receive for `number`, or null.
    virtual QEL_BaseItem* routableItem(int number) const = 0;
    // The item that takes undeliverable texts (number 0).
    virtual QEL_BaseItem* catchAllItem() const = 0;

    // Main thread: the server link is lost: tell the application.
    virtual void reportLinkLost() = 0;
    // Any thread: queue a text for the application.
    virtual void sendInfoToInline(const QString& text) = 0;
};

// Set once by the console before any item or thread runs.
QEL_ItemHost* itemHost();
void setItemHost(QEL_ItemHost* host);
