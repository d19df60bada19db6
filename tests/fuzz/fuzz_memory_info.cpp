// The camera announcement's JSON, element by element.
#include <cstddef>
#include <cstdint>

#include "MemoryInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QList<CameraAnnounce> cameras;
    memoryinfo::parseAnnouncement(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)), cameras);
    for (const CameraAnnounce& c : cameras) {
        // A usable camera can be attached and pushed: its numbers are sane.
        if (c.usable && (c.size <= 0 || c.width <= 0 || c.height <= 0 || c.cameraid < 0 || c.shmProject <= 0))
            __builtin_trap();
    }
    return 0;
}
