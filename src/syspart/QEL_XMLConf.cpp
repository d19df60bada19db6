#include "QEL_XMLConf.h"

#include <QDomDocument>
#include <QDomNode>
#include <QDomNodeList>
#include <QFile>
#include <QHostInfo>

const char* const QEL_XMLConf::kOpenError = "config.xml open error";
const char* const QEL_XMLConf::kParseError = "parse file failed at line row and column";
const char* const QEL_XMLConf::kNullDocument = "document is null!";
const char* const QEL_XMLConf::kSuccess = "config success";
const char* const QEL_XMLConf::kIncomplete = "The data is incomplete";

namespace {

struct XmlKey
{
    const char* key;
    QString QEL_Settings::*field;
};

const XmlKey kXmlKeys[] = {
    {"alarmimage", &QEL_Settings::alarmimage},
    {"template", &QEL_Settings::template_},
    {"apppath", &QEL_Settings::apppath},
    {"failpath", &QEL_Settings::failpath},
    {"logpath", &QEL_Settings::logpath},
    {"qelpath", &QEL_Settings::qelpath},
    {"tdata", &QEL_Settings::tdata},
    {"serverip_info", &QEL_Settings::serverip_info},
    {"serverip_file", &QEL_Settings::serverip_file},
    {"serverip_video", &QEL_Settings::serverip_video},
    {"serverport_info", &QEL_Settings::serverport_info},
    {"serverport_file", &QEL_Settings::serverport_file},
    {"serverport_video", &QEL_Settings::serverport_video},
    {"camera", &QEL_Settings::camera},
    {"detect", &QEL_Settings::detect},
    {"useInlineName", &QEL_Settings::useInlineName},
};

}  // namespace

QEL_XMLConf::QEL_XMLConf(QObject* parent, const QString& file_name)
    : QObject(parent)
{
    QFile file(file_name);
    if (!file.open(QIODevice::ReadOnly)) {
        status = kOpenError;
        return;
    }

    QDomDocument doc;
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    const QDomDocument::ParseResult parsed = doc.setContent(&file, QDomDocument::ParseOption::Default);
    if (!parsed) {
        status = QString::fromLatin1(kParseError) + QString::number(parsed.errorLine) + ","
                 + QString::number(parsed.errorColumn);
        file.close();
        return;
    }
#else
    QString message;
    int line = 0;
    int column = 0;
    if (!doc.setContent(&file, false, &message, &line, &column)) {
        status = QString::fromLatin1(kParseError) + QString::number(line) + "," + QString::number(column);
        file.close();
        return;
    }
#endif

    const QDomElement root = doc.documentElement();
    if (root.isNull()) {
        status = kNullDocument;
        return;
    }

    const QDomNodeList sections = root.childNodes();
    for (int i = 0; i < sections.count(); ++i) {
        const QDomNodeList entries = sections.at(i).childNodes();
        for (int j = 0; j < entries.count(); ++j) {
            const QDomElement element = entries.at(j).toElement();
            for (const XmlKey& k : kXmlKeys)
                XMLOutValue(element, QString::fromLatin1(k.key), this->*k.field);
        }
    }
    file.close();

    // The device identifier is always this machine's name.
    useInlineName = QHostInfo::localHostName();

    for (const XmlKey& k : kXmlKeys) {
        if ((this->*k.field).isEmpty()) {
            status = kIncomplete;
            return;
        }
    }
    status = kSuccess;
}

void QEL_XMLConf::XMLOutValue(QDomElement element, const QString& key, QString& value)
{
    if (element.tagName() == key)
        value = element.text();
}
