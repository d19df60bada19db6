#pragma once

#include <QHash>
#include <QStringList>
#include <mutex>

#include "JobRunner.h"
#include "CHttpEndpoints.h"
#include "QEL_BaseItem.h"
#include "ShellCommand.h"

// Run-state report: the application's JSON plus processor load, memory use
// and time since boot of this machine.
//
// The measurement (top) runs on the item's own worker; the request is queued
// on the main thread. A report the application has been told about is never
// dropped: until it is queued it is held here, and the orderly stop hands it
// over to be stored (measured as far as the stop allows).
class QEL_ItemRunState : public QEL_BaseItem
{
    Q_OBJECT
public:
    QEL_ItemRunState(QObject* parent, const HttpPeers& peers);
    // Measures on the calling thread (runs "top"): never on the main thread.
    RetError Item_pickInfo(const QString& in, QString& out) override;
    // Checks the body at once, measures on a worker, queues on the main thread.
    void Item_fromApplication(const QString& body, const Handled& handled) override;
    // Main thread, at the orderly stop: ends a running measurement and
    // returns the complete requests of every report not queued yet, for
    // the caller to store.
    QStringList stopMeasuring();

private:
    struct Pending
    {
        QString body;       // the application's JSON
        QString request;    // the measured request, once there is one
        Handled handled;
    };
    void queueMeasured(quint64 id);

    const HttpPeers peers_;             // for builders made on the measurer
    JobRunner measurer_;
    ShellCommand shell_;
    std::mutex pendingMutex_;           // guards pending_ (main thread and measurer)
    QHash<quint64, Pending> pending_;   // reports not queued yet, by arrival
    quint64 nextId_ = 0;                // main thread only
};
