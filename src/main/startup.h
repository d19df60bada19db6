#pragma once

// Creates the log, failure and temporary-data directories named by the
// configuration; a failure is logged and start-up goes on.
struct QEL_Settings;
void chkDirComplete(const QEL_Settings& conf);
