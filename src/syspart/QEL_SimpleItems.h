#pragma once

#include "CHttpEndpoints.h"
#include "QEL_BaseItem.h"

// An item that needs nothing beyond the generic behaviour: its own endpoint
// builder and its number.
template <class Builder, int Number>
class QEL_SimpleItem : public QEL_BaseItem
{
public:
    QEL_SimpleItem(QObject* parent, const HttpPeers& peers)
        : QEL_BaseItem(parent)
    {
        http = new Builder(peers);
        number = Number;
    }
};

class QEL_ItemOperaRecord : public QEL_SimpleItem<CHttp_Record, 1> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemParamter : public QEL_SimpleItem<CHttp_Param, 2> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemStatistics : public QEL_SimpleItem<CHttp_Statistics, 7> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemROI : public QEL_SimpleItem<CHttp_ROI, 8> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemManualStop : public QEL_SimpleItem<CHttp_ManualStop, 10> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemAddRemind : public QEL_SimpleItem<CHttp_AddRemind, 12> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemDelRemind : public QEL_SimpleItem<CHttp_DelRemind, 13> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemSaveNgVideo : public QEL_SimpleItem<CHttp_SaveNgVideo, 15> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemTelInfo : public QEL_SimpleItem<CHttp_TelInfo, 16> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemStatistics2 : public QEL_SimpleItem<CHttp_Statistics2, 18> { using QEL_SimpleItem::QEL_SimpleItem; };
class QEL_ItemDetectCancle : public QEL_SimpleItem<CHttp_DetectCancle, 20> { using QEL_SimpleItem::QEL_SimpleItem; };

// Removing a template goes to the file server, queued with the INFO requests,
// on a connection of its own that is closed after each answer.
class QEL_ItemDelTemp : public QEL_SimpleItem<CHttp_DelTemp, 11>
{
public:
    using QEL_SimpleItem::QEL_SimpleItem;
    RetError Item_Init() override;
    RetError Item_NetSendOperate(const QString& request) override;
    RetError Item_NetRecvOperate(const QString& body) override;

    static const int kFileConnectWaitMs = 7000;
};

// The two query items pass the server's answer on to the application.
template <class Builder, int Number>
class QEL_QueryItem : public QEL_SimpleItem<Builder, Number>
{
public:
    using QEL_SimpleItem<Builder, Number>::QEL_SimpleItem;
    RetError Item_NetRecvOperate(const QString& body) override;
};

class QEL_ItemGetProductInfo : public QEL_QueryItem<CHttp_GetProductInfo, 14> { using QEL_QueryItem::QEL_QueryItem; };
class QEL_ItemGetRemind : public QEL_QueryItem<cHttp_GetRemind, 17> { using QEL_QueryItem::QEL_QueryItem; };
