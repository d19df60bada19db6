#include "CHttpEndpoints.h"
#include "QEL_SQLConf.h"
#include "globals.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

// One store for the whole suite: its database connection name is fixed.
class HttpEndpoints : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        dir_ = new QTemporaryDir;
        conf_ = new QEL_SQLConf(nullptr, dir_->filePath("sysconf.db"));
    }
    static void TearDownTestSuite()
    {
        gConfig = nullptr;
        delete conf_;
        delete dir_;
    }
    void SetUp() override
    {
        conf_->useInlineName = "AOI-7";
        conf_->serverip_info = "127.0.0.1";
        conf_->serverport_info = "8000";
        conf_->serverip_file = "127.0.0.2";
        conf_->serverport_file = "8080";
        gConfig = conf_;
    }

    static QTemporaryDir* dir_;
    static QEL_SQLConf* conf_;
};

QTemporaryDir* HttpEndpoints::dir_ = nullptr;
QEL_SQLConf* HttpEndpoints::conf_ = nullptr;

#define TAIL(id, agent, len, host) \
    "Connection: keep-alive\r\nSessionId: " id "\r\nUser-Agent: " agent "\r\nContent-Length: " len "\r\nHost: " host "\r\n\r\n"
#define CT_JSON "Content-type: application/json\r\n"
#define CT_FORM "Content-type: application/x-www-form-urlencoded; charset=UTF-8\r\n"
#define CT_MULTI "Content-type: multipart/form-data\r\n"
#define CT_OCTETS "Content-type: application/octet-stream\r\n"
#define INFO_HOST "127.0.0.1:8000"
#define FILE_HOST "127.0.0.2:8080"

struct Row
{
    std::function<CHttpBase*()> make;
    int sessionId;
    const char* request;    // complete request text of a fresh builder
};

template <class T>
std::function<CHttpBase*()> make() { return [] { return new T; }; }

const Row kRows[] = {
    {make<CHttp_Param>(), 2, "POST /vmu/device/sysparam/upload HTTP/1.1\r\n" CT_JSON TAIL("2", "INFO", "0", INFO_HOST)},
    {make<CHttp_Load>(), 3, "POST /vmu/device/login HTTP/1.1\r\n" CT_FORM TAIL("3", "INFO", "15", INFO_HOST) "device_id=AOI-7"},
    {make<CHttp_Heart>(), 4,
     "GET /vmu/device/heartbeat?device_id=AOI-7 HTTP/1.1\r\n" CT_FORM TAIL("4", "INFO", "15", INFO_HOST) "device_id=AOI-7"},
    {make<CHttp_Alarmimage>(), 5, "POST /videowatch/uploadImg/saveTarGz/AOI-7 HTTP/1.1\r\n" CT_OCTETS TAIL("5", "FILE", "0", FILE_HOST)},
    {make<CHttp_TempImage>(), 6, "POST /videowatch/uploadImg/saveTarGz/AOI-7 HTTP/1.1\r\n" CT_OCTETS TAIL("6", "FILE", "0", FILE_HOST)},
    {make<CHttp_Statistics>(), 7, "POST /vmu/device/monitor/statistics/upload HTTP/1.1\r\n" CT_JSON TAIL("7", "INFO", "0", INFO_HOST)},
    {make<CHttp_ROI>(), 8, "POST /vmu/area/param/upload HTTP/1.1\r\n" CT_JSON TAIL("8", "INFO", "0", INFO_HOST)},
    {make<CHttp_ManualStop>(), 10, "POST /vmu/device/stop/statistics/upload HTTP/1.1\r\n" CT_JSON TAIL("10", "INFO", "0", INFO_HOST)},
    {make<CHttp_DelTemp>(), 11, "POST /videowatch/picture/removeTemplate HTTP/1.1\r\n" CT_FORM TAIL("11", "INFO", "0", FILE_HOST)},
    {make<CHttp_AddRemind>(), 12, "POST /vmu/reminder/add HTTP/1.1\r\n" CT_JSON TAIL("12", "INFO", "0", INFO_HOST)},
    {make<CHttp_DelRemind>(), 13, "POST /vmu/reminder/delete HTTP/1.1\r\n" CT_JSON TAIL("13", "INFO", "0", INFO_HOST)},
    {make<CHttp_GetProductInfo>(), 14, "GET /vmu/device/initial?device_id=AOI-7 HTTP/1.1\r\n" CT_MULTI TAIL("14", "INFO", "0", INFO_HOST)},
    {make<CHttp_SaveNgVideo>(), 15, "POST /vmu/device/ngorok HTTP/1.1\r\n" CT_MULTI TAIL("15", "INFO", "0", INFO_HOST)},
    {make<CHttp_TelInfo>(), 16, "POST /service/vcode/alarm/send HTTP/1.1\r\n" CT_MULTI TAIL("16", "INFO", "0", INFO_HOST)},
    {make<cHttp_GetRemind>(), 17, "GET /vmu/device/reminder?device_id=AOI-7 HTTP/1.1\r\n" CT_MULTI TAIL("17", "INFO", "0", INFO_HOST)},
    {make<CHttp_Statistics2>(), 18, "POST /vmu/device/detect_result HTTP/1.1\r\n" CT_JSON TAIL("18", "INFO", "0", INFO_HOST)},
    {make<CHttp_RunState>(), 19, "POST /vmu/device/runstate HTTP/1.1\r\n" CT_JSON TAIL("19", "INFO", "0", INFO_HOST)},
    {make<CHttp_DetectCancle>(), 20, ""},
};

// A request read back the way the send queue does yields its own SessionId.
int sessionIdOf(const QString& request)
{
    QStringList lines;
    CHttpBase::getHeadList(request, lines);
    return CHttpBase::getType(lines);
}

TEST_F(HttpEndpoints, FreshBuilders)
{
    for (const Row& row : kRows) {
        std::unique_ptr<CHttpBase> builder(row.make());
        EXPECT_EQ(builder->getHttp(), QString::fromUtf8(row.request)) << row.sessionId;
        if (row.sessionId != 20) {
            EXPECT_EQ(sessionIdOf(builder->getHttp()), row.sessionId);
        }
    }
}

TEST_F(HttpEndpoints, RebuildCountsUtf8Bytes)
{
    for (const Row& row : kRows) {
        std::unique_ptr<CHttpBase> builder(row.make());
        builder->repaceBuff(QString::fromUtf8("检测"));
        const bool image = row.sessionId == 5 || row.sessionId == 6;
        EXPECT_TRUE(builder->head.contains(image ? "\r\nContent-Length: 0\r\n" : "\r\nContent-Length: 6\r\n"))
            << row.sessionId;
        EXPECT_TRUE(builder->getHttp().endsWith("\r\n\r\n" + QString::fromUtf8("检测")));
        EXPECT_EQ(sessionIdOf(builder->getHttp()), row.sessionId);
    }
    CHttp_DetectCancle cancel;
    cancel.repaceBuff("{}");
    EXPECT_EQ(cancel.getHttp(), "POST /vmu/device/detect_terminate HTTP/1.1\r\n" CT_JSON TAIL("20", "INFO", "2", INFO_HOST) "{}");
}

TEST_F(HttpEndpoints, OperationLogBody)
{
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    CHttp_Record record;
    const qint64 after = QDateTime::currentMSecsSinceEpoch();

    const QRegularExpression form(QString::fromUtf8("^device_id=AOI-7&operater=未登录&utc=(\\d{13})&description=程序启动，相机数1$"));
    const QRegularExpressionMatch m = form.match(record.body);
    ASSERT_TRUE(m.hasMatch()) << record.body.toStdString();
    EXPECT_GE(m.captured(1).toLongLong(), before);
    EXPECT_LE(m.captured(1).toLongLong(), after);
    EXPECT_EQ(record.head, "POST /vmu/device/operate/log HTTP/1.1\r\n" CT_MULTI TAIL("1", "INFO", "90", INFO_HOST));
}

TEST_F(HttpEndpoints, ConfigurationReadAtEachRebuild)
{
    CHttp_Heart heart;
    conf_->useInlineName = "";
    conf_->serverip_info = "127.0.0.9";
    conf_->serverport_info = "9000";
    heart.reloadbase();
    // The body keeps the identifier it was built with.
    EXPECT_EQ(heart.getHttp(), "GET /vmu/device/heartbeat?device_id= HTTP/1.1\r\n" CT_FORM TAIL("4", "INFO", "15", "127.0.0.9:9000")
                               "device_id=AOI-7");
    CHttp_Heart anonymous;
    EXPECT_EQ(anonymous.getHttp(), "GET /vmu/device/heartbeat?device_id= HTTP/1.1\r\n" CT_FORM TAIL("4", "INFO", "10", "127.0.0.9:9000")
                                   "device_id=");
}

TEST_F(HttpEndpoints, FileLength)
{
    CHttp_TempImage image;
    image.filelength(1234);
    EXPECT_TRUE(image.head.contains("Content-Length: 0\r\n")) << "filelength alone does not rebuild";
    image.reloadbase();
    EXPECT_EQ(image.getHttp(), "POST /videowatch/uploadImg/saveTarGz/AOI-7 HTTP/1.1\r\n" CT_OCTETS TAIL("6", "FILE", "1234", FILE_HOST));
    image.filelength(-5);
    image.repaceBuff("ignored for the length");
    EXPECT_TRUE(image.head.contains("\r\nContent-Length: -5\r\n"));
}

}  // namespace
