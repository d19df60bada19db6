#pragma once

#include <QDateTime>
#include <QHash>
#include <QStringList>
#include <atomic>

#include "JobRunner.h"
#include "ShellCommand.h"
#include "QEL_BaseItem.h"
#include "QEL_Settings.h"

// Alarm-image (5) and template (6) archive uploads on the FILE connection.
//
// The item finds the images newer than its time file, packs them with tar
// into archives in its working directory, queues the archive paths on the
// FILE send thread and uploads each one; the server's answer deletes it, a
// refusal moves it to the failure directory, from where the next start
// offers it again for 72 hours.
//
// Threads: listing, packing, moving and deleting archives and writing the
// time file run one job at a time on the console's image packer, never on
// the main thread (tar can take seconds). The upload runs on the FILE send
// thread and streams the archive through the socket's main-thread writes,
// a few hundred kilobytes at a time. The answer is handled on the main thread.
class QEL_ItemAlarmImage : public QEL_BaseItem
{
    Q_OBJECT
public:
    QEL_ItemAlarmImage(QObject* parent, const QEL_Settings& conf);

    // Main thread.
    RetError Item_Init() override;
    RetError Item_ReInit() override;
    RetError Item_pickInfo(const QString& info, QString& out) override;
    // An application message of this type means "new images are there":
    // look now. Its body says nothing more.
    void Item_fromApplication(const QString& body, const Handled& handled) override;
    RetError Item_NetRecvOperate(const QString& reply) override;
    void ParseToCamDec(const QString& path, int& camera, int& detect) override;
    // Any thread: packs `files` and queues the archives (on the packer).
    RetError Item_addToSendQueue(const QStringList& files) override;

    // FILE send thread.
    RetError Item_NetSendOperate(const QString& path) override;
    RetError Item_NetErrorOperate(RetError error, const QString& path) override;

    // Packer thread.
    virtual void Item_CheckDir(QStringList& out);
    virtual void Item_ResendPolicy(QStringList& queue);
    virtual void Item_GetTimeFile(QDateTime& t);
    virtual void Item_GetSendFileList(const QDateTime& t, const QStringList& dirs, QStringList& out);
    virtual void Item_MakeTimeFile(const QDateTime& t);
    virtual RetError Item_PickTar(const QStringList& files, QStringList& tars);

    // The directories this item looks in (and a directory watcher would watch).
    virtual QStringList imageDirs() const;
    QString workDir() const { return textA; }
    QString failDir;

    static const qint64 kKeepFailedMs = 259199999;      // 72 h less 1 ms
    static const int kLookAgainMs = 3000;               // after a look that could not write its archives
    static const int kChunkBytes = 16384;

protected:
    QEL_ItemAlarmImage(QObject* parent, const QEL_Settings& conf, int type, const QString& subDir, CHttpBase* builder,
                       int perArchive);
    // The directories, the camera and detection counts; read on any thread.
    const QEL_Settings conf_;
    // Packer thread: the images of `tars`' archives, packed `perArchive` at a time.
    RetError packInto(const QStringList& files, QStringList& tars, int perArchive);

private:
    struct Packed
    {
        QStringList tars;       // archives made, in order
        QStringList images;     // the images they hold
        QStringList skipped;    // left out: they could not be read
        bool complete = true;   // every readable image went into an archive
    };

    // Packer thread: one look at the directories (at start-up: also the
    // leftovers, the failed archives and what the last run packed).
    void look(bool atStart);
    void packAndQueue(const QStringList& files, const QDateTime& listedAt);
    // Runs tar for each archive. An unreadable image is left out of its
    // archive; an archive that cannot be written (full disk, killed by the
    // stop) leaves nothing behind, and its images and the rest of the look
    // for a later look.
    Packed pack(const QStringList& files, int perArchive);
    // Main thread, soon: a look, once, however many ask for it meanwhile.
    void lookAgainSoon();
    void askToSend();
    // Writes the request head and the archive; false if the link failed.
    bool streamFile(class QFile& file);
    // Any thread: one shell command; by default one the stop lets finish (mv, rm).
    ShellCommand::Result runShell(const QString& command, ShellCommand::OnStop onStop = ShellCommand::OnStop::Finish,
                                  bool captureOutput = false);
    // Packer thread, at start: archives an earlier run left in the working
    // directory go to the failure directory and are queued, one at a time,
    // once what they hold is written down as packed. False if the stop cut
    // it short.
    bool takeLeftovers();

    // The time file's mark in epoch ms (the default moment when it has none).
    qint64 timeMarkMs() const;
    QString packedFile() const;

    QString subDir_;
    int perArchive_;
    JobRunner* packer_ = nullptr;
    ShellCommand* shell_ = nullptr;
    // Packer thread only: images packed whose times lie above the time file
    // (which is set a little into the past, for the coarse file clock), so
    // that no later look, in this run or after a restart, packs them again.
    // Kept on disk beside the time file.
    QHash<QString, qint64> recent_;
    // Packer thread only: the times of the images the last listing found.
    QHash<QString, qint64> listedTimes_;
    int packFailures_ = 0;                  // packer thread: looks in a row that could not write
    bool postponed_ = false;                // packer thread: looks wait for room on the disk
    std::atomic<bool> lookPending_{false};
};

class QEL_ItemTemplate : public QEL_ItemAlarmImage
{
    Q_OBJECT
public:
    QEL_ItemTemplate(QObject* parent, const QEL_Settings& conf);
    void ParseToCamDec(const QString& path, int& camera, int& detect) override;
    void Item_CheckDir(QStringList& out) override;
    RetError Item_PickTar(const QStringList& files, QStringList& tars) override;
    QStringList imageDirs() const override;
};
