#include "ReplyFramer.h"

namespace {
const char kHeadEnd[] = "\r\n\r\n";
const char kReplyStart[] = "HTTP/";
const char kLengthName[] = "content-length:";
}  // namespace

qint64 ReplyFramer::contentLength(const QByteArray& head)
{
    qint64 length = -1;
    for (const QByteArray& line : head.split('\n')) {
        const QByteArray l = line.trimmed();
        if (l.size() <= int(sizeof kLengthName - 1) || !l.toLower().startsWith(kLengthName))
            continue;
        bool ok = false;
        const qint64 n = l.mid(int(sizeof kLengthName - 1)).trimmed().toLongLong(&ok, 10);
        length = (ok && n >= 0) ? n : -1;
    }
    return length;
}

QList<QByteArray> ReplyFramer::feed(const QByteArray& bytes)
{
    buffer_.append(bytes);
    QList<QByteArray> out;
    while (!buffer_.isEmpty()) {
        const bool looksLikeReply = buffer_.startsWith(kReplyStart)
            || QByteArray(kReplyStart).startsWith(buffer_);
        if (!looksLikeReply) {
            // Not framed: everything that has arrived is one piece, as a
            // server that frames nothing has always been understood.
            out.append(buffer_);
            buffer_.clear();
            break;
        }
        const int headEnd = buffer_.indexOf(kHeadEnd);
        if (headEnd < 0) {
            if (buffer_.size() > kMaxHead) {
                out.append(buffer_);
                buffer_.clear();
            }
            break;      // the rest of the header block is still on its way
        }
        const int bodyStart = headEnd + int(sizeof kHeadEnd - 1);
        const qint64 length = contentLength(buffer_.left(headEnd));
        if (length < 0 || length > kMaxBody) {
            // No usable length: the reply is what has arrived.
            out.append(buffer_);
            buffer_.clear();
            break;
        }
        if (buffer_.size() - bodyStart < length)
            break;      // the body is still on its way
        const int end = bodyStart + int(length);
        out.append(buffer_.left(end));
        buffer_.remove(0, end);
    }
    return out;
}
