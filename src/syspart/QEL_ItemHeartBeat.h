#pragma once

#include <QDateTime>
#include <QMap>

#include "CHttpEndpoints.h"
#include "QEL_BaseItem.h"

// Whether the last heartbeat acknowledgement is recent enough: one missed
// answer of the 20 s heartbeat is tolerated, two are not.
bool heartAcknowledged(qint64 nowMs, qint64 lastHeartMs, bool connected);

// Heartbeat every 20 s once logged in, and the 30 s rewrite of the failure
// history.
class QEL_ItemHeartBeat : public QEL_BaseItem
{
    Q_OBJECT
public:
    static const int kHeartPeriodMs = 20000;
    static const int kSaveFailPeriodMs = 30000;
    static const qint64 kHeartBoundMs = 39000;

    QEL_ItemHeartBeat(QObject* parent, const HttpPeers& peers);
    RetError Item_Init() override;
    RetError Item_pickInfo(const QString& info, QString& out) override;
    RetError Item_NetRecvOperate(const QString& body) override;
    RetError Item_NetErrorOperate(RetError error, const QString& request) override;
    bool isChkHeartBack();

    QMap<int, QString> timers;
    QDateTime lastHeart;

public slots:
    // The INFO connection has come up.
    void onLinkUp();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    void sendHeart();
    bool reconnecting_ = false;
};
