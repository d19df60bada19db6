// Prints the requests of the endpoint builders, one JSON object per line:
//   {"name": class, "session": SessionId, "request": base64, "body": base64}
// "request" is the complete text as it goes on the wire (for the two image
// uploads, the header block followed by the file bytes); "body" is the body
// the server should read. Opens a configuration store at the given path and
// points it at the given servers; touches no network.
//
// usage: qel_http_dump DB DEVICE_ID INFO_IP INFO_PORT FILE_IP FILE_PORT

#include "CHttpEndpoints.h"
#include "QEL_SQLConf.h"
#include "globals.h"

#include <QCoreApplication>

#include <cstdio>
#include <memory>

namespace {

void print(const char* name, int session, const QByteArray& request, const QByteArray& body)
{
    std::printf("{\"name\": \"%s\", \"session\": %d, \"request\": \"%s\", \"body\": \"%s\"}\n", name, session,
                request.toBase64().constData(), body.toBase64().constData());
}

void printText(const char* name, int session, CHttpBase* builder, const char* newBody = nullptr)
{
    std::unique_ptr<CHttpBase> owned(builder);
    if (newBody != nullptr)
        builder->repaceBuff(QString::fromUtf8(newBody));
    print(name, session, builder->getHttp().toUtf8(), builder->body.toUtf8());
}

void printUpload(const char* name, int session, CHttp_Alarmimage* builder)
{
    std::unique_ptr<CHttp_Alarmimage> owned(builder);
    QByteArray file;
    for (int i = 0; i < 3000; ++i)
        file.append(char(i * 7));   // every byte value, CR LF and NUL included
    file.append("\r\n\r\nGET / HTTP/1.1\r\n\r\n");
    builder->filelength(file.size());
    builder->reloadbase();
    print(name, session, builder->getHttp().toUtf8() + file, file);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s DB DEVICE_ID INFO_IP INFO_PORT FILE_IP FILE_PORT\n", argv[0]);
        return 2;
    }
    QEL_SQLConf conf(nullptr, QString::fromUtf8(argv[1]));
    conf.useInlineName = QString::fromUtf8(argv[2]);
    conf.serverip_info = QString::fromUtf8(argv[3]);
    conf.serverport_info = QString::fromUtf8(argv[4]);
    conf.serverip_file = QString::fromUtf8(argv[5]);
    conf.serverport_file = QString::fromUtf8(argv[6]);
    gConfig = &conf;

    printText("CHttp_Record", 1, new CHttp_Record);
    printText("CHttp_Param", 2, new CHttp_Param, "{\"参数\":\"曝光\",\"value\":12}");
    printText("CHttp_Load", 3, new CHttp_Load);
    printText("CHttp_Heart", 4, new CHttp_Heart);
    printUpload("CHttp_Alarmimage", 5, new CHttp_Alarmimage);
    printUpload("CHttp_TempImage", 6, new CHttp_TempImage);
    printText("CHttp_Statistics", 7, new CHttp_Statistics, "{\"ng\":3,\"ok\":97}");
    printText("CHttp_ROI", 8, new CHttp_ROI, "{\"roi\":[[0,0,10,10]]}");
    printText("CHttp_ManualStop", 10, new CHttp_ManualStop, "{\"reason\":\"换料\"}");
    printText("CHttp_DelTemp", 11, new CHttp_DelTemp, "device_id=AOI-7&name=模板1");
    printText("CHttp_AddRemind", 12, new CHttp_AddRemind, "{\"text\":\"检测\\r\\n提醒\"}");
    printText("CHttp_DelRemind", 13, new CHttp_DelRemind, "{\"id\":5}");
    printText("CHttp_GetProductInfo", 14, new CHttp_GetProductInfo);
    printText("CHttp_SaveNgVideo", 15, new CHttp_SaveNgVideo, "camera=1&result=NG");
    printText("CHttp_TelInfo", 16, new CHttp_TelInfo, "phone=10086&text=报警\r\nline two");
    printText("cHttp_GetRemind", 17, new cHttp_GetRemind);
    printText("CHttp_Statistics2", 18, new CHttp_Statistics2, "{\"result\":\"检测完成\"}");
    printText("CHttp_RunState", 19, new CHttp_RunState, "{\"state\":1}");
    printText("CHttp_DetectCancle", 20, new CHttp_DetectCancle, "{\"cancel\":true}");

    gConfig = nullptr;
    return 0;
}
