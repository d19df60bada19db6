#pragma once

#include <QDomElement>
#include <QObject>
#include <QString>

#include "QEL_Settings.h"

// Alternative configuration source: the settings of the SQLite store read
// from an XML file ("config.xml"). Expected layout: a root element whose
// child elements are sections; an element inside a section whose tag is a
// key gives that key its text. No defaults, no attributes. The result of the
// read is left in the settings (all but apppath_send, thispath and the
// optional keys) and in status.
class QEL_XMLConf : public QObject, public QEL_Settings
{
    Q_OBJECT
public:
    QEL_XMLConf(QObject* parent, const QString& file_name);

    // value = element's text when element's tag name equals key, else unchanged.
    void XMLOutValue(QDomElement element, const QString& key, QString& value);

    QString status;

    static const char* const kOpenError;    // "config.xml open error"
    static const char* const kParseError;   // "parse file failed at line row and column" + line,column
    static const char* const kNullDocument; // "document is null!"
    static const char* const kSuccess;      // "config success"
    static const char* const kIncomplete;   // "The data is incomplete"
};
