#include "QEL_ItemLoad.h"

#include <glog/logging.h>

#include "CHttpEndpoints.h"
#include "QEL_ItemHost.h"
#include "QEL_BaseThread.h"

QEL_ItemLoad::QEL_ItemLoad(QObject* parent, const HttpPeers& peers)
    : QEL_BaseItem(parent)
{
    http = new CHttp_Load(peers);
    number = 3;
}

RetError QEL_ItemLoad::Item_Init()
{
    QEL_BaseItem::Item_Init();
    Item_addToSendQueue(QStringList() << http->getHttp());
    return RET_OK;
}

RetError QEL_ItemLoad::Item_pickInfo(const QString& info, QString& out)
{
    // A login text from the application is built on a builder of its own, so
    // the agent's own login request stays as it is.
    return pickInfoOnOwnBuilder<CHttp_Load>(info, out);
}

RetError QEL_ItemLoad::Item_NetRecvOperate(const QString& body)
{
    QString code;
    CHttpBase::getBuffItem(body, "code", code);
    host()->setLoggedIn(code == "0");
    return QEL_BaseItem::Item_NetRecvOperate(body);
}

RetError QEL_ItemLoad::Item_NetErrorOperate(RetError error, const QString& request)
{
    if (error != RET_TIMEOUT)
        return QEL_BaseItem::Item_NetErrorOperate(error, request);
    // Unanswered, the login is never given up: without it the agent would
    // not heartbeat for the rest of its life. It goes again after each wait,
    // everything else waiting behind it; only a refusal is final.
    thread->queue.resetAttempts();
    return RET_OK;
}
