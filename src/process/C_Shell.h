#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// Runs a shell command to completion in the constructor and hands back its
// standard output as lines (line ends removed; lines longer than 1023 bytes
// arrive as several entries). The parent argument is not used.
class C_Shell : public QObject
{
    Q_OBJECT
public:
    C_Shell(QObject* parent, const QString& command, QStringList& out);
};
