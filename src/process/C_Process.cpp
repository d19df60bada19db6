#include "C_Process.h"

#include <QByteArray>

C_Process::C_Process(QObject* parent)
    : QProcess(parent)
{
    connect(this, &QIODevice::readyRead, this, &C_Process::SlotReadBuf, Qt::DirectConnection);
}

void C_Process::SlotReadBuf()
{
    QByteArray data = readAll();
    const auto zero = data.indexOf('\0');
    if (zero >= 0)
        data.truncate(zero);
    buf = QString::fromUtf8(data);
    lines = buf.split(QStringLiteral("\n"));
}
