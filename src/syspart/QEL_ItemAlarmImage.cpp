#include "QEL_ItemAlarmImage.h"

#include "CHttpEndpoints.h"
#include "NetWorkConsole.h"
#include "QEL_BaseSocket.h"
#include "globals.h"

QEL_ItemAlarmImage::QEL_ItemAlarmImage(QObject* parent)
    : QEL_BaseItem(parent)
{
    http = new CHttp_Alarmimage;
    number = 5;
}

RetError QEL_ItemAlarmImage::Item_Init()
{
    socket = gConsole->socketFile;
    thread = gConsole->threadFile;
    return RET_OK;
}

void QEL_ItemAlarmImage::Item_fromApplication(const QString&)
{
}

QEL_ItemTemplate::QEL_ItemTemplate(QObject* parent)
    : QEL_ItemAlarmImage(parent)
{
    delete http;
    http = new CHttp_TempImage;
    number = 6;
}

QEL_ItemVideo::QEL_ItemVideo(QObject* parent)
    : QEL_BaseItem(parent)
{
    number = 9;
}

RetError QEL_ItemVideo::Item_Init()
{
    return RET_OK;
}

void QEL_ItemVideo::Item_fromApplication(const QString&)
{
}
