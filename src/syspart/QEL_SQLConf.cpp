#include "QEL_SQLConf.h"

#include <QDateTime>
#include <QHostInfo>
#include <QVariant>

const char* const QEL_SQLConf::kSuccess = "config success";
const char* const QEL_SQLConf::kOpenError = "config.SQL open error";
const char* const QEL_SQLConf::kIncomplete = "The data is incomplete";

QEL_SQLConf* QEL_SQLConf::instance_ = nullptr;

namespace {

struct KeyDefault
{
    const char* key;
    const char* value;
    const char* description;
    QString QEL_SQLConf::*field;
};

// Load order is the order of inserted rows in a fresh database.
const KeyDefault kKeys[] = {
    {"alarmimage", "/root/bin-AOI/alarmimage/", "报警图片存放的根目录", &QEL_SQLConf::alarmimage},
    {"template", "/root/bin-AOI/", "模板图片存放的根目录", &QEL_SQLConf::template_},
    {"apppath", "/root/bin-AOI/", "编码进程存放的目录", &QEL_SQLConf::apppath},
    {"failpath", "/root/bin-AOI/qel_net/qel_fail/", "保存失败文件或信息的路径", &QEL_SQLConf::failpath},
    {"logpath", "/root/bin-AOI/qel_net/qel_log/", "日志保存路径", &QEL_SQLConf::logpath},
    {"qelpath", "/root/bin-AOI/qel_net/", "qel_net执行工作路径", &QEL_SQLConf::qelpath},
    {"tdata", "/root/bin-AOI/qel_net/data/", "存放临时文件的路径", &QEL_SQLConf::tdata},
    {"serverip_info", "192.168.1.1", "信息的ip地址", &QEL_SQLConf::serverip_info},
    {"serverip_file", "192.168.1.1", "文件的ip地址", &QEL_SQLConf::serverip_file},
    {"serverip_video", "192.168.1.1", "视频流的ip地址", &QEL_SQLConf::serverip_video},
    {"serverport_info", "8000", "信息的端口", &QEL_SQLConf::serverport_info},
    {"serverport_file", "8080", "文件的端口", &QEL_SQLConf::serverport_file},
    {"serverport_video", "8888", "视频流的端口", &QEL_SQLConf::serverport_video},
    {"camera", "4", "使用的最大相机数", &QEL_SQLConf::camera},
    {"detect", "2", "使用的检测序号数目", &QEL_SQLConf::detect},
    {"useInlineName", "_dmrkpf_", "在调试中使用指定的设备号", &QEL_SQLConf::useInlineName},
    {"apppath_send", "/root/bin-AOI/qel_net/Quillon2", "发送app所在的路径", &QEL_SQLConf::apppath_send},
    {"thispath", "/root/bin-AOI/qel_net/sysconf.db", "本db文件所在的绝对路径", &QEL_SQLConf::thispath},
};

// Values travel through the UTF-8 C-string codec on their way into SQL.
QString viaUtf8(const QString& s)
{
    return QString::fromUtf8(s.toUtf8());
}

}  // namespace

QEL_SQLConf* QEL_SQLConf::getInstance(QObject* parent, const QString& dbPath)
{
    if (instance_ == nullptr)
        instance_ = new QEL_SQLConf(parent, dbPath);
    return instance_;
}

QEL_SQLConf::QEL_SQLConf(QObject* parent, const QString& dbPath)
    : QObject(parent)
{
    db_ = QSqlDatabase::addDatabase("QSQLITE", "dbinfo");
    db_.setDatabaseName(dbPath);
    if (!db_.open()) {
        status = kOpenError;
        return;
    }
    query_ = QSqlQuery(db_);

    query_.exec("select name from sqlite_master where name='info_sysconf'");
    if (!query_.next())
        query_.exec("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                    "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)");

    for (const KeyDefault& k : kKeys) {
        QString value = findValue(k.key);
        if (value.isEmpty())
            value = setDefaultValue(k.key, QString::fromUtf8(k.value), QString::fromUtf8(k.description));
        this->*k.field = value;
    }

    // The device identifier is always this machine's name; the stored row is
    // left as it is.
    useInlineName = QHostInfo::localHostName();
    queue_limit_mb = findValue("queue_limit_mb");

    for (const KeyDefault& k : kKeys) {
        if ((this->*k.field).isEmpty()) {
            status = kIncomplete;
            return;
        }
    }
    status = kSuccess;
    // The failure history's table is made by the failure history itself, on
    // its own thread: a write here would hold the start up for as long as
    // another process holds the database.
}

QEL_SQLConf::~QEL_SQLConf()
{
    db_.close();
    // Removes the driver name, not the "dbinfo" connection: the store lives
    // as long as the process, so the connection is never torn down.
    QSqlDatabase::removeDatabase("QSQLITE");
}

QString QEL_SQLConf::findValue(const QString& key)
{
    query_.exec(QString("select 值 from info_sysconf where 信息名称='%1'").arg(key));
    const QString value = query_.next() ? query_.value(0).toString() : QString();
    // An unfinished select holds a read lock that would keep the failure
    // history's writer out of the database.
    query_.finish();
    return value;
}

QString QEL_SQLConf::setDefaultValue(const QString& key, const QString& value, const QString& description)
{
    const QString statement = QString("insert into info_sysconf (信息名称,值,描述) values (\"%1\", \"%2\", \"%3\")")
                                  .arg(viaUtf8(key))
                                  .arg(viaUtf8(value))
                                  .arg(viaUtf8(description));
    query_.exec(statement);
    return findValue(key);
}
