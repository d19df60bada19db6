#include "QEL_Inotify.h"

#include <QMutexLocker>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>


namespace {
const int kQuietMs = 1000;
const int kReadBytes = 32768;
const int kHeaderBytes = 16;
}  // namespace

QString watchinfo::getTriFilePath(const QStringList& paths) const
{
    if (wd - 1 < 0 || wd - 1 >= paths.size())
        return QString();
    return paths.at(wd - 1) + name;
}

QList<watchinfo> foldChanges(const QList<watchinfo>& changes)
{
    QList<watchinfo> batch;
    for (const watchinfo& w : changes)
        if (batch.lastIndexOf(w) < 0)
            batch.append(w);
    return batch;
}

QEL_Inotify::QEL_Inotify(QObject* parent)
    : QThread(parent)
    , fd(inotify_init())
    , lock_(new QMutex)
    , wakeFd_(eventfd(0, EFD_CLOEXEC))
{
    static const int registered = [] {
        qRegisterMetaType<watchinfo>("watchinfo");
        qRegisterMetaType<QList<watchinfo>>("QList<watchinfo>");
        return 0;
    }();
    (void)registered;
    connect(this, &QEL_Inotify::sigGetRead, this, &QEL_Inotify::SlotCheckList);
}

QEL_Inotify::~QEL_Inotify()
{
    stop();
    if (fd >= 0)
        close(fd);
    if (wakeFd_ >= 0)
        close(wakeFd_);
    delete lock_;
}

void QEL_Inotify::addWatch(const QStringList& dirs)
{
    for (const QString& dir : dirs) {
        const int w = inotify_add_watch(fd, dir.toUtf8().constData(), IN_CREATE | IN_DELETE);
        if (w >= 0)
            wd = w;
    }
    paths.append(dirs);
}

void QEL_Inotify::Init(const QStringList& dirs)
{
    addWatch(dirs);
    start(QThread::InheritPriority);
}

void QEL_Inotify::stop()
{
    // Before anything else: a run() that has not begun yet sees it at once.
    stopAsked_ = true;
    running = false;
    const uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof one) < 0) {
        // The flag alone ends the thread at its next wake-up.
    }
    wait();
}

void QEL_Inotify::run()
{
    running = !stopAsked_;
    bool quietSignalled = false;    // the first quiet second is announced too
    char buffer[kReadBytes];
    while (!stopAsked_) {
        // Waits for events; after a second of quiet the batch is due. The
        // second descriptor only ends the thread (it stays readable).
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        const int n = poll(fds, 2, quietSignalled ? -1 : kQuietMs);
        if (stopAsked_ || (fds[1].revents & POLLIN))
            break;
        if (n < 0)
            continue;
        if (n == 0) {
            quietSignalled = true;
            emit sigGetRead();
            continue;
        }
        if (!(fds[0].revents & POLLIN))
            continue;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0)
            continue;
        quietSignalled = false;
        for (ssize_t at = 0; at + kHeaderBytes <= got;) {
            inotify_event ev;
            std::memcpy(&ev, buffer + at, kHeaderBytes);
            const ssize_t next = at + kHeaderBytes + ev.len;
            if (ev.len > 0 && next <= got) {
                const char* name = buffer + at + kHeaderBytes;
                watchinfo w;
                w.name = QString::fromUtf8(name, int(strnlen(name, ev.len)));
                w.wd = ev.wd;
                w.mask = ev.mask;
                QMutexLocker g(lock_);
                pending_.append(w);
            }
            at = next;
        }
    }
    running = false;
    if (wd > 0)
        inotify_rm_watch(fd, wd);
}

void QEL_Inotify::SlotCheckList()
{
    QList<watchinfo> copy;
    {
        QMutexLocker g(lock_);
        copy.swap(pending_);
    }
    const QList<watchinfo> batch = foldChanges(copy);
    if (!batch.isEmpty())
        emit sigChange(batch);
}
