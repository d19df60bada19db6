#include "oxa_cmd.h"

#include <QDebug>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

std::string oxa_cmd(const char* command)
{
    std::string result;
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr) {
        qDebug().noquote() << "execute command failed:" << std::strerror(errno);
        return result;
    }

    // Bounded by processor time, not wall-clock time: a command that writes
    // slowly is still read to the end.
    const clock_t start = clock();
    char buffer[4096];
    std::memset(buffer, 0, sizeof buffer);
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
        result.append(buffer);
        if ((clock() - start) / 100 > 5)
            break;
    }
    pclose(pipe);
    return result;
}
