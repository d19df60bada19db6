#include "ImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "ImagePacking.h"

namespace {
qint64 epochMs(const struct stat& st)
{
    return qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
}
}  // namespace

QVector<ImageFile> listImageFiles(const QString& dir)
{
    QVector<ImageFile> files;
    DIR* d = opendir(encodeFileName(dir).constData());
    if (d == nullptr)
        return files;
    const QString prefix = dir.endsWith('/') ? dir : dir + '/';
    while (const dirent* e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        struct stat st;
        if (fstatat(dirfd(d), e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode))
            continue;
        files.append(ImageFile{prefix + decodeFileName(QByteArray(e->d_name)), epochMs(st)});
    }
    closedir(d);
    std::sort(files.begin(), files.end(), [](const ImageFile& a, const ImageFile& b) {
        return a.modifiedMs != b.modifiedMs ? a.modifiedMs > b.modifiedMs : a.path < b.path;
    });
    return files;
}

qint64 fileModifiedMs(const QString& path)
{
    struct stat st;
    if (stat(encodeFileName(path).constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return epochMs(st);
}

QString whyUnreadable(const QString& path)
{
    const int fd = open(encodeFileName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return QString::fromLocal8Bit(strerror(errno));
    // Read to the end: a worn card fails in the middle of a file, not at open.
    static thread_local char buffer[64 * 1024];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    }
    const int error = n < 0 ? errno : 0;
    close(fd);
    return error == 0 ? QString() : QString::fromLocal8Bit(strerror(error));
}

qint64 roomAboveFloor(const QString& dir)
{
    struct statvfs fs;
    if (statvfs(encodeFileName(dir).constData(), &fs) != 0)
        return std::numeric_limits<qint64>::max();
    const qint64 avail = qint64(fs.f_bavail) * qint64(fs.f_frsize);
    const qint64 floor = qMax<qint64>(512LL << 20, qint64(fs.f_blocks) * qint64(fs.f_frsize) / 20);
    return avail - floor;
}

qint64 fileSizeOf(const QString& path)
{
    struct stat st;
    return stat(encodeFileName(path).constData(), &st) == 0 && S_ISREG(st.st_mode) ? qint64(st.st_size) : 0;
}
