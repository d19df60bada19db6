#pragma once

// The three process-wide objects, created by main in this order and never
// deleted during a run.
class QEL_SQLConf;
class GLog;
class NetWorkConsole;

extern QEL_SQLConf* gConfig;
extern GLog* gGlog;
extern NetWorkConsole* gConsole;
