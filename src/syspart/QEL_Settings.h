#pragma once

#include <QString>

#include "CHttpEndpoints.h"

// The configuration values as the agent uses them: read once at start-up
// (QEL_SQLConf) and handed to the console, which hands each part what it
// needs when it makes it. A value: copies may be read on any thread.
struct QEL_Settings
{
    // Values as stored (numbers too are text), in load order.
    QString alarmimage;
    QString template_;          // key "template"
    QString apppath;
    QString failpath;
    QString logpath;
    QString qelpath;
    QString tdata;
    QString serverip_info;
    QString serverip_file;
    QString serverip_video;
    QString serverport_info;
    QString serverport_file;
    QString serverport_video;
    QString camera;
    QString detect;
    QString useInlineName;      // always the host name in memory
    QString apppath_send;
    QString thispath;
    // Optional keys: read when present, never written.
    QString queue_limit_mb;     // the failure history's budget in MiB (empty: the default)

    // What the request builders take: the device identifier and the servers.
    HttpPeers httpPeers() const
    {
        return HttpPeers{useInlineName, serverip_info, serverport_info, serverip_file, serverport_file};
    }
};
