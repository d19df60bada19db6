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
        job.images = images.mid(i + 1 - pending.size(), pending.size());
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
        out += QByteArray::number(packed.value(path)) + ' ' + encodeFileName(path).toPercentEncoding() + '\n';
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
            packed.insert(decodeFileName(path), ms);
    }
    return packed;
}

namespace {
// Length of the valid UTF-8 sequence at `i` (RFC 3629: no overlong forms, no
// surrogates, nothing above U+10FFFF), or 0.
int utf8Sequence(const QByteArray& s, int i)
{
    const auto at = [&](int k) { return static_cast<unsigned char>(s.at(k)); };
    const unsigned char c = at(i);
    if (c < 0x80)
        return 1;
    int n = 0;
    unsigned char lo = 0x80, hi = 0xBF;      // the allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        lo = c == 0xE0 ? 0xA0 : 0x80;
        hi = c == 0xED ? 0x9F : 0xBF;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        lo = c == 0xF0 ? 0x90 : 0x80;
        hi = c == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (i + n > s.size() || at(i + 1) < lo || at(i + 1) > hi)
        return 0;
    for (int k = 2; k < n; ++k)
        if ((at(i + k) & 0xC0) != 0x80)
            return 0;
    return n;
}
}  // namespace

QString decodeFileName(const QByteArray& bytes)
{
    QString out;
    int run = 0;        // start of the valid run not yet appended
    for (int i = 0; i < bytes.size();) {
        const int n = utf8Sequence(bytes, i);
        if (n > 0) {
            i += n;
            continue;
        }
        out += QString::fromUtf8(bytes.constData() + run, i - run);
        out += QChar(0xDC00 + static_cast<unsigned char>(bytes.at(i)));
        run = ++i;
    }
    return run == 0 ? QString::fromUtf8(bytes) : out + QString::fromUtf8(bytes.constData() + run, bytes.size() - run);
}

QByteArray encodeFileName(const QString& name)
{
    QByteArray out;
    int run = 0;
    for (int i = 0; i < name.size(); ++i) {
        const ushort u = name.at(i).unicode();
        if (QChar::isHighSurrogate(u) && i + 1 < name.size() && name.at(i + 1).isLowSurrogate()) {
            ++i;        // a pair: an ordinary character beyond U+FFFF
            continue;
        }
        if (u < 0xDC80 || u > 0xDCFF)
            continue;
        out += name.mid(run, i - run).toUtf8();
        out += static_cast<char>(u - 0xDC00);
        run = i + 1;
    }
    return run == 0 ? name.toUtf8() : out + name.mid(run).toUtf8();
}
