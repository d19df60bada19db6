#pragma once

#include <mutex>
#include <string>
#include <sys/types.h>

// Runs shell commands ("/bin/sh -c"), one at a time, each in a process group
// of its own, so that the orderly stop can end a long one (tar, top) at once
// instead of waiting for it.
//
// Locking: the one mutex guards the running command's process group and the
// stop flag; it is never held while the command runs or is read.
class ShellCommand
{
public:
    struct Result
    {
        // The command's exit status; 127 when the shell could not be
        // started, 128 + N when it was ended by signal N, -1 when it was not
        // run because the agent is stopping.
        int status = -1;
        std::string output;     // standard output, when asked for
        bool ok() const { return status == 0; }
    };

    enum class OnStop { Kill, Finish };

    // Runs `command` to its end. `onStop` says what the orderly stop does to
    // it: a Kill command is ended (and one asked for afterwards is not run),
    // a Finish command (mv, rm) is left to complete.
    Result run(const std::string& command, OnStop onStop, bool captureOutput = false);

    // Any thread: the agent is stopping. Ends the Kill command under way.
    void stop();
    bool stopping() const;

private:
    mutable std::mutex m_;
    pid_t group_ = 0;          // the Kill command under way (0: none)
    bool stopping_ = false;
};
