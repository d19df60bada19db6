#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// A process that keeps the latest chunk of standard output it produced:
// `buf` is the chunk's text (up to its first zero byte), `lines` that text
// split at "\n". Each chunk replaces the previous one.
class C_Process : public QProcess
{
    Q_OBJECT
public:
    explicit C_Process(QObject* parent);

    QString buf;
    QStringList lines;

public slots:
    void SlotReadBuf();
};
