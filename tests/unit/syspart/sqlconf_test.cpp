#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariant>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "QEL_SQLConf.h"

namespace {

struct Key
{
    const char* key;
    const char* value;
    const char* description;
    QString QEL_SQLConf::*field;
};

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

const char* const kCreateSysconf =
    "CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)";

// The store's connection name is fixed, so only one store may be alive; the
// deleter also drops the connection the store leaves registered.
struct StoreDeleter
{
    void operator()(QEL_SQLConf* store) const
    {
        delete store;
        QSqlDatabase::removeDatabase(QStringLiteral("dbinfo"));
    }
};
using Store = std::unique_ptr<QEL_SQLConf, StoreDeleter>;

Store openStore(const QString& path)
{
    return Store(new QEL_SQLConf(nullptr, path));
}

struct Row
{
    QString key;
    QString value;
    QString description;
};

// A second, independent connection to the same file.
class Db
{
public:
    explicit Db(const QString& path)
        : name_(QStringLiteral("inspect%1").arg(counter_++))
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
        db.setDatabaseName(path);
        EXPECT_TRUE(db.open());
    }
    ~Db()
    {
        {
            QSqlDatabase db = QSqlDatabase::database(name_, false);
            db.close();
        }
        QSqlDatabase::removeDatabase(name_);
    }

    bool exec(const QString& sql)
    {
        QSqlQuery q(QSqlDatabase::database(name_, false));
        return q.exec(sql);
    }

    std::vector<Row> rows()
    {
        std::vector<Row> out;
        QSqlQuery q(QSqlDatabase::database(name_, false));
        if (q.exec(QStringLiteral("select 信息名称, 值, 描述 from info_sysconf order by rowid")))
            while (q.next())
                out.push_back({q.value(0).toString(), q.value(1).toString(), q.value(2).toString()});
        return out;
    }

    QString value(const char* key)
    {
        QSqlQuery q(QSqlDatabase::database(name_, false));
        q.prepare(QStringLiteral("select 值 from info_sysconf where 信息名称 = ?"));
        q.addBindValue(QString::fromUtf8(key));
        if (q.exec() && q.next())
            return q.value(0).toString();
        return QStringLiteral("<no row>");
    }

    QStringList tables()
    {
        QStringList out;
        QSqlQuery q(QSqlDatabase::database(name_, false));
        if (q.exec(QStringLiteral("select name from sqlite_master where type='table' order by name")))
            while (q.next())
                out << q.value(0).toString();
        return out;
    }

    long long firstLongLong(const QString& sql)
    {
        QSqlQuery q(QSqlDatabase::database(name_, false));
        if (q.exec(sql) && q.next())
            return q.value(0).toLongLong();
        return -1;
    }

    long long count(const QString& table) { return firstLongLong(QStringLiteral("select count(*) from ") + table); }

    // Inserts rows for the given keys with their defaults (or `value` when set).
    void insertKeys(const std::vector<const char*>& keys, const char* value = nullptr)
    {
        for (const char* key : keys) {
            for (const Key& k : kKeys) {
                if (std::string(k.key) != key)
                    continue;
                QSqlQuery q(QSqlDatabase::database(name_, false));
                q.prepare(QStringLiteral("insert into info_sysconf values (?, ?, ?)"));
                q.addBindValue(QString::fromUtf8(k.key));
                q.addBindValue(QString::fromUtf8(value ? value : k.value));
                q.addBindValue(QStringLiteral("test"));
                EXPECT_TRUE(q.exec()) << key;
            }
        }
    }

private:
    static int counter_;
    QString name_;
};

int Db::counter_ = 0;

std::vector<const char*> allKeysBut(const std::vector<std::string>& left_out)
{
    std::vector<const char*> keys;
    for (const Key& k : kKeys) {
        bool skip = false;
        for (const std::string& l : left_out)
            skip = skip || l == k.key;
        if (!skip)
            keys.push_back(k.key);
    }
    return keys;
}

class SQLConfTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(tmp_.isValid());
        path_ = tmp_.filePath(QStringLiteral("sysconf.db"));
    }

    // A database with an info_sysconf table holding the rows of `keys`.
    void makePartial(const std::vector<const char*>& keys)
    {
        Db db(path_);
        ASSERT_TRUE(db.exec(QString::fromUtf8(kCreateSysconf)));
        db.insertKeys(keys);
    }

    QTemporaryDir tmp_;
    QString path_;
};

TEST_F(SQLConfTest, EmptyFileIsFilledWithDefaults)
{
    {
        QFile f(path_);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    }
    ASSERT_EQ(QFileInfo(path_).size(), 0);

    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("config success"));

    Db db(path_);
    EXPECT_EQ(db.tables(), QStringList({"info_failhistory", "info_sysconf"}));
    const std::vector<Row> rows = db.rows();
    ASSERT_EQ(rows.size(), std::size(kKeys));
    for (size_t i = 0; i < rows.size(); ++i) {
        const Key& k = kKeys[i];
        SCOPED_TRACE(k.key);
        EXPECT_EQ(rows[i].key, QString::fromUtf8(k.key));
        EXPECT_EQ(rows[i].value, QString::fromUtf8(k.value));
        EXPECT_EQ(rows[i].description, QString::fromUtf8(k.description));
        if (k.field != &QEL_SQLConf::useInlineName) {
            EXPECT_EQ((*store).*k.field, QString::fromUtf8(k.value));
        }
    }
    EXPECT_EQ(store->useInlineName, QHostInfo::localHostName());
}

TEST_F(SQLConfTest, MissingFileIsCreated)
{
    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("config success"));
    EXPECT_EQ(Db(path_).rows().size(), std::size(kKeys));
}

TEST_F(SQLConfTest, PartialDatabaseIsCompleted)
{
    makePartial({"camera", "serverip_info", "alarmimage"});
    {
        Db db(path_);
        ASSERT_TRUE(db.exec(QStringLiteral("update info_sysconf set 值='127.0.0.1' where 信息名称='serverip_info'")));
    }

    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("config success"));
    EXPECT_EQ(store->serverip_info, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(store->serverip_file, QStringLiteral("192.168.1.1"));

    // Existing rows stay first and untouched; the missing ones follow in key order.
    const std::vector<Row> rows = Db(path_).rows();
    ASSERT_EQ(rows.size(), std::size(kKeys));
    EXPECT_EQ(rows[0].key, QStringLiteral("camera"));
    EXPECT_EQ(rows[0].description, QStringLiteral("test"));
    EXPECT_EQ(rows[1].value, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(rows[3].key, QStringLiteral("template"));
    EXPECT_EQ(rows[3].description, QString::fromUtf8("模板图片存放的根目录"));
    EXPECT_EQ(rows.back().key, QStringLiteral("thispath"));
}

// Stored values are used as they are and never written back.
TEST_F(SQLConfTest, StoredValuesWin)
{
    openStore(path_).reset();
    {
        Db db(path_);
        ASSERT_TRUE(db.exec(QStringLiteral("update info_sysconf set 值='9000' where 信息名称='serverport_info'")));
        ASSERT_TRUE(db.exec(QStringLiteral("update info_sysconf set 值='anything' where 信息名称='useInlineName'")));
        ASSERT_TRUE(db.exec(QString::fromUtf8("update info_sysconf set 值='/opt/it''s 图片/' where 信息名称='apppath'")));
    }

    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("config success"));
    EXPECT_EQ(store->serverport_info, QStringLiteral("9000"));
    EXPECT_EQ(store->apppath, QString::fromUtf8("/opt/it's 图片/"));   // only the key is substituted
    EXPECT_EQ(store->useInlineName, QHostInfo::localHostName());
    store.reset();

    Db db(path_);
    EXPECT_EQ(db.value("serverport_info"), QStringLiteral("9000"));
    EXPECT_EQ(db.value("useInlineName"), QStringLiteral("anything"));
    EXPECT_EQ(db.rows().size(), std::size(kKeys));
}

// A stored empty value cannot be replaced by the default (primary key).
TEST_F(SQLConfTest, EmptyStoredValueIsIncomplete)
{
    makePartial(allKeysBut({"camera"}));
    {
        Db db(path_);
        db.insertKeys({"camera"}, "");
    }

    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("The data is incomplete"));
    EXPECT_TRUE(store->camera.isEmpty());
    EXPECT_EQ(store->detect, QStringLiteral("2"));
    store.reset();
    EXPECT_FALSE(Db(path_).tables().contains(QStringLiteral("info_failhistory")));
}

// Root ignores file modes, so the database is made unwritable by another
// connection holding the write lock: the default for the missing key cannot
// be inserted (after the driver's busy time-out of about 5 s).
TEST_F(SQLConfTest, UnwritableDatabaseIsIncomplete)
{
    makePartial(allKeysBut({"detect"}));
    Db locker(path_);
    ASSERT_TRUE(locker.exec(QStringLiteral("BEGIN IMMEDIATE")));

    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("The data is incomplete"));
    EXPECT_TRUE(store->detect.isEmpty());
    EXPECT_EQ(store->camera, QStringLiteral("4"));
    store.reset();

    ASSERT_TRUE(locker.exec(QStringLiteral("ROLLBACK")));
    EXPECT_FALSE(locker.tables().contains(QStringLiteral("info_failhistory")));
    EXPECT_EQ(locker.rows().size(), std::size(kKeys) - 1);
}

TEST_F(SQLConfTest, NotADatabaseIsIncomplete)
{
    {
        QFile f(path_);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(QByteArray(4096, 'x'));
    }
    Store store = openStore(path_);
    EXPECT_EQ(store->status, QStringLiteral("The data is incomplete"));
}

TEST_F(SQLConfTest, UnopenablePath)
{
    Store store = openStore(tmp_.filePath(QStringLiteral("missing/dir/sysconf.db")));
    EXPECT_EQ(store->status, QStringLiteral("config.SQL open error"));
    for (const Key& k : kKeys)
        EXPECT_TRUE(((*store).*k.field).isEmpty()) << k.key;
    EXPECT_FALSE(QFileInfo::exists(tmp_.filePath(QStringLiteral("missing"))));
}

class FailHistoryTest : public SQLConfTest
{
protected:
    void SetUp() override
    {
        SQLConfTest::SetUp();
        store_ = openStore(path_);
        ASSERT_EQ(store_->status, QStringLiteral("config success"));
    }

    long long rowCount() { return Db(path_).count(QStringLiteral("info_failhistory")); }

    Store store_;
};

TEST_F(FailHistoryTest, DuplicatesComeBackOnceAndTableIsEmptied)
{
    const QString a = QStringLiteral("POST /a HTTP/1.1\r\nSessionId: 3\r\n\r\n{\"x\":1}");
    const QString b = QStringLiteral("POST /b HTTP/1.1\r\nSessionId: 4\r\n\r\n{}");
    store_->insertOnceItem(a);
    store_->insertOnceItem(a);
    store_->insertOnceItem(a);
    store_->insertOnceItem(b);
    EXPECT_EQ(rowCount(), 4);

    QStringList texts = store_->initFailHistory();
    texts.sort();
    EXPECT_EQ(texts, QStringList({a, b}));
    EXPECT_EQ(rowCount(), 0);
    EXPECT_TRUE(store_->initFailHistory().isEmpty());
}

TEST_F(FailHistoryTest, SendTimeIsMillisecondsSinceEpoch)
{
    const long long before = QDateTime::currentMSecsSinceEpoch();
    store_->insertOnceItem(QStringLiteral("text"));
    const long long after = QDateTime::currentMSecsSinceEpoch();
    const long long stored = Db(path_).firstLongLong(QString::fromUtf8("select 发送时间 from info_failhistory"));
    EXPECT_GE(stored, before);
    EXPECT_LE(stored, after);
}

TEST_F(FailHistoryTest, ClearFailTable)
{
    store_->insertOnceItem(QStringLiteral("one"));
    store_->insertOnceItem(QStringLiteral("two"));
    store_->clearFailTable();
    EXPECT_EQ(rowCount(), 0);
    EXPECT_TRUE(store_->initFailHistory().isEmpty());
}

TEST_F(FailHistoryTest, TextWithSingleQuoteIsNotKept)
{
    store_->insertOnceItem(QStringLiteral("{\"name\":\"it's\"}"));
    EXPECT_EQ(rowCount(), 0);
}

TEST_F(FailHistoryTest, ChineseTextSurvivesRestart)
{
    const QString text = QString::fromUtf8("POST /record HTTP/1.1\r\nSessionId: 5\r\n\r\n{\"操作员\":\"张三\",\"结果\":\"报警\"}");
    store_->insertOnceItem(text);
    store_.reset();

    store_ = openStore(path_);
    ASSERT_EQ(store_->status, QStringLiteral("config success"));
    EXPECT_EQ(store_->initFailHistory(), QStringList({text}));
}

// getInstance keeps its instance for the rest of the process, so it runs in
// a child process of its own.
TEST(SQLConfSingletonDeathTest, FirstPathWins)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            QTemporaryDir tmp;
            const QString first = tmp.filePath(QStringLiteral("first.db"));
            const QString second = tmp.filePath(QStringLiteral("second.db"));
            QEL_SQLConf* a = QEL_SQLConf::getInstance(nullptr, first);
            QEL_SQLConf* b = QEL_SQLConf::getInstance(nullptr, second);
            bool ok = true;
            auto check = [&ok](bool cond, const char* what) {
                if (!cond) {
                    std::fprintf(stderr, "failed: %s\n", what);
                    ok = false;
                }
            };
            check(tmp.isValid(), "temp dir");
            check(a != nullptr && a == b, "same instance");
            check(a->status == QStringLiteral("config success"), "status");
            check(QFileInfo::exists(first), "first database created");
            check(!QFileInfo::exists(second), "second path not touched");
            tmp.remove();
            std::fflush(stderr);
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
