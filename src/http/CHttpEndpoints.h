#pragma once

#include "CHttpBase.h"

// Request builders, one per server endpoint. The number after each class is
// its SessionId, the number of the item that owns it. A builder holds a
// complete header block from construction on (except CHttp_DetectCancle)
// and rebuilds it on every repaceBuff; configuration values (device
// identifier, server addresses) are read at each rebuild.

// 1: operation log.
class CHttp_Record : public CHttpBase
{
public:
    CHttp_Record();
    void reloadbase() override;
};

// 2: system parameters.
class CHttp_Param : public CHttpBase
{
public:
    CHttp_Param();
    void reloadbase() override;
};

// 3: login.
class CHttp_Load : public CHttpBase
{
public:
    CHttp_Load();
    void reloadbase() override;
};

// 4: heartbeat.
class CHttp_Heart : public CHttpBase
{
public:
    CHttp_Heart();
    void reloadbase() override;
};

// 5: alarm-image archive upload. Only the header block goes through the
// builder; Content-Length is the file length, the upload item writes the
// file itself.
class CHttp_Alarmimage : public CHttpBase
{
public:
    CHttp_Alarmimage();
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
    CHttp_TempImage();
    void reloadbase() override;
};

// 7: detection statistics.
class CHttp_Statistics : public CHttpBase
{
public:
    CHttp_Statistics();
    void reloadbase() override;
};

// 8: areas of interest.
class CHttp_ROI : public CHttpBase
{
public:
    CHttp_ROI();
    void reloadbase() override;
};

// 10: manual stop statistics.
class CHttp_ManualStop : public CHttpBase
{
public:
    CHttp_ManualStop();
    void reloadbase() override;
};

// 11: template removal; sent on the file socket.
class CHttp_DelTemp : public CHttpBase
{
public:
    CHttp_DelTemp();
    void reloadbase() override;
};

// 12: add a reminder.
class CHttp_AddRemind : public CHttpBase
{
public:
    CHttp_AddRemind();
    void reloadbase() override;
};

// 13: delete a reminder.
class CHttp_DelRemind : public CHttpBase
{
public:
    CHttp_DelRemind();
    void reloadbase() override;
};

// 14: product information.
class CHttp_GetProductInfo : public CHttpBase
{
public:
    CHttp_GetProductInfo();
    void reloadbase() override;
};

// 15: NG/OK video.
class CHttp_SaveNgVideo : public CHttpBase
{
public:
    CHttp_SaveNgVideo();
    void reloadbase() override;
};

// 16: alarm text message.
class CHttp_TelInfo : public CHttpBase
{
public:
    CHttp_TelInfo();
    void reloadbase() override;
};

// 17: list reminders.
class cHttp_GetRemind : public CHttpBase
{
public:
    cHttp_GetRemind();
    void reloadbase() override;
};

// 18: detection result.
class CHttp_Statistics2 : public CHttpBase
{
public:
    CHttp_Statistics2();
    void reloadbase() override;
};

// 19: run state.
class CHttp_RunState : public CHttpBase
{
public:
    CHttp_RunState();
    void reloadbase() override;
};

// 20: detection cancelled. No header block until the first repaceBuff.
class CHttp_DetectCancle : public CHttpBase
{
public:
    CHttp_DetectCancle() = default;
    void reloadbase() override;
};
