#pragma once

#include <QString>
#include <QStringList>

// The integrator's commands: each answers on standard output (problems on
// standard error) and ends without starting the agent. They return the
// process's exit status. A QCoreApplication must exist (the database driver).

// qel_net --check [DB]: whether the agent would run as configured on this
// machine: the keys, the directories (and the service's writable paths),
// the database, the three servers, the host name. 0 ready, 1 not. Changes
// no file and takes at most a few seconds whatever the servers do.
int runCheck(const QString& dbPath);

// qel_net --config DB show | get KEY | set KEY VALUE... | init [--server ADDR]:
// reads or edits the settings; a value is checked before anything is
// written, and init never touches an existing file. 0 done, 1 refused,
// 2 not understood.
int runConfig(const QStringList& args);
