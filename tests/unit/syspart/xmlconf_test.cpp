#include <gtest/gtest.h>

#include <QDomDocument>
#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <map>
#include <string>
#include <vector>

#include "QEL_XMLConf.h"

namespace {

struct Key
{
    const char* name;
    QString QEL_XMLConf::*field;
};

const Key kKeys[] = {
    {"alarmimage", &QEL_XMLConf::alarmimage},
    {"template", &QEL_XMLConf::template_},
    {"apppath", &QEL_XMLConf::apppath},
    {"failpath", &QEL_XMLConf::failpath},
    {"logpath", &QEL_XMLConf::logpath},
    {"qelpath", &QEL_XMLConf::qelpath},
    {"tdata", &QEL_XMLConf::tdata},
    {"serverip_info", &QEL_XMLConf::serverip_info},
    {"serverip_file", &QEL_XMLConf::serverip_file},
    {"serverip_video", &QEL_XMLConf::serverip_video},
    {"serverport_info", &QEL_XMLConf::serverport_info},
    {"serverport_file", &QEL_XMLConf::serverport_file},
    {"serverport_video", &QEL_XMLConf::serverport_video},
    {"camera", &QEL_XMLConf::camera},
    {"detect", &QEL_XMLConf::detect},
    {"useInlineName", &QEL_XMLConf::useInlineName},
};

// Value written for each key: "v_<key>".
QString valueOf(const char* key)
{
    return QStringLiteral("v_") + QString::fromLatin1(key);
}

// A config.xml with every key inside one of two sections; `skip` leaves a
// key out, `extra` is inserted verbatim into the root after the sections.
std::string configXml(const std::string& skip = std::string(), const std::string& extra = std::string())
{
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n  <paths>\n";
    int i = 0;
    for (const Key& k : kKeys) {
        if (i++ == 7)
            xml += "  </paths>\n  <server>\n";
        if (skip == k.name)
            continue;
        xml += std::string("    <") + k.name + ">v_" + k.name + "</" + k.name + ">\n";
    }
    xml += "  </server>\n" + extra + "</config>\n";
    return xml;
}

class XMLConfTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(tmp_.isValid()); }

    QString write(const std::string& content)
    {
        const QString path = tmp_.filePath(QStringLiteral("config.xml"));
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(content.data(), static_cast<qint64>(content.size()));
        return path;
    }

    static void expectAllEmpty(const QEL_XMLConf& conf)
    {
        for (const Key& k : kKeys)
            EXPECT_TRUE((conf.*k.field).isEmpty()) << k.name;
    }

    QTemporaryDir tmp_;
};

TEST_F(XMLConfTest, MissingFile)
{
    QEL_XMLConf conf(nullptr, tmp_.filePath(QStringLiteral("config.xml")));
    EXPECT_EQ(conf.status, QStringLiteral("config.xml open error"));
    expectAllEmpty(conf);
}

TEST_F(XMLConfTest, ParseErrorNamesLineAndColumn)
{
    // The closing tag on line 4 does not match.
    QEL_XMLConf conf(nullptr, write("<config>\n  <paths>\n    <camera>4</camera>\n    <detect>2</camera>\n"
                                    "  </paths>\n</config>\n"));
    const QString prefix = QStringLiteral("parse file failed at line row and column");
    ASSERT_TRUE(conf.status.startsWith(prefix)) << conf.status.toStdString();
    const QRegularExpressionMatch m =
        QRegularExpression(QStringLiteral("^(\\d+),(\\d+)$")).match(conf.status.mid(prefix.size()));
    ASSERT_TRUE(m.hasMatch()) << conf.status.toStdString();
    EXPECT_EQ(m.captured(1).toInt(), 4);
    EXPECT_GT(m.captured(2).toInt(), 0);
    expectAllEmpty(conf);   // no host name either: that comes only after a successful parse
}

TEST_F(XMLConfTest, EmptyFileIsAParseError)
{
    QEL_XMLConf conf(nullptr, write(""));
    EXPECT_TRUE(conf.status.startsWith(QStringLiteral("parse file failed at line row and column")))
        << conf.status.toStdString();
}

TEST_F(XMLConfTest, CompleteFile)
{
    QEL_XMLConf conf(nullptr, write(configXml()));
    EXPECT_EQ(conf.status, QStringLiteral("config success"));
    for (const Key& k : kKeys) {
        if (k.field == &QEL_XMLConf::useInlineName)
            continue;
        EXPECT_EQ(conf.*k.field, valueOf(k.name)) << k.name;
    }
    EXPECT_EQ(conf.useInlineName, QHostInfo::localHostName());
    EXPECT_EQ(QEL_XMLConf::__pInstance, nullptr);
}

struct IncompleteCase
{
    const char* name;
    std::string xml;
    QString QEL_XMLConf::*emptyField;
};

TEST_F(XMLConfTest, IncompleteFiles)
{
    const IncompleteCase cases[] = {
        {"key missing", configXml("detect"), &QEL_XMLConf::detect},
        {"key outside a section", configXml("camera", "  <camera>4</camera>\n"), &QEL_XMLConf::camera},
        {"key nested too deep", configXml("camera", "  <more><deeper><camera>4</camera></deeper></more>\n"),
         &QEL_XMLConf::camera},
        {"tag case differs", configXml("camera", "  <s><Camera>4</Camera></s>\n"), &QEL_XMLConf::camera},
        {"later empty element", configXml("", "  <s><tdata/></s>\n"), &QEL_XMLConf::tdata},
        {"attribute is not read", configXml("apppath", "  <s><apppath value=\"/x/\"/></s>\n"), &QEL_XMLConf::apppath},
    };
    for (const IncompleteCase& c : cases) {
        SCOPED_TRACE(c.name);
        QEL_XMLConf conf(nullptr, write(c.xml));
        EXPECT_EQ(conf.status, QStringLiteral("The data is incomplete"));
        EXPECT_TRUE((conf.*c.emptyField).isEmpty());
        EXPECT_EQ(conf.serverip_info, QStringLiteral("v_serverip_info"));
        EXPECT_EQ(conf.useInlineName, QHostInfo::localHostName());
    }
}

// A missing useInlineName does not matter: the host name fills it.
TEST_F(XMLConfTest, DeviceNameNotNeededInFile)
{
    QEL_XMLConf conf(nullptr, write(configXml("useInlineName")));
    EXPECT_EQ(conf.status, QStringLiteral("config success"));
    EXPECT_EQ(conf.useInlineName, QHostInfo::localHostName());
}

TEST_F(XMLConfTest, LaterElementOverwritesEarlier)
{
    QEL_XMLConf conf(nullptr, write(configXml("", "  <extra><camera>8</camera></extra>\n  <extra2><camera>6</camera>"
                                                 "<serverport_info>9000</serverport_info></extra2>\n")));
    EXPECT_EQ(conf.status, QStringLiteral("config success"));
    EXPECT_EQ(conf.camera, QStringLiteral("6"));
    EXPECT_EQ(conf.serverport_info, QStringLiteral("9000"));
}

TEST_F(XMLConfTest, TextIsTakenAsWritten)
{
    QEL_XMLConf conf(nullptr, write(configXml("alarmimage", "  <s><alarmimage> /图片/a&amp;b/ </alarmimage></s>\n")));
    EXPECT_EQ(conf.status, QStringLiteral("config success"));
    EXPECT_EQ(conf.alarmimage, QString::fromUtf8(" /图片/a&b/ "));
}

TEST(XMLOutValue, OnlyExactTagName)
{
    QDomDocument doc;
    QDomElement e = doc.createElement(QStringLiteral("camera"));
    e.appendChild(doc.createTextNode(QStringLiteral("4")));

    QEL_XMLConf conf(nullptr, QStringLiteral("/nonexistent/config.xml"));
    QString value = QStringLiteral("old");
    conf.XMLOutValue(e, QStringLiteral("Camera"), value);
    EXPECT_EQ(value, QStringLiteral("old"));
    conf.XMLOutValue(e, QStringLiteral("detect"), value);
    EXPECT_EQ(value, QStringLiteral("old"));
    conf.XMLOutValue(QDomElement(), QStringLiteral("camera"), value);
    EXPECT_EQ(value, QStringLiteral("old"));
    conf.XMLOutValue(e, QStringLiteral("camera"), value);
    EXPECT_EQ(value, QStringLiteral("4"));
}

}  // namespace
