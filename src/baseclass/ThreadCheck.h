#pragma once

#include <QCoreApplication>
#include <QThread>

#include <glog/logging.h>

// For functions that touch Qt objects of the main thread: a call from any
// other thread is a bug. Debug builds stop at once; release builds say so in
// the log and go on.
inline bool qelOnMainThread()
{
    const QCoreApplication* app = QCoreApplication::instance();
    return app == nullptr || QThread::currentThread() == app->thread();
}

#define QEL_ASSERT_MAIN_THREAD()                                                       \
    do {                                                                               \
        if (!qelOnMainThread()) {                                                      \
            LOG(ERROR) << "thread:(" << __func__ << " called off the main thread)";    \
            Q_ASSERT_X(false, __func__, "main thread only");                          \
        }                                                                              \
    } while (0)
