#pragma once

#include "CHttpBase.h"

// Request builders, one per server endpoint. The number after each class is
// its SessionId, the number of the item that owns it. A builder holds a
// complete header block from construction on (except CHttp_DetectCancle)
// and rebuilds it on every repaceBuff, from the configuration values it was
// made with.

// What the builders take from the configuration: the device identifier and
// the two servers as the Host line names them. A value, never changed once
// made, so a copy may be read on any thread.
struct HttpPeers
{
    QString deviceId;
    QString infoHost, infoPort;
    QString fileHost, filePort;
};

class CHttpEndpoint : public CHttpBase
{
public:
    explicit CHttpEndpoint(const HttpPeers& peers)
        : peers_(peers)
    {
    }
    const HttpPeers& peers() const { return peers_; }

protected:
    const HttpPeers peers_;
};

// 1: operation log.
class CHttp_Record : public CHttpEndpoint
{
public:
    explicit CHttp_Record(const HttpPeers& peers);
    void reloadbase() override;
};

// 2: system parameters.
class CHttp_Param : public CHttpEndpoint
{
public:
    explicit CHttp_Param(const HttpPeers& peers);
    void reloadbase() override;
};

// 3: login.
class CHttp_Load : public CHttpEndpoint
{
public:
    explicit CHttp_Load(const HttpPeers& peers);
    void reloadbase() override;
};

// 4: heartbeat.
class CHttp_Heart : public CHttpEndpoint
{
public:
    explicit CHttp_Heart(const HttpPeers& peers);
    void reloadbase() override;
};

// 5: alarm-image archive upload. Only the header block goes through the
// builder; Content-Length is the file length, the upload item writes the
// file itself.
class CHttp_Alarmimage : public CHttpEndpoint
{
public:
    explicit CHttp_Alarmimage(const HttpPeers& peers);
    void reloadbase() override;
    // Stores the length for the next rebuild; does not rebuild.
    void filelength(int length);

protected:
    qint32 fileLength_ = 0;
};

// 6: template-image archive upload, same request as 5.
class CHttp_TempImage : public CHttp_Alarmimage
{
public:
    explicit CHttp_TempImage(const HttpPeers& peers);
    void reloadbase() override;
};

// 7: detection statistics.
class CHttp_Statistics : public CHttpEndpoint
{
public:
    explicit CHttp_Statistics(const HttpPeers& peers);
    void reloadbase() override;
};

// 8: areas of interest.
class CHttp_ROI : public CHttpEndpoint
{
public:
    explicit CHttp_ROI(const HttpPeers& peers);
    void reloadbase() override;
};

// 10: manual stop statistics.
class CHttp_ManualStop : public CHttpEndpoint
{
public:
    explicit CHttp_ManualStop(const HttpPeers& peers);
    void reloadbase() override;
};

// 11: template removal; sent on the file socket.
class CHttp_DelTemp : public CHttpEndpoint
{
public:
    explicit CHttp_DelTemp(const HttpPeers& peers);
    void reloadbase() override;
};

// 12: add a reminder.
class CHttp_AddRemind : public CHttpEndpoint
{
public:
    explicit CHttp_AddRemind(const HttpPeers& peers);
    void reloadbase() override;
};

// 13: delete a reminder.
class CHttp_DelRemind : public CHttpEndpoint
{
public:
    explicit CHttp_DelRemind(const HttpPeers& peers);
    void reloadbase() override;
};

// 14: product information.
class CHttp_GetProductInfo : public CHttpEndpoint
{
public:
    explicit CHttp_GetProductInfo(const HttpPeers& peers);
    void reloadbase() override;
};

// 15: NG/OK video.
class CHttp_SaveNgVideo : public CHttpEndpoint
{
public:
    explicit CHttp_SaveNgVideo(const HttpPeers& peers);
    void reloadbase() override;
};

// 16: alarm text message.
class CHttp_TelInfo : public CHttpEndpoint
{
public:
    explicit CHttp_TelInfo(const HttpPeers& peers);
    void reloadbase() override;
};

// 17: list reminders.
class cHttp_GetRemind : public CHttpEndpoint
{
public:
    explicit cHttp_GetRemind(const HttpPeers& peers);
    void reloadbase() override;
};

// 18: detection result.
class CHttp_Statistics2 : public CHttpEndpoint
{
public:
    explicit CHttp_Statistics2(const HttpPeers& peers);
    void reloadbase() override;
};

// 19: run state.
class CHttp_RunState : public CHttpEndpoint
{
public:
    explicit CHttp_RunState(const HttpPeers& peers);
    void reloadbase() override;
};

// 20: detection cancelled. No header block until the first repaceBuff.
class CHttp_DetectCancle : public CHttpEndpoint
{
public:
    explicit CHttp_DetectCancle(const HttpPeers& peers)
        : CHttpEndpoint(peers)
    {
    }
    void reloadbase() override;
};
