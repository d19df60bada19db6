#pragma once

#include "CHttpBase.h"

// Kind of "/back/" notice; the value is written as its SessionId.
enum SendType : int {
    SEND_ACK = 0,   // acknowledgement of a message received from the application
};

// Notices for the local inspection application: HTTP-shaped header blocks
// without a body and without a Host line.
class CHttp_AppBack : public CHttpBase
{
public:
    // "/back/": acknowledges a message from the application.
    QString BackReply(SendType type);
    // "/heart/": the server link is alive after a heartbeat.
    QString BackHeart();
    // "/reline/": the server connection is lost, pending requests were saved.
    QString BackReline();

private:
    QString notice(const char* path, int sessionId, const char* typeEnd);
};
