#include <gtest/gtest.h>

#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <memory>
#include <utility>

#include "QEL_XMLConf.h"

namespace {

using Field = QString QEL_XMLConf::*;
const std::pair<const char*, Field> kKeys[] = {
    {"alarmimage", &QEL_XMLConf::alarmimage}, {"template", &QEL_XMLConf::template_},
    {"apppath", &QEL_XMLConf::apppath}, {"failpath", &QEL_XMLConf::failpath}, {"logpath", &QEL_XMLConf::logpath},
    {"qelpath", &QEL_XMLConf::qelpath}, {"tdata", &QEL_XMLConf::tdata}, {"serverip_info", &QEL_XMLConf::serverip_info},
    {"serverip_file", &QEL_XMLConf::serverip_file}, {"serverip_video", &QEL_XMLConf::serverip_video},
    {"serverport_info", &QEL_XMLConf::serverport_info}, {"serverport_file", &QEL_XMLConf::serverport_file},
    {"serverport_video", &QEL_XMLConf::serverport_video}, {"camera", &QEL_XMLConf::camera},
    {"detect", &QEL_XMLConf::detect}, {"useInlineName", &QEL_XMLConf::useInlineName}};

// Every key but `skip` as "v_<key>" in two sections, then `extra` inside the root.
QByteArray configXml(const QByteArray& skip = {}, const QByteArray& extra = {})
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config><paths>\n";
    for (const auto& [key, field] : kKeys) {
        xml += field == &QEL_XMLConf::serverip_info ? "</paths><server>\n" : "";
        if (skip != key)
            xml += QByteArray("<") + key + ">v_" + key + "</" + key + ">\n";
    }
    return xml + "</server>" + extra + "</config>\n";
}

// Reads a config.xml holding `content` (no file for nullptr).
std::unique_ptr<QEL_XMLConf> load(const char* content)
{
    QTemporaryDir dir;
    QFile f(dir.filePath(QStringLiteral("config.xml")));
    EXPECT_TRUE(!content || (f.open(QIODevice::WriteOnly) && f.write(content) >= 0 && f.flush()));
    return std::make_unique<QEL_XMLConf>(nullptr, f.fileName());
}

// Failures before a successful parse leave every field empty, host name included.
TEST(XMLConf, UnreadableFiles)
{
    const QString parse = QStringLiteral("^parse file failed at line row and column");
    const std::pair<const char*, QString> cases[] = {
        {nullptr, QStringLiteral("^config\\.xml open error$")},
        {"", parse + QStringLiteral("\\d+,\\d+$")},
        {"<config>\n<paths>\n<camera>4</camera>\n<detect>2</camera>\n</paths>\n</config>\n", parse + "4,[1-9]\\d*$"},
    };
    for (const auto& [content, pattern] : cases) {
        const auto conf = load(content);
        EXPECT_TRUE(QRegularExpression(pattern).match(conf->status).hasMatch()) << conf->status.toStdString();
        for (const auto& [key, field] : kKeys)
            EXPECT_TRUE(((*conf).*field).isEmpty()) << key;
    }
}

// Where `field` gets its value from; an empty `value` leaves the data incomplete.
// Every other key keeps its "v_<key>".
TEST(XMLConf, WhereValuesComeFrom)
{
    const struct { const char* skip; const char* extra; Field field; const char* value; } cases[] = {
        {"", "", &QEL_XMLConf::camera, "v_camera"},
        {"detect", "", &QEL_XMLConf::detect, ""},
        {"camera", "<camera>4</camera>", &QEL_XMLConf::camera, ""},   // outside a section
        {"camera", "<a><b><camera>4</camera></b></a>", &QEL_XMLConf::camera, ""},   // too deep
        {"camera", "<s><Camera>4</Camera></s>", &QEL_XMLConf::camera, ""},
        {"", "<s><tdata/></s>", &QEL_XMLConf::tdata, ""},   // a later empty element overwrites
        {"apppath", "<s><apppath value=\"/x/\"/></s>", &QEL_XMLConf::apppath, ""},
        {"", "<s><camera>8</camera></s><t><camera>6</camera></t>", &QEL_XMLConf::camera, "6"},
        {"alarmimage", "<s><alarmimage> /图片/a&amp;b/ </alarmimage></s>", &QEL_XMLConf::alarmimage, " /图片/a&b/ "},
        {"useInlineName", "", &QEL_XMLConf::useInlineName, nullptr},   // the host name fills it
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.skip << c.extra);
        const auto conf = load(configXml(c.skip, c.extra).constData());
        EXPECT_EQ(conf->status, !c.value || *c.value ? "config success" : "The data is incomplete");
        for (const auto& [key, field] : kKeys) {
            const QString v = field == &QEL_XMLConf::useInlineName ? QHostInfo::localHostName() : "v_" + QString(key);
            EXPECT_EQ((*conf).*field, field == c.field && c.value ? QString::fromUtf8(c.value) : v) << key;
        }
    }
}

}  // namespace
