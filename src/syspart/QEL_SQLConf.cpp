#include "QEL_SQLConf.h"

#include <QFileInfo>
#include <QHostInfo>
#include <QSqlError>
#include <QVariant>
#include <arpa/inet.h>

const char* const QEL_SQLConf::kSuccess = "config success";
const char* const QEL_SQLConf::kOpenError = "config.SQL open error";
const char* const QEL_SQLConf::kIncomplete = "The data is incomplete";

namespace {

using K = QEL_SQLConf::Key;

// Load order is the order of inserted rows in a fresh database.
const QList<K> kKeys = {
    {K::Directory, "alarmimage", "/root/bin-AOI/alarmimage/", "报警图片存放的根目录", &QEL_Settings::alarmimage},
    {K::Directory, "template", "/root/bin-AOI/", "模板图片存放的根目录", &QEL_Settings::template_},
    {K::Directory, "apppath", "/root/bin-AOI/", "编码进程存放的目录", &QEL_Settings::apppath},
    {K::Directory, "failpath", "/root/bin-AOI/qel_net/qel_fail/", "保存失败文件或信息的路径", &QEL_Settings::failpath},
    {K::Directory, "logpath", "/root/bin-AOI/qel_net/qel_log/", "日志保存路径", &QEL_Settings::logpath},
    {K::Directory, "qelpath", "/root/bin-AOI/qel_net/", "qel_net执行工作路径", &QEL_Settings::qelpath},
    {K::Directory, "tdata", "/root/bin-AOI/qel_net/data/", "存放临时文件的路径", &QEL_Settings::tdata},
    {K::Address, "serverip_info", "192.168.1.1", "信息的ip地址", &QEL_Settings::serverip_info},
    {K::Address, "serverip_file", "192.168.1.1", "文件的ip地址", &QEL_Settings::serverip_file},
    {K::Address, "serverip_video", "192.168.1.1", "视频流的ip地址", &QEL_Settings::serverip_video},
    {K::Port, "serverport_info", "8000", "信息的端口", &QEL_Settings::serverport_info},
    {K::Port, "serverport_file", "8080", "文件的端口", &QEL_Settings::serverport_file},
    {K::Port, "serverport_video", "8888", "视频流的端口", &QEL_Settings::serverport_video},
    {K::Count, "camera", "4", "使用的最大相机数", &QEL_Settings::camera},
    {K::Count, "detect", "2", "使用的检测序号数目", &QEL_Settings::detect},
    {K::Text, "useInlineName", "_dmrkpf_", "在调试中使用指定的设备号", &QEL_Settings::useInlineName},
    {K::Text, "apppath_send", "/root/bin-AOI/qel_net/Quillon2", "发送app所在的路径", &QEL_Settings::apppath_send},
    {K::Text, "thispath", "/root/bin-AOI/qel_net/sysconf.db", "本db文件所在的绝对路径", &QEL_Settings::thispath},
};

const K* findKey(const QString& name)
{
    for (const K& k : kKeys)
        if (name == QLatin1String(k.name))
            return &k;
    return nullptr;
}

// Digits only (no sign, no spaces), from `low` to `high`.
bool wholeNumberIn(const QString& value, int low, int high)
{
    bool ok = false;
    const int n = value.toInt(&ok, 10);
    return ok && !value.startsWith(QLatin1Char('+')) && n >= low && n <= high;
}

// Values travel through the UTF-8 C-string codec on their way into SQL.
QString viaUtf8(const QString& s)
{
    return QString::fromUtf8(s.toUtf8());
}

}  // namespace

const QList<QEL_SQLConf::Key>& QEL_SQLConf::keys()
{
    return kKeys;
}

const QStringList& QEL_SQLConf::optionalKeys()
{
    static const QStringList optional{QStringLiteral("queue_limit_mb")};
    return optional;
}

QEL_SQLConf::QEL_SQLConf(QObject* parent, const QString& dbPath, Access access)
    : QObject(parent)
{
    db_ = QSqlDatabase::addDatabase("QSQLITE", "dbinfo");
    db_.setDatabaseName(dbPath);
    // Only start-up makes a database; the integrator's commands never do.
    if (access == Access::Inspect)
        db_.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
    if ((access != Access::Start && !QFileInfo(dbPath).isFile()) || !db_.open()) {
        status = kOpenError;
        return;
    }
    query_ = QSqlQuery(db_);

    query_.exec("select name from sqlite_master where name='info_sysconf'");
    const bool hasTable = query_.next();
    query_.finish();
    if (!hasTable && access == Access::Start)
        query_.exec("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                    "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)");

    for (const Key& k : kKeys) {
        QString value = hasTable ? findValue(k.name) : QString();
        if (value.isEmpty()) {
            missing << QString::fromLatin1(k.name);
            // Only start-up completes the store.
            if (access == Access::Start)
                value = setDefaultValue(k.name, QString::fromUtf8(k.value), QString::fromUtf8(k.description));
        }
        this->*k.field = value;
    }

    // The device identifier is always this machine's name; the stored row is
    // left as it is.
    useInlineName = QHostInfo::localHostName();
    if (hasTable)
        queue_limit_mb = findValue("queue_limit_mb");

    for (const Key& k : kKeys) {
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
    query_ = QSqlQuery();
    db_.close();
    db_ = QSqlDatabase();
    QSqlDatabase::removeDatabase("dbinfo");
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

bool QEL_SQLConf::setValues(const QList<QPair<QString, QString>>& pairs, QString* error)
{
    if (status == kOpenError) {
        *error = QStringLiteral("the database cannot be opened");
        return false;
    }
    QSqlQuery q(db_);
    bool ok = db_.transaction()
           && q.exec(QStringLiteral("CREATE TABLE IF NOT EXISTS info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                                    "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)"));
    for (int i = 0; ok && i < pairs.size(); ++i) {
        const K* k = findKey(pairs[i].first);
        ok = q.prepare(QStringLiteral("insert into info_sysconf (信息名称,值,描述) values (?, ?, ?) "
                                      "on conflict(信息名称) do update set 值=excluded.值"));
        q.addBindValue(pairs[i].first);
        q.addBindValue(pairs[i].second);
        q.addBindValue(k ? QString::fromUtf8(k->description) : QStringLiteral(""));
        ok = ok && q.exec();
    }
    if (ok && db_.commit())
        return true;
    *error = (q.lastError().isValid() ? q.lastError() : db_.lastError()).text();
    db_.rollback();
    return false;
}

qint64 QEL_SQLConf::queueLimitMb(const QString& text)
{
    if (text.trimmed().isEmpty())
        return 0;
    bool ok = false;
    const qint64 mb = text.trimmed().toLongLong(&ok, 10);
    return ok && mb > 0 && mb <= (1LL << 30) ? mb : -1;
}

QString QEL_SQLConf::problemWith(const QString& key, const QString& value)
{
    const K* k = findKey(key);
    if (optionalKeys().contains(key))
        return queueLimitMb(value) < 0 ? QStringLiteral("not a number of MiB above 0 (empty: the default 1024)")
                                       : QString();
    if (k == nullptr) {
        QStringList names;
        for (const K& known : kKeys)
            names << QString::fromLatin1(known.name);
        return QStringLiteral("unknown key (the keys are %1)").arg((names + optionalKeys()).join(QLatin1String(", ")));
    }
    if (value.isEmpty())
        return QStringLiteral("empty: the agent would stop with \"%1\"").arg(QLatin1String(kIncomplete));
    if (value.trimmed() != value)
        return QStringLiteral("has white space around it");
    // The agent reads a key back with the value quoted in its statement.
    if (value.contains(QLatin1Char('\'')))
        return QStringLiteral("holds a ' which the agent cannot read back");
    switch (k->kind) {
    case K::Directory:
        if (!value.startsWith(QLatin1Char('/')) || !value.endsWith(QLatin1Char('/')))
            return QStringLiteral("not an absolute directory ending in / (the agent appends names to it)");
        break;
    case K::Address: {
        // The video side takes only a dotted address, the sockets the same.
        in_addr a;
        if (inet_pton(AF_INET, value.toLatin1().constData(), &a) != 1)
            return QStringLiteral("not an IPv4 address such as 10.1.2.3");
        break;
    }
    case K::Port:
        if (!wholeNumberIn(value, 1, 65535))
            return QStringLiteral("not a port from 1 to 65535");
        break;
    case K::Count:
        if (!wholeNumberIn(value, 1, 100))
            return QStringLiteral("not a whole number from 1 to 100");
        break;
    case K::Text:
        break;
    }
    return QString();
}
