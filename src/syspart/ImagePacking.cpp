#include "ImagePacking.h"

#include <functional>

QString shellQuote(const QString& text)
{
    QString out = text;
    out.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + out + QLatin1Char('\'');
}

QString archiveMember(const QString& imagePath, const QString& apppath)
{
    return QStringLiteral("./") + imagePath.mid(apppath.size());
}

QString archivePath(const QString& workDir, const QDateTime& when, int lastIndex)
{
    return workDir + QStringLiteral("Tar_%1_%2.tar.gz").arg(when.toString("yyyyMMddhhmmsszzz")).arg(lastIndex);
}

QVector<TarJob> planArchives(const QStringList& images, const QString& apppath, const QString& workDir,
                             int perArchive, const std::function<QDateTime()>& now)
{
    QVector<TarJob> jobs;
    QStringList pending;
    for (int i = 0; i < images.size(); ++i) {
        pending.append(archiveMember(images.at(i), apppath));
        if (i % perArchive != perArchive - 1 && i != images.size() - 1)
            continue;
        TarJob job;
        job.archive = archivePath(workDir, now(), i);
        job.partial = job.archive + QStringLiteral(".part");
        job.members = pending;
        job.command = QStringLiteral("tar -C %1 -zcf %2").arg(shellQuote(apppath), shellQuote(job.partial));
        for (const QString& m : pending)
            job.command += QLatin1Char(' ') + shellQuote(m);
        jobs.append(job);
        pending.clear();
    }
    return jobs;
}

namespace {
int digitAfter(const QString& path, const QString& word, int offset)
{
    const int at = path.indexOf(word);
    const int pos = (at < 0 ? 0 : at + word.size()) + offset;
    if (at < 0 || pos >= path.size())
        return 0;
    const QChar c = path.at(pos);
    return c.isDigit() ? c.digitValue() : 0;
}
}  // namespace

void parseAlarmCamDec(const QString& path, int& camera, int& detect)
{
    camera = digitAfter(path, QStringLiteral("camera"), 0);
    detect = digitAfter(path, QStringLiteral("detect"), 0);
}

void parseTemplateCamDec(const QString& path, int& camera, int& detect)
{
    camera = digitAfter(path, QStringLiteral("cammer"), 0);
    detect = digitAfter(path, QStringLiteral("cammer"), 1);
}

QDateTime parseTimeFile(const QByteArray& content, const QDateTime& fallback)
{
    bool ok = false;
    const qint64 ms = content.trimmed().toLongLong(&ok, 10);
    return ok ? QDateTime::fromMSecsSinceEpoch(ms) : fallback;
}

QByteArray packedListText(const QHash<QString, qint64>& packed)
{
    QStringList paths = packed.keys();
    paths.sort();
    QByteArray out;
    for (const QString& path : paths)
        out += QByteArray::number(packed.value(path)) + ' ' + path.toUtf8().toPercentEncoding() + '\n';
    return out;
}

QHash<QString, qint64> parsePackedList(const QByteArray& text)
{
    QHash<QString, qint64> packed;
    for (const QByteArray& line : text.split('\n')) {
        const int space = line.indexOf(' ');
        if (space <= 0)
            continue;
        bool ok = false;
        const qint64 ms = line.left(space).toLongLong(&ok, 10);
        const QByteArray path = QByteArray::fromPercentEncoding(line.mid(space + 1));
        if (ok && !path.isEmpty())
            packed.insert(QString::fromUtf8(path), ms);
    }
    return packed;
}
