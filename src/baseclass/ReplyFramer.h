#pragma once

#include <QByteArray>
#include <QList>

// Cuts the byte stream from the server into replies. A reply is its header
// block up to the empty line, then as many body bytes as its Content-Length
// says; several replies in one read each come out, and one reply spread over
// several reads comes out once, whole. Bytes that do not start like a reply
// ("HTTP/"), and a reply without Content-Length, are taken as they arrived,
// so a server that frames nothing is understood as before.
class ReplyFramer
{
public:
    // Header blocks longer than this, and bodies announced longer than
    // kMaxBody, are not waited for: what has arrived is taken as it is.
    static const int kMaxHead = 64 * 1024;
    static const qint64 kMaxBody = 16 * 1024 * 1024;

    // Adds bytes; returns the replies that are now complete, in order.
    QList<QByteArray> feed(const QByteArray& bytes);
    // Forgets a partial reply (the connection it came from is gone).
    void reset() { buffer_.clear(); }
    int pending() const { return buffer_.size(); }

    // The Content-Length of a header block, -1 when there is none usable.
    static qint64 contentLength(const QByteArray& head);

private:
    QByteArray buffer_;
};
