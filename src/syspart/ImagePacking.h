#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>
#include <functional>

// The pure part of packing images into archives: names, members, grouping
// and the shell commands. Nothing here touches the disk.

// `text` as one shell word: single-quoted, a single quote written as '\''.
// Spaces, quotes, ';', '$( )' and line ends inside stay part of the word.
QString shellQuote(const QString& text);

// The member name of an image in its archive: the image path without as many
// leading characters as `apppath` has, behind "./".
QString archiveMember(const QString& imagePath, const QString& apppath);

// "Tar_<yyyyMMddhhmmsszzz>_<index>.tar.gz" in `workDir`.
QString archivePath(const QString& workDir, const QDateTime& when, int lastIndex);

struct TarJob
{
    QString archive;        // the finished archive
    QString partial;        // where tar writes it (renamed to `archive` once tar succeeded)
    QString command;        // the shell command that writes `partial`
    QStringList members;    // "./" names, in order
    QStringList images;     // the image paths they are made from, in the same order
};

// The archives for `images`, in order: at most `perArchive` images each (10
// for alarm images, 1 for templates); each archive is named after the index
// of its last image and the moment `now()` gives when its command is built.
QVector<TarJob> planArchives(const QStringList& images, const QString& apppath, const QString& workDir,
                             int perArchive, const std::function<QDateTime()>& now);

// Camera and detection numbers from an image path: the single character
// after "camera" and after "detect" (alarm images), or the two characters
// after "cammer" (templates). Not a digit: 0.
void parseAlarmCamDec(const QString& path, int& camera, int& detect);
void parseTemplateCamDec(const QString& path, int& camera, int& detect);

// The moment held by a time file's text, or `fallback` if it holds none.
QDateTime parseTimeFile(const QByteArray& content, const QDateTime& fallback);

// The images a look packed above its time file (path -> modification time,
// epoch ms), as kept beside the time file: one "<ms> <percent-encoded path>"
// line each, so that any file name fits on one line. Unreadable lines are
// skipped.
QByteArray packedListText(const QHash<QString, qint64>& packed);
QHash<QString, qint64> parsePackedList(const QByteArray& text);

// File names are bytes; the application may write names that are not UTF-8.
// A name is held as a QString with each byte that is not part of valid UTF-8
// kept as the lone surrogate U+DC80..U+DCFF, and turned back into the very
// same bytes for the disk, the shell and tar (nothing is lost or merged).
QString decodeFileName(const QByteArray& bytes);
QByteArray encodeFileName(const QString& name);
