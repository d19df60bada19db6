#pragma once

// The two process-wide objects, created by main in this order and never
// deleted during a run.
class GLog;
class NetWorkConsole;

extern GLog* gGlog;
extern NetWorkConsole* gConsole;
