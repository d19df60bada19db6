#pragma once

#include <QList>
#include <QObject>
#include <QPair>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QStringList>

#include "QEL_Settings.h"

// The agent's configuration: the key/value table info_sysconf of one SQLite
// file. At start-up it is completed with the built-in defaults (a missing
// key is inserted); the integrator's commands open it without completing it.
// Its connection name is fixed ("dbinfo"): one store at a time per process.
class QEL_SQLConf : public QObject, public QEL_Settings
{
    Q_OBJECT
public:
    enum class Access {
        Start,      // as start-up: make the table, insert the missing keys' defaults
        Inspect,    // read only: nothing is made or written, not even a missing file
        Edit,       // read and write, nothing completed (setValues writes)
    };
    QEL_SQLConf(QObject* parent, const QString& dbPath, Access access = Access::Start);
    ~QEL_SQLConf() override;

    QString findValue(const QString& key);
    QString setDefaultValue(const QString& key, const QString& value, const QString& description);

    // Edit: writes every pair in one transaction (a missing row is inserted
    // with its key's description). False, with nothing written, on failure.
    bool setValues(const QList<QPair<QString, QString>>& pairs, QString* error);

    QString status;
    // Keys without a value when the store was opened (Start: now filled in).
    QStringList missing;

    static const char* const kSuccess;      // "config success"
    static const char* const kOpenError;    // "config.SQL open error"
    static const char* const kIncomplete;   // "The data is incomplete"

    // The keys the agent reads, in load order, with their built-in defaults.
    struct Key
    {
        enum Kind { Directory, Address, Port, Count, Text } kind;
        const char* name;
        const char* value;
        const char* description;
        QString QEL_Settings::*field;
    };
    static const QList<Key>& keys();
    // The optional keys: read when present, never completed.
    static const QStringList& optionalKeys();
    // Empty when `value` is one the agent can use for `key`; else why not,
    // in words an integrator can act on. Unknown keys are refused.
    static QString problemWith(const QString& key, const QString& value);
    // queue_limit_mb: 0 when empty (the default), -1 when unusable, else MiB.
    static qint64 queueLimitMb(const QString& text);

private:
    QSqlDatabase db_;
    QSqlQuery query_;
};
