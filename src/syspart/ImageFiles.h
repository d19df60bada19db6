#pragma once

#include <QString>
#include <QVector>

// The disk side of finding images: names as decodeFileName holds them, so
// that a name which is not UTF-8 is found, read and packed like any other.

struct ImageFile
{
    QString path;
    qint64 modifiedMs = 0;      // epoch ms
};

// The regular files directly in `dir` (links followed; names beginning with
// "." are the application's files in the making and are left out), newest
// first, those of equal time by name.
QVector<ImageFile> listImageFiles(const QString& dir);

// The modification time of the file `path` in epoch ms; -1 if it is none.
qint64 fileModifiedMs(const QString& path);

// Empty if `path` can be read to its end; else why not ("Permission denied",
// "Input/output error", "No such file or directory").
QString whyUnreadable(const QString& path);

// What may still be written on the file system of `dir` before it reaches
// its floor: 5 % of its size or 512 MiB free, whichever is more (negative
// below it; very large if it cannot be told). The failure history and the
// packer both stop growing there, so that the agent is never what fills the
// disk the inspection application needs.
qint64 roomAboveFloor(const QString& dir);

// The size of the file `path` in bytes; 0 if it is none.
qint64 fileSizeOf(const QString& path);
