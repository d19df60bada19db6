#include "ShellCommand.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

ShellCommand::Result ShellCommand::run(const std::string& command, OnStop onStop, bool captureOutput)
{
    Result result;
    const bool killable = onStop == OnStop::Kill;
    int out[2] = {-1, -1};
    if (captureOutput && pipe2(out, O_CLOEXEC) != 0)
        return result;
    const char* const argv[] = {"sh", "-c", command.c_str(), nullptr};

    std::unique_lock<std::mutex> g(m_);
    if (stopping_ && killable) {
        if (captureOutput) {
            close(out[0]);
            close(out[1]);
        }
        return result;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        // Child: only async-signal-safe calls until exec.
        setpgid(0, 0);
        if (captureOutput)
            dup2(out[1], STDOUT_FILENO);
        execv("/bin/sh", const_cast<char* const*>(argv));
        _exit(127);
    }
    if (pid < 0) {
        result.status = 127;
        if (captureOutput) {
            close(out[0]);
            close(out[1]);
        }
        return result;
    }
    // Also here, so that a kill right after fork finds the group.
    setpgid(pid, pid);
    if (killable)
        group_ = pid;
    g.unlock();

    if (captureOutput) {
        close(out[1]);
        char buffer[4096];
        for (;;) {
            const ssize_t n = read(out[0], buffer, sizeof buffer);
            if (n > 0)
                result.output.append(buffer, static_cast<size_t>(n));
            else if (n == 0 || errno != EINTR)
                break;
        }
        close(out[0]);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g.lock();
    if (killable)
        group_ = 0;
    g.unlock();
    if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.status = 128 + WTERMSIG(status);
    return result;
}

void ShellCommand::stop()
{
    std::lock_guard<std::mutex> g(m_);
    stopping_ = true;
    if (group_ > 0)
        kill(-group_, SIGKILL);
}

bool ShellCommand::stopping() const
{
    std::lock_guard<std::mutex> g(m_);
    return stopping_;
}
