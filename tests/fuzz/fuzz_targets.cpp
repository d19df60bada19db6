// One libFuzzer target per parser of outside bytes (QEL_FUZZ_TARGET names an
// executable's): the agent's own parsing functions, with no socket, thread or
// global state in between; a broken bound they promise traps.
#include <cstdint>
#include <cstring>

#include "CHttpBase.h"
#include "MemoryInfo.h"
#include "NetWorkConsole.h"
#include "PushAddress.h"
#include "QEL_SocketInline.h"
#include "ReplyFramer.h"
#include "RunStateProbe.h"

// The camera announcement's JSON: a usable camera can be attached and pushed.
void fuzz_memory_info(const uint8_t* data, size_t size)
{
    QList<CameraAnnounce> cameras;
    memoryinfo::parseAnnouncement(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)), cameras);
    for (const CameraAnnounce& c : cameras)
        if (c.usable && (c.size <= 0 || c.width <= 0 || c.height <= 0 || c.cameraid < 0 || c.shmProject <= 0))
            __builtin_trap();
}

// One read from the inspection application, up to its first zero byte:
// "TYPE:FIELD:..!BODY", then the JSON of the announcement and the run state.
void fuzz_app_message(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    int type = -1;
    QString body, out;
    if (QEL_SocketInline::splitMessage(QString::fromUtf8(text, static_cast<int>(strnlen(text, size))), type, body) != 0)
        return;
    if (type < 0 || type > 20)
        __builtin_trap();
    QList<CameraAnnounce> cameras;
    if (type == 9)
        memoryinfo::parseAnnouncement(body.toUtf8(), cameras);
    else if (type == 19)
        composeRunStateBody(body, RunStateSample{}, out);
}

// The video server's push-address reply, at most one buffer of it, framed by
// its Content-Length and scanned for the stream server's address.
void fuzz_push_address(const uint8_t* data, size_t size)
{
    const char* reply = reinterpret_cast<const char*>(data);
    size = size < pushaddress::kReplyBuffer ? size : pushaddress::kReplyBuffer - 1;
    const long whole = pushaddress::wanted(reply, size);
    pushaddress::Address a;
    if (pushaddress::findAddress(reply, whole >= 0 && static_cast<size_t>(whole) < size ? static_cast<size_t>(whole) : size, a)) {
        if (a.host.size() > pushaddress::kMaxHost || a.path.size() > pushaddress::kMaxPath)
            __builtin_trap();
        a.usable();
    }
}

// The central server's bytes, in reads of 1 to 256 bytes (the first byte
// says), read as replies that are routed and read as the items read them;
// then the connection ends.
void fuzz_server_reply(const uint8_t* data, size_t size)
{
    if (size-- == 0)
        return;
    const size_t piece = static_cast<size_t>(*data++) + 1;
    ReplyFramer framer;
    qint64 out = 0;
    auto read = [&out](const QList<ServerReply>& replies) {
        for (const ServerReply& reply : replies) {
            out += reply.raw.size();
            QString value;
            reply.sessionId();
            reply.retryAfterMs();
            CHttpBase::getBuffItem(QString::fromUtf8(reply.body), QStringLiteral("code"), value);
            CHttpBase::getBuffItem(QString::fromUtf8(reply.body), QStringLiteral("msg"), value);
        }
    };
    for (size_t at = 0; at < size; at += piece) {
        const int n = static_cast<int>(size - at < piece ? size - at : piece);
        read(framer.feed(QByteArray(reinterpret_cast<const char*>(data + at), n)));
    }
    const qint64 held = framer.pending();
    read(framer.finish());
    if (out > static_cast<qint64>(size) || held > static_cast<qint64>(size))     // replies are cut from the bytes, never made up
        __builtin_trap();
}

// What the agent reads back: stored requests routed by their SessionId, paths
// the directory watcher reports.
void fuzz_stored_request(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    NetWorkConsole::ParseTypeFromInfo(QString::fromUtf8(bytes));
    NetWorkConsole::ParseTypeFromTrig(QString::fromUtf8(bytes));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QEL_FUZZ_TARGET(data, size);
    return 0;
}
