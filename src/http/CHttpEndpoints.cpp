#include "CHttpEndpoints.h"

#include <QDateTime>

namespace {

enum class Server { Info, File };

// One row of the endpoint table.
struct Endpoint
{
    int sessionId;
    const char* method;
    const char* path;           // "%1" stands for the device identifier
    const char* contentType;
    const char* userAgent;
    Server host;
};

const char* const kJson = "application/json";
const char* const kForm = "application/x-www-form-urlencoded; charset=UTF-8";
const char* const kMultipart = "multipart/form-data";
const char* const kOctets = "application/octet-stream";

const Endpoint kRecord{1, "POST", "/vmu/device/operate/log", kMultipart, "INFO", Server::Info};
const Endpoint kParam{2, "POST", "/vmu/device/sysparam/upload", kJson, "INFO", Server::Info};
const Endpoint kLoad{3, "POST", "/vmu/device/login", kForm, "INFO", Server::Info};
const Endpoint kHeart{4, "GET", "/vmu/device/heartbeat?device_id=%1", kForm, "INFO", Server::Info};
const Endpoint kAlarmimage{5, "POST", "/videowatch/uploadImg/saveTarGz/%1", kOctets, "FILE", Server::File};
const Endpoint kTempImage{6, "POST", "/videowatch/uploadImg/saveTarGz/%1", kOctets, "FILE", Server::File};
const Endpoint kStatistics{7, "POST", "/vmu/device/monitor/statistics/upload", kJson, "INFO", Server::Info};
const Endpoint kROI{8, "POST", "/vmu/area/param/upload", kJson, "INFO", Server::Info};
const Endpoint kManualStop{10, "POST", "/vmu/device/stop/statistics/upload", kJson, "INFO", Server::Info};
// Names the information socket but the file server: its item sends it on the file socket.
const Endpoint kDelTemp{11, "POST", "/videowatch/picture/removeTemplate", kForm, "INFO", Server::File};
const Endpoint kAddRemind{12, "POST", "/vmu/reminder/add", kJson, "INFO", Server::Info};
const Endpoint kDelRemind{13, "POST", "/vmu/reminder/delete", kJson, "INFO", Server::Info};
const Endpoint kGetProductInfo{14, "GET", "/vmu/device/initial?device_id=%1", kMultipart, "INFO", Server::Info};
const Endpoint kSaveNgVideo{15, "POST", "/vmu/device/ngorok", kMultipart, "INFO", Server::Info};
const Endpoint kTelInfo{16, "POST", "/service/vcode/alarm/send", kMultipart, "INFO", Server::Info};
const Endpoint kGetRemind{17, "GET", "/vmu/device/reminder?device_id=%1", kMultipart, "INFO", Server::Info};
const Endpoint kStatistics2{18, "POST", "/vmu/device/detect_result", kJson, "INFO", Server::Info};
const Endpoint kRunState{19, "POST", "/vmu/device/runstate", kJson, "INFO", Server::Info};
const Endpoint kDetectCancle{20, "POST", "/vmu/device/detect_terminate", kJson, "INFO", Server::Info};

QString endpointHead(const HttpPeers& peers, const Endpoint& e, qint64 contentLength)
{
    const QString path = QString::fromLatin1(e.path).replace(QLatin1String("%1"), peers.deviceId);
    const bool info = e.host == Server::Info;
    return CHttpBase::startHead(e.method, path, e.contentType, e.sessionId, e.userAgent, contentLength)
         + QStringLiteral("Host: %1:%2\r\n\r\n")
               .arg(info ? peers.infoHost : peers.fileHost, info ? peers.infoPort : peers.filePort);
}

}  // namespace

CHttp_Record::CHttp_Record(const HttpPeers& peers)
    : CHttpEndpoint(peers)
{
    body = QStringLiteral("device_id=%1&operater=%2&utc=%3&description=%4")
               .arg(peers_.deviceId, QString::fromUtf8("未登录"),
                    QString::number(QDateTime::currentMSecsSinceEpoch()),
                    QString::fromUtf8("程序启动，相机数1"));
    reloadbase();
}

void CHttp_Record::reloadbase() { head = endpointHead(peers_, kRecord, bodyLength()); }

CHttp_Param::CHttp_Param(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_Param::reloadbase() { head = endpointHead(peers_, kParam, bodyLength()); }

CHttp_Load::CHttp_Load(const HttpPeers& peers)
    : CHttpEndpoint(peers)
{
    body = QStringLiteral("device_id=%1").arg(peers_.deviceId);
    reloadbase();
}

void CHttp_Load::reloadbase() { head = endpointHead(peers_, kLoad, bodyLength()); }

CHttp_Heart::CHttp_Heart(const HttpPeers& peers)
    : CHttpEndpoint(peers)
{
    body = QStringLiteral("device_id=%1").arg(peers_.deviceId);
    reloadbase();
}

void CHttp_Heart::reloadbase() { head = endpointHead(peers_, kHeart, bodyLength()); }

CHttp_Alarmimage::CHttp_Alarmimage(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_Alarmimage::reloadbase() { head = endpointHead(peers_, kAlarmimage, fileLength_); }
void CHttp_Alarmimage::filelength(int length) { fileLength_ = length; }

CHttp_TempImage::CHttp_TempImage(const HttpPeers& peers) : CHttp_Alarmimage(peers) { reloadbase(); }
void CHttp_TempImage::reloadbase() { head = endpointHead(peers_, kTempImage, fileLength_); }

CHttp_Statistics::CHttp_Statistics(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_Statistics::reloadbase() { head = endpointHead(peers_, kStatistics, bodyLength()); }

CHttp_ROI::CHttp_ROI(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_ROI::reloadbase() { head = endpointHead(peers_, kROI, bodyLength()); }

CHttp_ManualStop::CHttp_ManualStop(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_ManualStop::reloadbase() { head = endpointHead(peers_, kManualStop, bodyLength()); }

CHttp_DelTemp::CHttp_DelTemp(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_DelTemp::reloadbase() { head = endpointHead(peers_, kDelTemp, bodyLength()); }

CHttp_AddRemind::CHttp_AddRemind(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_AddRemind::reloadbase() { head = endpointHead(peers_, kAddRemind, bodyLength()); }

CHttp_DelRemind::CHttp_DelRemind(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_DelRemind::reloadbase() { head = endpointHead(peers_, kDelRemind, bodyLength()); }

CHttp_GetProductInfo::CHttp_GetProductInfo(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_GetProductInfo::reloadbase() { head = endpointHead(peers_, kGetProductInfo, bodyLength()); }

CHttp_SaveNgVideo::CHttp_SaveNgVideo(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_SaveNgVideo::reloadbase() { head = endpointHead(peers_, kSaveNgVideo, bodyLength()); }

CHttp_TelInfo::CHttp_TelInfo(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_TelInfo::reloadbase() { head = endpointHead(peers_, kTelInfo, bodyLength()); }

cHttp_GetRemind::cHttp_GetRemind(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void cHttp_GetRemind::reloadbase() { head = endpointHead(peers_, kGetRemind, bodyLength()); }

CHttp_Statistics2::CHttp_Statistics2(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_Statistics2::reloadbase() { head = endpointHead(peers_, kStatistics2, bodyLength()); }

CHttp_RunState::CHttp_RunState(const HttpPeers& peers) : CHttpEndpoint(peers) { reloadbase(); }
void CHttp_RunState::reloadbase() { head = endpointHead(peers_, kRunState, bodyLength()); }

void CHttp_DetectCancle::reloadbase() { head = endpointHead(peers_, kDetectCancle, bodyLength()); }
