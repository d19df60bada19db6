#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <memory>

// One reply from the server, read as HTTP/1.1 frames it.
struct ServerReply
{
    // 0: the bytes could not be read as a reply (they are kept in `raw`).
    int status = 0;
    QList<QPair<QByteArray, QByteArray>> headers;   // name and value, in order
    QByteArray body;        // as the server meant it (chunks joined)
    QByteArray raw;         // the bytes as they came, for the debug console

    bool ok() const { return status >= 200 && status < 300; }
    // The value of the header named `name`, whatever its case (the last of
    // several); null when there is none.
    QByteArray header(const char* name) const;
    // The item number that the "SessionId" header names; 0 when none does.
    int sessionId() const;
    // Retry-After in milliseconds (seconds, or an HTTP date); -1 when absent
    // or unreadable.
    qint64 retryAfterMs() const;
};

// Cuts the byte stream from the server into replies as HTTP/1.1 frames them:
// the body by Content-Length, by chunks (sizes, extensions and trailers), or
// up to the close of the connection; interim 1xx replies are skipped, 204
// and 304 have no body. Bytes that do not start like a reply ("HTTP/"), or
// that break the framing, come out as they arrived with status 0.
// Parsing is Boost.Beast's response parser; one instance per connection.
class ReplyFramer
{
public:
    // Header blocks longer than this, and bodies longer than kMaxBody, are
    // not waited for: what has arrived comes out as it is, unread.
    static const int kMaxHead = 64 * 1024;
    static const qint64 kMaxBody = 16 * 1024 * 1024;

    ReplyFramer();
    ~ReplyFramer();

    // Adds bytes; returns the replies that are now complete, in order.
    QList<ServerReply> feed(const QByteArray& bytes);
    // A reply whose body runs to the close of the connection is waiting for it.
    bool waitingForClose() const;
    // The connection has ended (or, for a server that frames nothing, gone
    // quiet): a reply that runs to the close is complete as it stands; any
    // other partial reply is forgotten.
    QList<ServerReply> finish();
    // Forgets a partial reply (the connection it came from is gone).
    void reset();
    // Bytes held for a reply not complete yet.
    int pending() const { return buffer_.size() + raw_.size(); }

private:
    struct Parser;
    // Takes the reply the parser completed, or none for an interim one.
    void take(QList<ServerReply>& out);
    void unreadable(QList<ServerReply>& out);

    std::unique_ptr<Parser> parser_;    // the reply under way, if any
    QByteArray buffer_;                 // bytes not yet given to the parser
    QByteArray raw_;                    // bytes the parser has taken for this reply
};
