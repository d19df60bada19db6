#pragma once

#include "JobRunner.h"
#include "QEL_BaseItem.h"

// Run-state report: the application's JSON plus processor load, memory use
// and time since boot of this machine.
class QEL_ItemRunState : public QEL_BaseItem
{
    Q_OBJECT
public:
    explicit QEL_ItemRunState(QObject* parent);
    // Measures on the calling thread (runs "top"): never on the main thread.
    RetError Item_pickInfo(const QString& in, QString& out) override;
    // Checks the body at once, measures on a worker, queues on the main thread.
    void Item_fromApplication(const QString& body) override;
    // The agent is stopping: a measurement not started yet is dropped.
    void stopMeasuring() { measurer_.stop(); }

private:
    JobRunner measurer_;
};
