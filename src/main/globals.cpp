#include "globals.h"

GLog* gGlog = nullptr;
NetWorkConsole* gConsole = nullptr;
