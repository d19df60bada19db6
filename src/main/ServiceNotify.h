#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>

class NetWorkConsole;

// What systemd is told about the agent when it runs as the service
// (Type=notify): ready once the configuration and the failure history are
// read, a watchdog ping from the event loop, so that an agent whose main
// thread stops turning is killed and started again, the status line that
// `systemctl status` shows, and the orderly stop. Outside systemd (no
// NOTIFY_SOCKET) nothing is created and nothing runs.
class ServiceNotify : public QObject
{
    Q_OBJECT
public:
    // Does nothing unless systemd started the agent.
    static void attach(NetWorkConsole* console, QObject* parent);
    // The orderly stop has begun; harmless outside systemd.
    static void stopping();

private:
    ServiceNotify(NetWorkConsole* console, QObject* parent);
    void ready();
    void updateStatus();
    // One line: server link, queues, cameras, age of the last answer.
    QString statusLine() const;

    NetWorkConsole* console_;
    QElapsedTimer lastAnswer_;      // invalid until the server first answers
    QString lastStatus_;
};
