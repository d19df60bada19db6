#pragma once

#include <QObject>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QStringList>

// The agent's configuration: the key/value table info_sysconf of one SQLite
// file, completed with built-in defaults on first run. It also creates the
// failure history table info_failhistory, which QEL_FailStore keeps. One
// instance per process (gConfig).
class QEL_SQLConf : public QObject
{
    Q_OBJECT
public:
    static QEL_SQLConf* getInstance(QObject* parent, const QString& dbPath);

    // Public so that tests can open several stores one after another;
    // the agent itself only ever goes through getInstance.
    QEL_SQLConf(QObject* parent, const QString& dbPath);
    ~QEL_SQLConf() override;

    QString findValue(const QString& key);
    QString setDefaultValue(const QString& key, const QString& value, const QString& description);

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

    QString status;

    static const char* const kSuccess;      // "config success"
    static const char* const kOpenError;    // "config.SQL open error"
    static const char* const kIncomplete;   // "The data is incomplete"

private:
    static QEL_SQLConf* instance_;

    QSqlDatabase db_;
    QSqlQuery query_;
};
