#include "CDebug.h"

#include <QByteArray>
#include <QDebug>

CDebug::CDebug(const int& value)
{
    qDebug() << value;
}

CDebug::CDebug(const QString& text, int code2, int code1)
{
    const QString line = QStringLiteral("\x1b[%1;%2m").arg(code1).arg(code2) + text + QStringLiteral("\x1b[0m");
    const QByteArray bytes = line.toUtf8();
    qDebug().noquote() << bytes.constData();
}
