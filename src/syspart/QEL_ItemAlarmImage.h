#pragma once

#include "QEL_BaseItem.h"

// Alarm-image (5) and template (6) archive uploads on the FILE connection.
// Packing and uploading arrive with the image-upload work; for now the items
// hold their builders and bindings, and application texts for them are
// accepted and logged but not sent.
class QEL_ItemAlarmImage : public QEL_BaseItem
{
    Q_OBJECT
public:
    explicit QEL_ItemAlarmImage(QObject* parent);
    RetError Item_Init() override;
    void Item_fromApplication(const QString& body) override;
};

class QEL_ItemTemplate : public QEL_ItemAlarmImage
{
    Q_OBJECT
public:
    explicit QEL_ItemTemplate(QObject* parent);
};

// Live video (9): talks to its own push address, binds no server socket.
// Frame intake and streaming arrive with the live-video work.
class QEL_ItemVideo : public QEL_BaseItem
{
    Q_OBJECT
public:
    explicit QEL_ItemVideo(QObject* parent);
    RetError Item_Init() override;
    void Item_fromApplication(const QString& body) override;
};
