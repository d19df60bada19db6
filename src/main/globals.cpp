#include "globals.h"

QEL_SQLConf* gConfig = nullptr;
GLog* gGlog = nullptr;
NetWorkConsole* gConsole = nullptr;
