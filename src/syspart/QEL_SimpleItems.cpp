#include "QEL_SimpleItems.h"

#include "QEL_ItemHost.h"
#include "QEL_BaseSocket.h"

#include <glog/logging.h>

RetError QEL_ItemDelTemp::Item_Init()
{
    socket = host()->removalSocket();
    thread = host()->infoThread();
    return RET_OK;
}

RetError QEL_ItemDelTemp::Item_NetSendOperate(const QString& request)
{
    // The file connection is opened for this request if need be; a file
    // server that cannot be reached must not hold up the INFO requests
    // queued behind it, so the request is given up (kept for the next start).
    if (!socket->connected)
        socket->connectAndWait(kFileConnectWaitMs);
    if (writeRequest(request))
        return RET_OK;
    LOG(INFO) << "send:" << number << "(ERR_NetNoConnect send without connected)";
    Item_NetErrorOperate(RET_TIMEOUT, request);
    return RET_GIVEN_UP;
}

RetError QEL_ItemDelTemp::Item_NetRecvOperate(const QString& body)
{
    const RetError r = QEL_BaseItem::Item_NetRecvOperate(body);
    Item_CloseSocket();
    return r;
}

template <class Builder, int Number>
RetError QEL_QueryItem<Builder, Number>::Item_NetRecvOperate(const QString& body)
{
    if (QEL_BaseItem::Item_NetRecvOperate(body) != RET_OK)
        return RET_OK;
    this->http->repaceBuff(body);
    this->host()->sendInfoToInline(this->http->getHttp());
    return RET_OK;
}

template class QEL_QueryItem<CHttp_GetProductInfo, 14>;
template class QEL_QueryItem<cHttp_GetRemind, 17>;
