#pragma once

#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <atomic>

// One change in a watched directory, as inotify reports it.
struct watchinfo
{
    QString name;       // file name inside the directory
    qint32 wd = 0;      // watch descriptor of the directory
    quint32 mask = 0;   // IN_CREATE or IN_DELETE, possibly with IN_ISDIR

    bool operator==(const watchinfo& other) const
    {
        return name == other.name && wd == other.wd && mask == other.mask;
    }
    // The directory of `wd` (descriptors count 1, 2, 3 … in the order the
    // directories were added) followed by the name; empty if `wd` is not
    // one of them.
    QString getTriFilePath(const QStringList& paths) const;
};
Q_DECLARE_METATYPE(watchinfo)
Q_DECLARE_METATYPE(QList<watchinfo>)

// Folds the changes of one quiet spell: each change once, in the order of
// its first occurrence.
QList<watchinfo> foldChanges(const QList<watchinfo>& changes);

// Watches the image directories for created and deleted names and delivers
// them in batches, once the directories have been quiet for a second. The
// batch is delivered in the thread that created the watcher (sigChange).
class QEL_Inotify : public QThread
{
    Q_OBJECT
public:
    explicit QEL_Inotify(QObject* parent = nullptr);
    ~QEL_Inotify() override;

    // Adds the directories in order (IN_CREATE | IN_DELETE); their watch
    // descriptors index `paths`.
    void addWatch(const QStringList& dirs);
    // Watches `dirs` (the image items' directories) and starts the thread.
    void Init(const QStringList& dirs);
    // Ends the thread, whenever it is called: also right after start(),
    // before run() has begun. The thread waits in poll(); the wake-up
    // descriptor ends the wait.
    void stop();

    QStringList paths;
    int fd = -1;
    std::atomic<bool> running{false};
    int wd = 0;

signals:
    void sigChange(QList<watchinfo> changes);
    void sigGetRead();

public slots:
    void SlotCheckList();

protected:
    void run() override;

private:
    QList<watchinfo> pending_;
    QMutex* lock_;
    int wakeFd_ = -1;       // written by stop() so that a blocked wait returns
    std::atomic<bool> stopAsked_{false};   // set by stop() only, never cleared
};
