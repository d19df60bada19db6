#include "ReplyFramer.h"

#include <QDateTime>
#include <QLocale>

#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace http = boost::beast::http;

namespace {
const char kReplyStart[] = "HTTP/";
}  // namespace

struct ReplyFramer::Parser
{
    Parser()
    {
        // The header first, alone: its length is looked at before the
        // parser sizes the body by it.
        p.eager(false);
        p.header_limit(kMaxHead);
        p.body_limit(kMaxBody);
    }
    http::response_parser<http::string_body> p;
};

QByteArray ServerReply::header(const char* name) const
{
    QByteArray value;
    for (const auto& h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            value = h.second;
    return value;
}

int ServerReply::sessionId() const
{
    bool ok = false;
    const int n = header("SessionId").trimmed().toInt(&ok, 10);
    return ok && n > 0 ? n : 0;
}

qint64 ServerReply::retryAfterMs() const
{
    const QByteArray v = header("Retry-After").trimmed();
    if (v.isEmpty())
        return -1;
    bool ok = false;
    const qint64 seconds = v.toLongLong(&ok, 10);
    if (ok)
        return seconds >= 0 ? seconds * 1000 : -1;
    // An HTTP date: "Sun, 06 Nov 1994 08:49:37 GMT".
    const QDateTime at = QLocale::c().toDateTime(QString::fromLatin1(v.left(25)), "ddd, dd MMM yyyy HH:mm:ss");
    if (!at.isValid())
        return -1;
    QDateTime utc = at;
    utc.setTimeSpec(Qt::UTC);
    return qMax<qint64>(0, QDateTime::currentDateTimeUtc().msecsTo(utc));
}

ReplyFramer::ReplyFramer() = default;
ReplyFramer::~ReplyFramer() = default;

void ReplyFramer::reset()
{
    parser_.reset();
    buffer_.clear();
    raw_.clear();
}

bool ReplyFramer::waitingForClose() const
{
    return parser_ && parser_->p.is_header_done() && parser_->p.need_eof() && !parser_->p.is_done();
}

void ReplyFramer::take(QList<ServerReply>& out)
{
    const auto& m = parser_->p.get();
    ServerReply r;
    r.status = int(m.result_int());
    for (const auto& field : m)
        r.headers.append({QByteArray(field.name_string().data(), int(field.name_string().size())),
                          QByteArray(field.value().data(), int(field.value().size()))});
    r.body = QByteArray(m.body().data(), int(m.body().size()));
    r.raw = raw_;
    parser_.reset();
    raw_.clear();
    if (r.status / 100 != 1)      // an interim reply: the real one follows
        out.append(r);
}

void ReplyFramer::unreadable(QList<ServerReply>& out)
{
    ServerReply r;
    r.raw = raw_ + buffer_;
    out.append(r);
    reset();
}

QList<ServerReply> ReplyFramer::feed(const QByteArray& bytes)
{
    buffer_.append(bytes);
    QList<ServerReply> out;
    while (!buffer_.isEmpty()) {
        if (!parser_) {
            const int n = qMin(buffer_.size(), int(sizeof kReplyStart - 1));
            if (buffer_.left(n) != QByteArray(kReplyStart, n)) {
                unreadable(out);        // not a reply: taken as it arrived
                break;
            }
            if (n < int(sizeof kReplyStart - 1))
                break;                  // the status line is on its way
            parser_.reset(new Parser);
        }
        boost::beast::error_code ec;
        std::size_t used = 0;
        const bool hadHeader = parser_->p.is_header_done();
        try {
            used = parser_->p.put(boost::asio::buffer(buffer_.constData(), size_t(buffer_.size())), ec);
        } catch (const std::exception&) {
            unreadable(out);
            break;
        }
        if (!hadHeader && parser_->p.is_header_done()) {
            const auto length = parser_->p.content_length();
            if (length && *length > std::uint64_t(kMaxBody))
                ec = http::error::body_limit;   // not waited for
            parser_->p.eager(true);
        }
        raw_.append(buffer_.constData(), int(used));
        buffer_.remove(0, int(used));
        if (ec == http::error::need_more) {
            if (buffer_.size() > kMaxHead && !parser_->p.is_header_done()) {
                unreadable(out);        // a header block that never ends is not waited for
                break;
            }
            if (used == 0)
                break;                  // the rest is on its way
            continue;
        }
        if (ec) {
            unreadable(out);
            break;
        }
        if (parser_->p.is_done())
            take(out);
        else if (used == 0)
            break;
    }
    return out;
}

QList<ServerReply> ReplyFramer::finish()
{
    QList<ServerReply> out;
    if (waitingForClose()) {
        boost::beast::error_code ec;
        parser_->p.put_eof(ec);
        if (!ec && parser_->p.is_done())
            take(out);
    }
    reset();
    return out;
}
