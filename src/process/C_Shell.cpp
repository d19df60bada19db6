#include "C_Shell.h"

#include <cstdio>
#include <cstring>

C_Shell::C_Shell(QObject* /*parent*/, const QString& command, QStringList& out)
    : QObject(nullptr)
{
    FILE* pipe = popen(command.toUtf8().constData(), "r");
    out.clear();
    if (pipe == nullptr)
        return;

    char buffer[1024];
    std::memset(buffer, 0, sizeof buffer);
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
        out.append(QString::fromUtf8(buffer).remove(QStringLiteral("\n")));
    pclose(pipe);
}
