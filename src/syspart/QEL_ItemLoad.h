#pragma once

#include "CHttpEndpoints.h"
#include "QEL_BaseItem.h"

// The login: one request queued at start-up; its answer decides whether the
// heartbeat runs.
class QEL_ItemLoad : public QEL_BaseItem
{
    Q_OBJECT
public:
    QEL_ItemLoad(QObject* parent, const HttpPeers& peers);
    RetError Item_Init() override;
    RetError Item_pickInfo(const QString& info, QString& out) override;
    RetError Item_NetRecvOperate(const QString& body) override;
    RetError Item_NetErrorOperate(RetError error, const QString& request) override;
};
