// The configuration store's start-up rules.
#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <memory>

#include "QEL_SQLConf.h"

namespace {

class SQLConf : public ::testing::Test
{
protected:
    // The store's connection name is fixed, so only one store may be alive;
    // the deleter also drops the connection the store leaves registered.
    using Store = std::unique_ptr<QEL_SQLConf, void (*)(QEL_SQLConf*)>;
    Store open(const QString& path)
    {
        return Store(new QEL_SQLConf(nullptr, path), [](QEL_SQLConf* s) {
            delete s;
            QSqlDatabase::removeDatabase(QStringLiteral("dbinfo"));
        });
    }
    // The first column of what each statement returns, through a connection of the test's own.
    QStringList sql(const QStringList& statements)
    {
        QStringList out;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("inspect"));
            db.setDatabaseName(path_);
            EXPECT_TRUE(db.open());
            for (const QString& s : statements) {
                QSqlQuery q(db);
                EXPECT_TRUE(q.exec(s)) << s.toStdString();
                while (q.next())
                    out << q.value(0).toString();
            }
        }
        QSqlDatabase::removeDatabase(QStringLiteral("inspect"));
        return out;
    }
    // A store of the defaults, changed by `statements` while the agent is away.
    void defaultsThen(const QStringList& statements)
    {
        ASSERT_EQ(open(path_)->status, QEL_SQLConf::kSuccess);
        sql(statements);
    }
    QTemporaryDir tmp_;
    QString path_ = tmp_.filePath(QStringLiteral("sysconf.db"));
};

TEST_F(SQLConf, MissingOrEmptyFileIsFilledWithDefaults)
{
    for (bool createEmpty : {false, true}) {
        SCOPED_TRACE(createEmpty ? "empty file" : "missing file");
        QFile::remove(path_);
        ASSERT_TRUE(!createEmpty || QFile(path_).open(QIODevice::WriteOnly));
        Store store = open(path_);
        EXPECT_EQ(store->status, QEL_SQLConf::kSuccess);
        EXPECT_EQ(store->serverport_info, "8000");
        EXPECT_EQ(store->alarmimage, "/root/bin-AOI/alarmimage/");
        EXPECT_EQ(store->useInlineName, QHostInfo::localHostName());    // never the stored value
        // The failure history makes its own table, off the start path.
        EXPECT_EQ(sql({"select name from sqlite_master where type='table' order by name"}),
                  QStringList({"info_sysconf"}));
        EXPECT_EQ(sql({"select count(*) from info_sysconf where 值 != '' and 描述 != ''"}), QStringList{"18"});
    }
}

// Stored values are used as they are and never written back; a missing row
// is appended after the existing ones.
TEST_F(SQLConf, StoredValuesWinAndMissingRowsAreAdded)
{
    defaultsThen({"delete from info_sysconf where 信息名称='template'",
                  QString::fromUtf8("update info_sysconf set 值=(case 信息名称 when 'serverport_info' then '9000' "
                                    "when 'apppath' then '/opt/it''s 图片/' else 值 end)")});
    Store store = open(path_);
    EXPECT_EQ(store->status, QEL_SQLConf::kSuccess);
    EXPECT_EQ(store->serverport_info, "9000");
    EXPECT_EQ(store->apppath, QString::fromUtf8("/opt/it's 图片/"));
    EXPECT_EQ(store->template_, "/root/bin-AOI/");
    store.reset();
    EXPECT_EQ(sql({"select 值 from info_sysconf where 信息名称='serverport_info'"}), QStringList{"9000"});
    const QStringList stored = sql({"select 信息名称 from info_sysconf order by rowid"});
    EXPECT_EQ(stored.size(), 18);
    EXPECT_EQ(stored.last(), "template");
}

// A stored empty value cannot be replaced by the default (primary key): the
// data is incomplete.
TEST_F(SQLConf, AnEmptyValueLeavesTheDataIncomplete)
{
    defaultsThen({"update info_sysconf set 值='' where 信息名称='camera'"});
    Store store = open(path_);
    EXPECT_EQ(store->status, "The data is incomplete");
    EXPECT_TRUE(store->camera.isEmpty());
}

TEST_F(SQLConf, UnreadableFiles)
{
    QFile f(path_);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(QByteArray(4096, 'x')) == 4096 && f.flush());
    EXPECT_EQ(open(path_)->status, "The data is incomplete");
    Store store = open(tmp_.filePath(QStringLiteral("missing/dir/sysconf.db")));
    EXPECT_EQ(store->status, "config.SQL open error");
    EXPECT_TRUE(store->camera.isEmpty() && store->serverip_info.isEmpty());
    EXPECT_FALSE(QFileInfo::exists(tmp_.filePath(QStringLiteral("missing"))));
}

// The integrator's commands open a store without making or completing it.
TEST_F(SQLConf, InspectingOrEditingNeverMakesOrCompletes)
{
    for (auto access : {QEL_SQLConf::Access::Inspect, QEL_SQLConf::Access::Edit})
        EXPECT_EQ(QEL_SQLConf(nullptr, path_, access).status, QEL_SQLConf::kOpenError);
    EXPECT_FALSE(QFileInfo::exists(path_));
    defaultsThen({"delete from info_sysconf where 信息名称='detect'"});
    {
        QEL_SQLConf store(nullptr, path_, QEL_SQLConf::Access::Inspect);
        EXPECT_EQ(store.missing, QStringList{"detect"});
        EXPECT_EQ(store.status, QEL_SQLConf::kIncomplete);
    }
    EXPECT_EQ(sql({"select count(*) from info_sysconf"}), QStringList{"17"});
}

// What an integrator may set: each value as the agent's use of it needs it.
TEST(SQLConfValues, CheckedAsTheAgentUsesThem)
{
    const struct { const char *key, *value; bool usable; } cases[] = {
        {"serverport_info", "1", true}, {"serverport_file", "65535", true}, {"serverport_info", "0", false},
        {"serverport_info", "65536", false}, {"serverport_info", "+80", false}, {"serverport_info", "80 ", false},
        {"serverip_video", "127.0.0.2", true}, {"serverip_info", "127.0.2", false}, {"serverip_info", "aoi.local", false},
        {"alarmimage", "/data/img/", true}, {"tdata", "/data/img", false}, {"logpath", "data/", false},
        {"camera", "4", true}, {"detect", "0", false}, {"thispath", "it's", false}, {"useInlineName", "", false},
        {"queue_limit_mb", "", true}, {"queue_limit_mb", "64", true}, {"queue_limit_mb", "-1", false},
        {"serverip", "127.0.0.2", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(QEL_SQLConf::problemWith(c.key, c.value).isEmpty(), c.usable) << c.key << " = \"" << c.value << '"';
}

}  // namespace
