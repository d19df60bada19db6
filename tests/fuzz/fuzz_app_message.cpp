// Bytes from the inspection application on the local link: the message
// grammar "TYPE:FIELD:..!BODY", then what the agent reads out of the body for
// the types that carry JSON (the camera announcement, the run state).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "MemoryInfo.h"
#include "QEL_SocketInline.h"
#include "RunStateProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One TCP read, as the link takes it: the text ends at the first zero byte.
    const char* text = reinterpret_cast<const char*>(data);
    const QString message = QString::fromUtf8(text, static_cast<int>(strnlen(text, size)));
    int type = -1;
    QString body;
    if (QEL_SocketInline::splitMessage(message, type, body) != 0)
        return 0;
    if (type < 0 || type > 20)
        __builtin_trap();
    if (type == 9) {
        QList<CameraAnnounce> cameras;
        memoryinfo::parseAnnouncement(body.toUtf8(), cameras);
    } else if (type == 19) {
        QString out;
        composeRunStateBody(body, RunStateSample{}, out);
    }
    return 0;
}
