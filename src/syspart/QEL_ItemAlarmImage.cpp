#include "QEL_ItemAlarmImage.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QSaveFile>
#include <QTimer>
#include <deque>

#include <glog/logging.h>

#include "CHttpEndpoints.h"
#include "ImageFiles.h"
#include "ImagePacking.h"
#include "QEL_ItemHost.h"
#include "QEL_BaseSocket.h"
#include "QEL_BaseThread.h"
#include "oxa_dir.h"

namespace {
const char* const kTimeFile = "time.txt";
// Beside the time file: what the last looks packed above it.
const char* const kPackedFile = "time.packed";
const char* const kDefaultMoment = "1970-11-12 13:14:15";
const int kWriteWaitMs = 30000;
// The kernel stamps files with a coarse clock that may lag ours by a tick:
// a look reaches this far into the past, so that an image written while it
// ran is found by the next one.
const qint64 kClockSlackMs = 50;
// Archive bytes handed to the socket at a time, and how many such pieces may
// wait to be written: what an upload holds in memory.
const qint64 kStreamPieceBytes = 256 * 1024;
const size_t kPiecesInFlight = 2;

QDateTime defaultMoment()
{
    return QDateTime::fromString(kDefaultMoment, "yyyy-MM-dd hh:mm:ss");
}

// Replaces `path` whole or not at all: a crash leaves the old content or
// the new, never a mix.
void writeAtomically(const QString& path, const QByteArray& content)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(content);
        file.commit();
    }
}
}  // namespace

QEL_ItemAlarmImage::QEL_ItemAlarmImage(QObject* parent, const QEL_Settings& conf)
    : QEL_ItemAlarmImage(parent, conf, 5, "qel_alarmimage/", new CHttp_Alarmimage(conf.httpPeers()), 10)
{
}

QEL_ItemAlarmImage::QEL_ItemAlarmImage(QObject* parent, const QEL_Settings& conf, int type, const QString& subDir,
                                       CHttpBase* builder, int perArchive)
    : QEL_BaseItem(parent)
    , conf_(conf)
    , subDir_(subDir)
    , perArchive_(perArchive)
{
    http = builder;
    number = type;
    textA = conf_.qelpath + subDir_;
    failDir = conf_.failpath + subDir_;
}

RetError QEL_ItemAlarmImage::Item_Init()
{
    socket = host()->fileSocket();
    thread = host()->fileThread();
    packer_ = &host()->imagePacker();
    shell_ = &host()->packerShell();
    workList = imageDirs();
    // Start-up does not wait for the packing.
    packer_->post([this] { look(true); });
    return RET_OK;
}

RetError QEL_ItemAlarmImage::Item_ReInit()
{
    if (packer_ != nullptr)
        packer_->post([this] { look(false); });
    return RET_OK;
}

RetError QEL_ItemAlarmImage::Item_pickInfo(const QString&, QString&)
{
    return RET_NOTHING;     // images are found on disk, never built from a text
}

void QEL_ItemAlarmImage::Item_fromApplication(const QString&, const Handled& handled)
{
    Item_ReInit();
    if (handled)
        handled();      // the images themselves are on disk already
}

void QEL_ItemAlarmImage::ParseToCamDec(const QString& path, int& camera, int& detect)
{
    parseAlarmCamDec(path, camera, detect);
}

QStringList QEL_ItemAlarmImage::imageDirs() const
{
    QStringList dirs;
    const int cameras = conf_.camera.toInt(nullptr, 10);
    const int detects = conf_.detect.toInt(nullptr, 10);
    for (int c = 1; c <= cameras; ++c) {
        for (int d = 1; d <= detects; ++d) {
            dirs << conf_.alarmimage + QString("camera%1/detect%2/NG/").arg(c).arg(d);
            dirs << conf_.alarmimage + QString("camera%1/detect%2/OK/").arg(c).arg(d);
        }
    }
    return dirs;
}

// ---- packer thread ----------------------------------------------------------

ShellCommand::Result QEL_ItemAlarmImage::runShell(const QString& command, ShellCommand::OnStop onStop,
                                                  bool captureOutput)
{
    // Image names may hold bytes that are not UTF-8: they go to the shell as they are on disk.
    return shell_->run(encodeFileName(command).toStdString(), onStop, captureOutput);
}

QString QEL_ItemAlarmImage::packedFile() const
{
    return workDir() + kPackedFile;
}

void QEL_ItemAlarmImage::look(bool atStart)
{
    if (shell_->stopping())
        return;     // the next start looks
    if (atStart) {
        QFile packed(packedFile());
        if (packed.open(QIODevice::ReadOnly))
            recent_ = parsePackedList(packed.readAll());
        QStringList dirs;
        Item_CheckDir(dirs);
        QStringList kept;
        Item_ResendPolicy(kept);
        // Failed archives go before anything new, in the order found, and
        // go out while the leftovers are looked at.
        thread->queue.append(kept);
        if (!kept.isEmpty())
            askToSend();
        if (!takeLeftovers())
            return;     // stopping: the rest is taken at the next start
    }
    QDateTime since;
    if (!atStart && host()->secondState())
        since = defaultMoment();
    else
        Item_GetTimeFile(since);
    const QDateTime listedAt = QDateTime::currentDateTimeUtc();
    QStringList files;
    Item_GetSendFileList(since, workList, files);
    if (!files.isEmpty())
        packAndQueue(files, listedAt);
    else if (!thread->queue.isEmpty())
        askToSend();
}

void QEL_ItemAlarmImage::Item_CheckDir(QStringList& out)
{
    out.clear();
    for (const QString& dir : imageDirs()) {
        oxa_dir_create(dir.toUtf8().constData(), "");
        out.append(dir);
    }
    // The failure directory first: leftovers are moved into it.
    oxa_dir_create(failDir.toUtf8().constData(), "");
    const QDir work(workDir());
    if (work.exists() && !work.entryList(QStringList() << "*.tar.gz.part", QDir::Files).isEmpty()) {
        // Archives a stopped run did not finish writing: their images are
        // above the time file and packed again.
        runShell(QString("rm -f %1*.tar.gz.part").arg(shellQuote(workDir())));
    }
    oxa_dir_create(workDir().toUtf8().constData(), "");
}

bool QEL_ItemAlarmImage::takeLeftovers()
{
    // Archives of an earlier run that never got their answer. One killed
    // between making an archive and writing down what it packed would
    // otherwise have its images packed again: whatever an archive holds
    // counts as packed, and is written down before the archive leaves the
    // working directory. One at a time, so that the first goes out at once
    // and a stop leaves the rest for the next start, untouched.
    const QStringList leftovers = QDir(workDir()).entryList(QStringList() << "*.tar.gz", QDir::Files, QDir::Name);
    for (const QString& name : leftovers) {
        const qint64 mark = timeMarkMs();
        const QString archive = workDir() + name;
        const ShellCommand::Result listing = runShell(
            QString("tar --quoting-style=literal -tzf %1").arg(shellQuote(archive)), ShellCommand::OnStop::Kill, true);
        if (listing.status < 0 || shell_->stopping())
            return false;
        if (!listing.ok())
            LOG(INFO) << "pack:" << number << "(leftover archive not readable, kept for the server: "
                      << archive.toUtf8().constData() << ")";
        bool more = false;
        for (const QByteArray& member : QByteArray::fromStdString(listing.output).split('\n')) {
            if (member.isEmpty())
                continue;
            const QString image = QDir::cleanPath(conf_.apppath + '/' + decodeFileName(member));
            const qint64 modified = fileModifiedMs(image);
            if (modified > mark && recent_.value(image, -1) != modified) {
                recent_.insert(image, modified);
                more = true;
            }
        }
        if (more)
            writeAtomically(packedFile(), packedListText(recent_));
        runShell(QString("mv -f %1 %2").arg(shellQuote(archive), shellQuote(failDir)));
        thread->queue.append(QStringList() << failDir + name);
        askToSend();
    }
    return true;
}

void QEL_ItemAlarmImage::Item_ResendPolicy(QStringList& queue)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const QFileInfoList failed =
        QDir(failDir).entryInfoList(QStringList() << "*.tar.gz", QDir::Files, QDir::Time);
    for (const QFileInfo& f : failed) {
        if (now - f.lastModified().toMSecsSinceEpoch() <= kKeepFailedMs)
            queue.append(f.absoluteFilePath());
        else
            runShell(QString("rm -f %1").arg(shellQuote(f.absoluteFilePath())));
    }
}

qint64 QEL_ItemAlarmImage::timeMarkMs() const
{
    QFile file(workDir() + kTimeFile);
    const QDateTime fallback = defaultMoment();
    if (!file.open(QIODevice::ReadOnly))
        return fallback.toMSecsSinceEpoch();
    return parseTimeFile(file.readAll(), fallback).toMSecsSinceEpoch();
}

void QEL_ItemAlarmImage::Item_GetTimeFile(QDateTime& t)
{
    t = QDateTime::fromMSecsSinceEpoch(timeMarkMs());
    const QDateTime now = QDateTime::currentDateTime();
    if (t > now) {
        // A time file from the future would hide every image until then:
        // the one time it is set back.
        t = now;
        writeAtomically(workDir() + kTimeFile, QByteArray::number(t.toMSecsSinceEpoch()) + "\n");
    }
}

void QEL_ItemAlarmImage::Item_GetSendFileList(const QDateTime& t, const QStringList& dirs, QStringList& out)
{
    const qint64 since = t.toMSecsSinceEpoch();
    listedTimes_.clear();
    for (const QString& dir : dirs) {
        for (const ImageFile& f : listImageFiles(dir)) {
            if (f.modifiedMs <= since)
                continue;
            if (recent_.value(f.path, -1) == f.modifiedMs)
                continue;       // handled by a look already (the same image, unchanged)
            listedTimes_.insert(f.path, f.modifiedMs);
            out.append(f.path);
        }
    }
}

void QEL_ItemAlarmImage::Item_MakeTimeFile(const QDateTime& t)
{
    // Only ever forward: a look that finished late must not undo a later one.
    const qint64 ms = qMax(t.toMSecsSinceEpoch(), timeMarkMs());
    writeAtomically(workDir() + kTimeFile, QByteArray::number(ms) + "\n");
}

RetError QEL_ItemAlarmImage::Item_PickTar(const QStringList& files, QStringList& tars)
{
    return packInto(files, tars, perArchive_);
}

RetError QEL_ItemAlarmImage::packInto(const QStringList& files, QStringList& tars, int perArchive)
{
    if (files.isEmpty())
        return RET_MALFORMED;
    tars.append(pack(files, perArchive).tars);
    return RET_OK;
}

QEL_ItemAlarmImage::Packed QEL_ItemAlarmImage::pack(const QStringList& files, int perArchive)
{
    Packed out;
    const auto now = [] { return QDateTime::currentDateTime(); };
    QVector<TarJob> jobs = planArchives(files, conf_.apppath, workDir(), perArchive, now);
    for (int j = 0; j < jobs.size(); ++j) {
        TarJob& job = jobs[j];
        // Written under another name, on disk with its directory entry
        // before anything records its images (a power cut may then cost
        // images sent twice, never images lost), renamed once complete: an
        // archive under its real name is always whole.
        const QString command = job.command
            + QString(" && sync %1 && mv -f %1 %2 && sync %3")
                  .arg(shellQuote(job.partial), shellQuote(job.archive), shellQuote(workDir()));
        const ShellCommand::Result r = runShell(command, ShellCommand::OnStop::Kill);
        if (r.ok()) {
            out.tars << job.archive;
            out.images << job.images;
            continue;
        }
        if (r.status >= 0)
            runShell(QString("rm -f %1").arg(shellQuote(job.partial)));
        if (r.status < 0 || shell_->stopping()) {
            out.complete = false;
            break;      // the agent is stopping: the rest is not even begun, the next start packs it
        }
        // An image that cannot be read (no permission, a worn card, gone
        // since the listing) is left out, and the archive made of the rest.
        QStringList readable;
        for (const QString& image : job.images) {
            const QString why = whyUnreadable(image);
            if (why.isEmpty()) {
                readable << image;
                continue;
            }
            LOG(INFO) << "pack:" << number << "(image left out, not readable: " << image.toUtf8().constData()
                      << ": " << why.toUtf8().constData() << ")";
            out.skipped << image;
        }
        if (readable.size() < job.images.size() && !readable.isEmpty()) {
            job = planArchives(readable, conf_.apppath, workDir(), perArchive, now).first();
            --j;        // once more, without them
            continue;
        }
        if (readable.isEmpty())
            continue;
        // Every image reads: the archive could not be written (a full or
        // read-only disk). The images stay above the time file for a later look.
        out.complete = false;
        if (packFailures_++ == 0)
            LOG(INFO) << "pack:" << number << "(tar failed with status " << r.status << ": "
                      << job.archive.toUtf8().constData() << " removed, its " << job.images.size()
                      << " images are left for the next look)";
        break;
    }
    if (out.complete && packFailures_ > 0) {
        LOG(INFO) << "pack:" << number << "(packing again after " << packFailures_ << " failed tries)";
        packFailures_ = 0;
    }
    return out;
}

RetError QEL_ItemAlarmImage::Item_addToSendQueue(const QStringList& files)
{
    if (files.isEmpty())
        return RET_NOTHING;
    const QDateTime handedAt = QDateTime::currentDateTimeUtc();
    packer_->post([this, files, handedAt] { packAndQueue(files, handedAt); });
    return RET_OK;
}

void QEL_ItemAlarmImage::packAndQueue(const QStringList& files, const QDateTime& listedAt)
{
    if (files.isEmpty())
        return;
    qint64 bytes = 0;
    for (const QString& image : files)
        bytes += fileSizeOf(image);
    if (roomAboveFloor(workDir()) < bytes) {
        // Archives take about what their images take: a look that would
        // bring the disk below its floor waits, its images above the mark.
        if (!postponed_)
            LOG(INFO) << "pack:" << number << "(look postponed: " << files.size() << " images, " << (bytes >> 10)
                      << " KiB, would leave less than 5 % or 512 MiB free on the disk)";
        postponed_ = true;
        lookAgainSoon();
        return;
    }
    postponed_ = false;
    const Packed packed = pack(files, perArchive_);
    // The time file says when the listing began (a little before, for the
    // coarse file clock): an image written since then is newer and found by
    // the next look, whatever packing and uploading cost meanwhile. It stays
    // where it was when an archive could not be made, so that its images
    // are found again.
    const qint64 before = timeMarkMs();
    const qint64 mark = packed.complete ? qMax(before, listedAt.toMSecsSinceEpoch() - kClockSlackMs) : before;

    // What was packed above the old line is written down first: whichever
    // of the two files a crash leaves behind, no image goes twice.
    QHash<QString, qint64> above;
    for (auto it = recent_.cbegin(); it != recent_.cend(); ++it)
        if (it.value() > before)
            above.insert(it.key(), it.value());
    // An image left out as unreadable is written down like a packed one: it
    // is tried again, and said again, only once its time changes.
    for (const QString& image : packed.images + packed.skipped) {
        const qint64 modified = listedTimes_.value(image, fileModifiedMs(image));
        if (modified > before)
            above.insert(image, modified);
    }
    writeAtomically(packedFile(), packedListText(above));
    Item_MakeTimeFile(QDateTime::fromMSecsSinceEpoch(mark));
    recent_.clear();
    for (auto it = above.cbegin(); it != above.cend(); ++it)
        if (it.value() > mark)
            recent_.insert(it.key(), it.value());

    thread->queue.append(packed.tars);
    askToSend();
    if (!packed.complete && !shell_->stopping())
        lookAgainSoon();
}

void QEL_ItemAlarmImage::lookAgainSoon()
{
    if (lookPending_.exchange(true))
        return;
    // A full or read-only disk gets well again without the application
    // saying so: the images left behind are looked for again shortly.
    QMetaObject::invokeMethod(this, [this] {
        QTimer::singleShot(kLookAgainMs, this, [this] {
            lookPending_ = false;
            Item_ReInit();
        });
    }, Qt::QueuedConnection);
}

void QEL_ItemAlarmImage::askToSend()
{
    QMetaObject::invokeMethod(this, [this] { startSending(); }, Qt::QueuedConnection);
}

// ---- FILE send thread -------------------------------------------------------

RetError QEL_ItemAlarmImage::Item_NetSendOperate(const QString& path)
{
    qDebug().noquote() << QString("oxa send file") + QString(107, QChar('-'));
    qDebug().noquote() << QString("\"%1\"").arg(path);
    if (socket->connected) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            // Nothing to send (removed by hand, unreadable): the queue goes on.
            LOG(INFO) << "send:" << number << "(archive not readable: " << path.toUtf8().constData() << ")";
            thread->queue.giveUp(path, false);
            return RET_GIVEN_UP;
        }
        if (streamFile(file))
            return RET_OK;
    }
    LOG(INFO) << "send:" << number << "(\"ERR_NetNoConnect\" send without connected)";
    emit sigNoConnected();
    return ERR_NetNoConnect;
}

bool QEL_ItemAlarmImage::streamFile(QFile& file)
{
    const qint64 size = file.size();
    auto* builder = static_cast<CHttp_Alarmimage*>(http);
    const bool locked = socket->socket_lock();
    builder->filelength(int(size));
    builder->reloadbase();
    const QByteArray head = builder->getHttp().toLatin1();

    const int n = number;
    const std::function<void()> logWritten = [n] {
        LOG(INFO) << "send:" << n << "(file write to socket alread)";
    };
    const std::function<void()> nothing;
    QEL_BaseSocket::WriteHandle first = socket->writeAsync(head, size == 0 ? logWritten : nothing);
    bool ok = first.wait(kWriteWaitMs) == QEL_BaseSocket::WriteResult::Written;
    const quint64 connection = first.connection();

    // The body follows on the same connection, a piece at a time; at most a
    // few pieces are in memory whatever the archive's size.
    std::deque<QEL_BaseSocket::WriteHandle> inFlight;
    qint64 remaining = size;
    while (ok && remaining > 0) {
        const qint64 take = qMin(remaining, kStreamPieceBytes);
        QByteArray piece = file.read(take);
        if (piece.size() < take)
            piece.append(QByteArray(int(take - piece.size()), '\0'));   // shrunk meanwhile: keep the length
        remaining -= take;
        inFlight.push_back(socket->writeAsync(piece, remaining == 0 ? logWritten : nothing, connection));
        if (inFlight.size() >= kPiecesInFlight) {
            ok = inFlight.front().wait(kWriteWaitMs) == QEL_BaseSocket::WriteResult::Written;
            inFlight.pop_front();
        }
    }
    if (!ok) {
        // Part of the body may be on the wire: whatever is written next on
        // this connection would land inside it. Closing it also ends the
        // waits for the pieces still on their way.
        LOG(INFO) << "send:" << number << "(archive not written within " << kWriteWaitMs / 1000
                  << " s or link lost: connection closed)";
        socket->abortAndReconnect();
    }
    while (!inFlight.empty()) {
        ok = inFlight.front().wait(kWriteWaitMs) == QEL_BaseSocket::WriteResult::Written && ok;
        inFlight.pop_front();
    }
    if (locked)
        socket->socket_unlock();
    return ok;
}

RetError QEL_ItemAlarmImage::Item_NetErrorOperate(RetError, const QString& path)
{
    // Given up while the server was away, it goes again from the failure
    // directory once the server answers another archive.
    if (thread->queue.giveUp(path, true, failDir + QFileInfo(path).fileName())) {
        host()->sendInfoToInline(path);
        runShell(QString("mv -f %1 %2").arg(shellQuote(path), shellQuote(failDir)));
    }
    socket->reserved = -1;
    return RET_OK;
}

// ---- main thread --------------------------------------------------------------

RetError QEL_ItemAlarmImage::Item_NetRecvOperate(const QString& reply)
{
    QString value;
    CHttpBase::getBuffItem(reply, "code", value);
    const bool success = value == "0" || value == "\"0\"";
    if (success) {
        QEL_QueuedRequest sent;
        if (thread->queue.acknowledge(number, &sent)) {
            thread->answered(number);
            // The time file is the packer's alone (it says what was packed,
            // not what was answered).
            packer_->post([this, sent] { runShell(QString("rm -f %1").arg(shellQuote(sent.text))); });
        }
        thread->goThrough();
        Item_CloseSocket();
    } else {
        // Refused: the next pass hands the archive to the error path at once.
        thread->queue.refuse(number);
        thread->goThrough();
    }
    LOG(INFO) << "recv:" << number << "(result:" << (success ? "-- success --" : "-- fail --") << ")";
    return success ? RET_OK : RET_UPLOAD_REFUSED;
}

// ---- templates ----------------------------------------------------------------

QEL_ItemTemplate::QEL_ItemTemplate(QObject* parent, const QEL_Settings& conf)
    : QEL_ItemAlarmImage(parent, conf, 6, "qel_tempimage/", new CHttp_TempImage(conf.httpPeers()), 1)
{
}

void QEL_ItemTemplate::ParseToCamDec(const QString& path, int& camera, int& detect)
{
    parseTemplateCamDec(path, camera, detect);
}

QStringList QEL_ItemTemplate::imageDirs() const
{
    QStringList dirs;
    const int cameras = conf_.camera.toInt(nullptr, 10);
    const int detects = conf_.detect.toInt(nullptr, 10);
    for (int c = 1; c <= cameras; ++c)
        for (int d = 1; d <= detects; ++d)
            dirs << conf_.template_ + QString("cammer%1%2/").arg(c).arg(d);
    return dirs;
}

void QEL_ItemTemplate::Item_CheckDir(QStringList& out)
{
    // Only the directories differ (imageDirs); leftovers are handled alike.
    QEL_ItemAlarmImage::Item_CheckDir(out);
}

RetError QEL_ItemTemplate::Item_PickTar(const QStringList& files, QStringList& tars)
{
    return packInto(files, tars, 1);
}
