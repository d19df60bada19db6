#include "CHttp_AppBack.h"

// The application expects the content-type line of "/heart/" and "/reline/"
// to end in a backslash, the letter r and a bare line feed.
static const char* const kOddTypeEnd = "\\r\n";

QString CHttp_AppBack::BackReply(SendType type)
{
    return notice("/back/", type, "\r\n");
}

QString CHttp_AppBack::BackHeart()
{
    return notice("/heart/", 4, kOddTypeEnd);
}

QString CHttp_AppBack::BackReline()
{
    return notice("/reline/", 4, kOddTypeEnd);
}

QString CHttp_AppBack::notice(const char* path, int sessionId, const char* typeEnd)
{
    body.clear();
    head = startHead("POST", QString::fromLatin1(path), "application/json", sessionId, "INFO",
                     bodyLength(), typeEnd) + QLatin1String("\r\n");
    return head;
}
