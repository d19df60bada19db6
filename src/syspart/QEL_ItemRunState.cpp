#include "QEL_ItemRunState.h"

#include <QMetaObject>
#include <algorithm>

#include "CHttpEndpoints.h"
#include "RunStateProbe.h"

QEL_ItemRunState::QEL_ItemRunState(QObject* parent, const HttpPeers& peers)
    : QEL_BaseItem(parent)
    , peers_(peers)
{
    http = new CHttp_RunState(peers);
    number = 19;
}

RetError QEL_ItemRunState::Item_pickInfo(const QString& in, QString& out)
{
    QString body;
    if (!composeRunStateBody(in, measureRunState(), body))
        return RET_BAD_APP_JSON;
    http->repaceBuff(body);
    out = http->getHttp();
    return RET_OK;
}

void QEL_ItemRunState::Item_fromApplication(const QString& body, const Handled& handled)
{
    QString probe;
    if (!composeRunStateBody(body, RunStateSample(), probe)) {
        if (handled)
            handled();      // not a JSON object: nothing is queued
        return;
    }
    const quint64 id = ++nextId_;
    {
        std::lock_guard<std::mutex> g(pendingMutex_);
        pending_.insert(id, Pending{body, QString(), handled});
    }
    measurer_.post([this, id, body] {
        QString text;
        composeRunStateBody(body, measureRunState(&shell_), text);
        CHttp_RunState builder(peers_);     // the item's own builder belongs to the main thread
        builder.repaceBuff(text);
        {
            std::lock_guard<std::mutex> g(pendingMutex_);
            const auto it = pending_.find(id);
            if (it == pending_.end())
                return;     // taken over by the stop
            it->request = builder.getHttp();
        }
        QMetaObject::invokeMethod(this, [this, id] { queueMeasured(id); }, Qt::QueuedConnection);
    });
}

void QEL_ItemRunState::queueMeasured(quint64 id)
{
    Pending p;
    {
        std::lock_guard<std::mutex> g(pendingMutex_);
        const auto it = pending_.find(id);
        if (it == pending_.end())
            return;
        p = it.value();
        pending_.erase(it);
    }
    Item_addToSendQueue(QStringList() << p.request);
    if (p.handled)
        p.handled();
}

QStringList QEL_ItemRunState::stopMeasuring()
{
    shell_.stop();
    measurer_.stop();
    QHash<quint64, Pending> left;
    {
        std::lock_guard<std::mutex> g(pendingMutex_);
        left.swap(pending_);
    }
    QList<quint64> ids = left.keys();
    std::sort(ids.begin(), ids.end());
    QStringList requests;
    for (quint64 id : ids) {
        const Pending& p = left.value(id);
        if (!p.request.isEmpty()) {
            requests << p.request;
            continue;
        }
        // Not measured (or cut short by the stop): the load is unknown,
        // the time since boot is not.
        RunStateSample sample;
        sample.nearstart = readUptimeSeconds();
        QString text;
        composeRunStateBody(p.body, sample, text);
        CHttp_RunState builder(peers_);
        builder.repaceBuff(text);
        requests << builder.getHttp();
    }
    return requests;
}
