#pragma once

#include <QString>

class JobRunner;
class QEL_BaseItem;
class QEL_BaseSocket;
class QEL_BaseThread;
class ShellCommand;

// Everything the items, the send threads and the directory watcher take
// from the object that wires them together (the network console): the
// shared sockets and threads, the items by number, the login state, the
// image packer and the reports towards the application. It is their only
// way to the console, so they can be built and tested with a fake host; the
// console hands itself to each of them as it makes them (setHost), before
// any of them runs.
class QEL_ItemHost
{
public:
    virtual ~QEL_ItemHost() = default;

    virtual QEL_BaseSocket* infoSocket() = 0;
    virtual QEL_BaseSocket* fileSocket() = 0;
    // The file server again, on a connection of its own for the template
    // removals the INFO thread sends: a time-out or a close there never cuts
    // an upload of the FILE thread short.
    virtual QEL_BaseSocket* removalSocket() = 0;
    virtual QEL_BaseThread* infoThread() = 0;
    virtual QEL_BaseThread* fileThread() = 0;

    // The item that may send or receive for `number`, or null.
    virtual QEL_BaseItem* routableItem(int number) const = 0;
    // The item that takes undeliverable texts (number 0).
    virtual QEL_BaseItem* catchAllItem() const = 0;
    // Any item by number 0..20 (9 included), or null.
    virtual QEL_BaseItem* item(int number) const = 0;

    // Any thread: the server has accepted the login (heartbeats go only then).
    virtual bool loggedIn() const = 0;
    virtual void setLoggedIn(bool loggedIn) = 0;
    // Any thread: a second inspection state the alarm images wait for; the
    // application never sets it in this version.
    virtual bool secondState() const = 0;

    // The image items' packer: their listing, tar, mv and rm, in order, and
    // the shell its commands run in (a running tar ends at the stop).
    virtual JobRunner& imagePacker() = 0;
    virtual ShellCommand& packerShell() = 0;

    // Main thread: the 30 s look at the failure history.
    virtual void refreshFailHistory() = 0;

    // Main thread: the server link is lost: tell the application.
    virtual void reportLinkLost() = 0;
    // Any thread: queue a text for the application.
    virtual void sendInfoToInline(const QString& text) = 0;
};
