// Texts the agent stored earlier and reads back at start: requests kept in the
// failure history (routed again by their SessionId) and the header blocks the
// framer measures; paths reported by the directory watcher.
#include <cstddef>
#include <cstdint>

#include "NetWorkConsole.h"
#include "ReplyFramer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QString text = QString::fromUtf8(bytes);
    NetWorkConsole::ParseTypeFromInfo(text);
    NetWorkConsole::ParseTypeFromTrig(text);
    const qint64 length = ReplyFramer::contentLength(bytes);
    if (length < -1)
        __builtin_trap();
    return 0;
}
