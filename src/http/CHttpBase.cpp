#include "CHttpBase.h"

#include <cstring>

#include "RetError.h"

#include <cJSON.h>

#include "oxa_json.h"

void CHttpBase::repaceBuff(const QString& text)
{
    body = text;
    reloadbase();
}

void CHttpBase::reloadbase()
{
}

CHttpBase::~CHttpBase() = default;

QString CHttpBase::getHttp() const
{
    return head + body;
}

int CHttpBase::getHeadList(const QString& response, QStringList& list)
{
    list.clear();
    const QStringList parts = response.split(QStringLiteral("\r\n\r\n"));
    if (parts.isEmpty())
        return 0;
    const QStringList lines = parts.first().split(QStringLiteral("\r\n"));
    if (lines.isEmpty())
        return 1;
    // A lone status line is left unscanned on purpose: such a reply carries
    // no SessionId and is dropped by the caller.
    if (lines.size() >= 2) {
        for (int i = 0; i < lines.size(); ++i) {
            const QString& line = lines.at(i);
            if (i == 0 && !line.contains(QLatin1String("HTTP")))
                return 0;
            if (line.isEmpty())
                break;
            list.append(line);
        }
    }
    return RET_PARSED;
}

int CHttpBase::getType(const QStringList& list)
{
    QString number;
    for (const QString& line : list) {
        if (!line.contains(QLatin1String("SessionId")))
            continue;
        const QStringList fields = line.split(QLatin1Char(':'));
        if (fields.size() != 2)
            return 0;
        number = fields.at(1);
    }
    return number.toInt(nullptr, 10);
}

int CHttpBase::getBuffItem(const QString& json, const QString& key, QString& value)
{
    cJSON* root = oxa_json_parse(json.toUtf8().constData());
    if (root == nullptr)
        return RET_BADJSON;
    // cJSON_GetObjectItem compares keys without regard to case.
    const cJSON* item = cJSON_GetObjectItem(root, key.toUtf8().constData());
    if (item == nullptr) {
        cJSON_Delete(root);
        return RET_BADJSON;
    }
    char* printed = cJSON_Print(item);
    value = QString::fromUtf8(printed);
    cJSON_free(printed);
    cJSON_Delete(root);
    return RET_PARSED;
}

QString CHttpBase::startHead(const char* method, const QString& path, const char* contentType,
                             int sessionId, const char* userAgent, qint64 contentLength,
                             const char* typeEnd)
{
    return QString::fromLatin1(method) + QLatin1Char(' ') + path + QLatin1String(" HTTP/1.1\r\n")
         + QLatin1String("Content-type: ") + QLatin1String(contentType) + QLatin1String(typeEnd)
         + QLatin1String("Connection: keep-alive\r\n")
         + QStringLiteral("SessionId: %1\r\n").arg(sessionId)
         + QLatin1String("User-Agent: ") + QLatin1String(userAgent) + QLatin1String("\r\n")
         + QStringLiteral("Content-Length: %1\r\n").arg(contentLength);
}

qint64 CHttpBase::bodyLength() const
{
    return body.toUtf8().size();
}
