#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// One HTTP request as the agent writes it on a raw socket: the header block
// (request line, header lines, empty line) and the body. Subclasses know how
// to rebuild the header block for their endpoint. The static parsers read
// queued requests and answer bodies; they keep no state and may run on any
// thread (the server's replies themselves are read by ReplyFramer).
class CHttpBase
{
public:
    CHttpBase() = default;

    // Sets the body and rebuilds the header block to match it.
    virtual void repaceBuff(const QString& text);
    // Rebuilds the header block; the base class has none.
    virtual void reloadbase();
    virtual ~CHttpBase();

    QString getHttp() const;

    // Header lines of a queued request: the first line must
    // contain "HTTP"; the scan stops at an empty line. A header block of one
    // single line is not scanned. Returns 0 (not HTTP), 1 or 4 (RetError).
    static int getHeadList(const QString& response, QStringList& list);
    // The number in the "SessionId" header, 0 when absent or malformed.
    static int getType(const QStringList& list);
    // cJSON_Print of the top-level item `key` of `json` (a string keeps its
    // double quotes). Returns 3 for bad JSON or a missing key, 4 on success;
    // on failure `value` is left as it was.
    static int getBuffItem(const QString& json, const QString& key, QString& value);

    // Request line through Content-Length, each line ending in CR LF except
    // the content-type line, which ends in `typeEnd`. The caller adds the
    // Host line, if any, and the empty line.
    static QString startHead(const char* method, const QString& path, const char* contentType,
                             int sessionId, const char* userAgent, qint64 contentLength,
                             const char* typeEnd = "\r\n");

    QString head;
    QString body;

protected:
    // Byte length of the body as it goes on the wire (UTF-8).
    qint64 bodyLength() const;
};
