#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QSqlQuery>
#include <QTemporaryDir>

#include <cstdlib>
#include <memory>

#include "QEL_SQLConf.h"

namespace {

struct Key { const char* key; const char* value; const char* description; QString QEL_SQLConf::*field; };

// The keys in load order with their defaults and stored descriptions.
const Key kKeys[] = {
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

// The store's connection name is fixed, so only one store may be alive; the
// deleter also drops the connection the store leaves registered.
using Store = std::unique_ptr<QEL_SQLConf, void (*)(QEL_SQLConf*)>;
Store openStore(const QString& path)
{
    return Store(new QEL_SQLConf(nullptr, path), [](QEL_SQLConf* s) {
        delete s;
        QSqlDatabase::removeDatabase(QStringLiteral("dbinfo"));
    });
}

// A second, independent connection to the same file.
struct Db
{
    explicit Db(const QString& path) : name_(QStringLiteral("inspect%1").arg(counter_++))
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
        db.setDatabaseName(path);
        EXPECT_TRUE(db.open());
    }
    ~Db() { QSqlDatabase::database(name_, false).close(); QSqlDatabase::removeDatabase(name_); }
    bool exec(const QString& sql) { return QSqlQuery(QSqlDatabase::database(name_, false)).exec(sql); }
    // The first column of every row `sql` returns.
    QStringList select(const QString& sql)
    {
        QStringList out;
        QSqlQuery q(QSqlDatabase::database(name_, false));
        for (q.exec(sql); q.next();)
            out << q.value(0).toString();
        return out;
    }
    QStringList tables() { return select(QStringLiteral("select name from sqlite_master where type='table' order by name")); }
    static inline int counter_ = 0;
    QString name_;
};

class SQLConfTest : public ::testing::Test
{
protected:
    // A database holding every key but `leftOut` with its default, plus `extraSql`.
    void makeDb(const char* leftOut, const QString& extraSql = QString())
    {
        Db db(path_);
        ASSERT_TRUE(db.exec(QStringLiteral("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                                           "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)")));
        for (const Key& k : kKeys)
            ASSERT_TRUE(qstrcmp(k.key, leftOut) == 0
                        || db.exec(QStringLiteral("insert into info_sysconf values ('%1','%2','test')").arg(k.key, k.value)));
        ASSERT_TRUE(extraSql.isEmpty() || db.exec(extraSql));
    }

    QTemporaryDir tmp_;
    QString path_ = tmp_.filePath(QStringLiteral("sysconf.db"));
};

TEST_F(SQLConfTest, MissingOrEmptyFileIsFilledWithDefaults)
{
    for (bool createEmpty : {false, true}) {
        SCOPED_TRACE(createEmpty ? "empty file" : "missing file");
        QFile::remove(path_);
        ASSERT_TRUE(!createEmpty || QFile(path_).open(QIODevice::WriteOnly));
        Store store = openStore(path_);
        EXPECT_EQ(store->status, QStringLiteral("config success"));
        QStringList expected;
        for (const Key& k : kKeys) {
            expected << QStringLiteral("%1|%2|%3").arg(k.key, k.value, k.description);
            const bool host = k.field == &QEL_SQLConf::useInlineName;   // never the stored value
            EXPECT_EQ((*store).*k.field, host ? QHostInfo::localHostName() : QString::fromUtf8(k.value)) << k.key;
        }
        Db db(path_);
        EXPECT_EQ(db.tables(), QStringList({"info_failhistory", "info_sysconf"}));
        EXPECT_EQ(db.select(QStringLiteral("select 信息名称||'|'||值||'|'||描述 from info_sysconf order by rowid")),
                  expected);
    }
}

// Stored values are used as they are and never written back; missing rows are
// appended in key order after the existing ones.
TEST_F(SQLConfTest, StoredValuesWinAndMissingRowsAreAdded)
{
    makeDb("template", QString::fromUtf8("update info_sysconf set 值=(case 信息名称 when 'serverport_info' then '9000' "
                                         "when 'apppath' then '/opt/it''s 图片/' else 值 end)"));
    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("config success"));
    EXPECT_EQ(store->serverport_info, QStringLiteral("9000"));
    EXPECT_EQ(store->apppath, QString::fromUtf8("/opt/it's 图片/"));   // only the key is substituted
    EXPECT_EQ(store->template_, QStringLiteral("/root/bin-AOI/"));
    store.reset();

    Db db(path_);
    EXPECT_EQ(db.select(QStringLiteral("select 值 from info_sysconf where 信息名称='serverport_info'")),
              QStringList{"9000"});
    const QStringList keys = db.select(QStringLiteral("select 信息名称 from info_sysconf order by rowid"));
    EXPECT_EQ(keys.size(), static_cast<int>(std::size(kKeys)));
    EXPECT_EQ(keys.last(), QStringLiteral("template"));
}

// A key left without a value makes the data incomplete, and the failure history
// table is then not made. A stored empty value cannot be replaced by the default
// (primary key); nor can a missing one while another connection holds the write
// lock (root ignores file modes; the driver's busy time-out takes about 5 s).
TEST_F(SQLConfTest, KeyWithoutValueIsIncomplete)
{
    for (bool locked : {false, true}) {
        QFile::remove(path_);
        makeDb("camera", locked ? QString() : QStringLiteral("insert into info_sysconf values ('camera','','test')"));
        Db other(path_);
        ASSERT_TRUE(!locked || other.exec(QStringLiteral("BEGIN IMMEDIATE")));
        Store store = openStore(path_);
        EXPECT_EQ(store->status, QStringLiteral("The data is incomplete")) << locked;
        EXPECT_TRUE(store->camera.isEmpty());
        store.reset();
        ASSERT_TRUE(!locked || other.exec(QStringLiteral("ROLLBACK")));
        EXPECT_EQ(other.tables(), QStringList({"info_sysconf"}));
    }
}

TEST_F(SQLConfTest, NotADatabaseIsIncomplete)
{
    QFile f(path_);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(QByteArray(4096, 'x')) == 4096 && f.flush());
    EXPECT_EQ(openStore(path_)->status, QStringLiteral("The data is incomplete"));
}

TEST_F(SQLConfTest, UnopenablePath)
{
    Store store = openStore(tmp_.filePath(QStringLiteral("missing/dir/sysconf.db")));
    EXPECT_EQ(store->status, QStringLiteral("config.SQL open error"));
    for (const Key& k : kKeys)
        EXPECT_TRUE(((*store).*k.field).isEmpty()) << k.key;
    EXPECT_FALSE(QFileInfo::exists(tmp_.filePath(QStringLiteral("missing"))));
}

// getInstance keeps its instance for the rest of the process: run it in a child.
TEST(SQLConfSingletonDeathTest, FirstPathWins)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            QTemporaryDir tmp;
            const QString first = tmp.filePath(QStringLiteral("first.db"));
            const QString second = tmp.filePath(QStringLiteral("second.db"));
            QEL_SQLConf* a = QEL_SQLConf::getInstance(nullptr, first);
            const bool ok = a == QEL_SQLConf::getInstance(nullptr, second)
                            && a->status == QStringLiteral("config success") && QFileInfo::exists(first)
                            && !QFileInfo::exists(second);
            tmp.remove();
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
