#pragma once

#include <QString>

// Prints one line on the debug console. The coloured form frames the text
// with an ANSI SGR sequence: ESC "[" code1 ";" code2 "m" text ESC "[0m"
// (note: the third argument comes first).
class CDebug
{
public:
    explicit CDebug(const int& value);
    CDebug(const QString& text, int code2, int code1);
};
