#include "QEL_ItemRunState.h"

#include <QMetaObject>

#include "CHttpEndpoints.h"
#include "RunStateProbe.h"

QEL_ItemRunState::QEL_ItemRunState(QObject* parent)
    : QEL_BaseItem(parent)
{
    http = new CHttp_RunState;
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

void QEL_ItemRunState::Item_fromApplication(const QString& body)
{
    QString probe;
    if (!composeRunStateBody(body, RunStateSample(), probe))
        return;     // not a JSON object: nothing is queued
    measurer_.post([this, body] {
        QString text;
        composeRunStateBody(body, measureRunState(), text);
        QMetaObject::invokeMethod(
            this,
            [this, text] {
                http->repaceBuff(text);
                Item_addToSendQueue(QStringList() << http->getHttp());
            },
            Qt::QueuedConnection);
    });
}
