#pragma once

#include <string>

// Runs `command` through the shell and returns what it wrote on standard
// output (line ends included). Reading stops at the end of the output or once
// reading has cost this process more than 500 clock ticks of processor time;
// the call then waits for the command to end. Exit status and standard error
// are ignored; a command that cannot be started yields "".
std::string oxa_cmd(const char* command);
