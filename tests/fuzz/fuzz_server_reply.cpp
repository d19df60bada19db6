// Bytes from the central server: cut into replies by Content-Length, each
// routed by its SessionId, its JSON "code" and "msg" read as the items read them.
#include <cstddef>
#include <cstdint>

#include "CHttpBase.h"
#include "ReplyFramer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    // The first byte chooses how the bytes arrive: in reads of 1 to 256 bytes.
    const size_t piece = static_cast<size_t>(data[0]) + 1;
    ++data;
    --size;
    ReplyFramer framer;
    qint64 out = 0;
    for (size_t at = 0; at < size; at += piece) {
        const size_t n = size - at < piece ? size - at : piece;
        for (const QByteArray& reply : framer.feed(QByteArray(reinterpret_cast<const char*>(data + at), static_cast<int>(n)))) {
            out += reply.size();
            QString text, body, value;
            CHttpBase::readReply(reply, text, body);
            CHttpBase::getBuffItem(body, QStringLiteral("code"), value);
            CHttpBase::getBuffItem(body, QStringLiteral("msg"), value);
        }
    }
    // Replies are cut from the bytes, never made up.
    if (out + framer.pending() > static_cast<qint64>(size))
        __builtin_trap();
    return 0;
}
