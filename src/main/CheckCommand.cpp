// qel_net --check: whether this machine is ready for the agent as it is
// configured, before the service runs. The configuration is read as
// start-up reads it, but nothing is made or written: a missing database is
// reported, not created. Each check prints one line with its verdict.
//
// Order: the keys; each directory (exists, writable, and inside the
// service's writable paths when the package's unit is installed); the
// database; the three servers, connected to at once with one 2 s bound (a
// TCP connect and close, nothing sent); the host name that is reported.
#include "Commands.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QTextStream>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "QEL_SQLConf.h"

namespace {

const char* const kUnit = "qel_net.service";
const int kConnectBoundMs = 2000;

class Report
{
public:
    void line(bool ok, const QString& what, const QString& detail)
    {
        std::printf("%-4s  %-18s %s\n", ok ? "ok" : "FAIL", what.toUtf8().constData(), detail.toUtf8().constData());
        if (!ok)
            ++problems;
    }
    int problems = 0;
};

QString why(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// What the service may write, as systemd reads its unit: the first
// qel_net.service on systemd's search path, then its drop-ins in name order
// (a drop-in's name in a directory earlier on the path hides the same name
// later). Nothing when the unit is not installed or does not confine the
// agent to its ReadWritePaths= (ProtectSystem=strict).
std::optional<QStringList> serviceWritablePaths()
{
    const QStringList searchPath = {"/etc/systemd/system", "/run/systemd/system", "/usr/local/lib/systemd/system",
                                    "/lib/systemd/system", "/usr/lib/systemd/system"};
    QStringList files;
    for (const QString& dir : searchPath) {
        if (QFileInfo(dir + '/' + kUnit).isFile()) {
            files << dir + '/' + kUnit;
            break;
        }
    }
    if (files.isEmpty())
        return std::nullopt;
    QMap<QString, QString> dropIns;     // by name: the first found wins
    for (const QString& dir : searchPath)
        for (const QFileInfo& f : QDir(dir + '/' + kUnit + ".d").entryInfoList({"*.conf"}, QDir::Files))
            if (!dropIns.contains(f.fileName()))
                dropIns.insert(f.fileName(), f.filePath());
    files += dropIns.values();

    QStringList paths;
    bool strict = false;
    for (const QString& name : files) {
        QFile file(name);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        QString section;
        QTextStream in(&file);
        while (!in.atEnd()) {
            const QString line = in.readLine().trimmed();
            if (line.startsWith('[')) {
                section = line;
                continue;
            }
            const int eq = line.indexOf('=');
            if (section != QLatin1String("[Service]") || eq < 0)
                continue;
            const QString key = line.left(eq).trimmed();
            const QString value = line.mid(eq + 1).trimmed();
            if (key == QLatin1String("ProtectSystem")) {
                strict = value == QLatin1String("strict");
            } else if (key == QLatin1String("ReadWritePaths")) {
                if (value.isEmpty())
                    paths.clear();      // an empty assignment resets the list
                for (QString p : value.split(' ', Qt::SkipEmptyParts)) {
                    while (p.startsWith('-') || p.startsWith('+'))
                        p.remove(0, 1);
                    paths << QDir::cleanPath(p);
                }
            }
        }
    }
    if (!strict)
        return std::nullopt;
    return paths;
}

// The path as the kernel will find it: links resolved as far as it exists.
QString realPath(const QString& path)
{
    QString existing = QDir::cleanPath(path), rest;
    while (!QFileInfo::exists(existing) && existing != QLatin1String("/")) {
        rest = '/' + QFileInfo(existing).fileName() + rest;
        existing = QFileInfo(existing).path();
    }
    return QDir::cleanPath(QFileInfo(existing).canonicalFilePath() + rest);
}

bool inside(const QString& path, const QStringList& roots)
{
    const QString real = realPath(path);
    for (const QString& root : roots) {
        const QString r = realPath(root);
        if (real == r || real.startsWith(r == QLatin1String("/") ? r : r + '/'))
            return true;
    }
    return false;
}

// Whether the service may write at `path` ("" when it may, or when no unit
// confines the agent), said so that an integrator knows what to widen.
QString outsideService(const QString& path, const std::optional<QStringList>& writable)
{
    if (!writable || inside(path, *writable))
        return QString();
    return QStringLiteral("outside the service's ReadWritePaths=%1, where the agent gets \"Read-only file system\";"
                          " add it: systemctl edit qel_net -> [Service] ReadWritePaths=%2")
        .arg(writable->join(' '), QDir::cleanPath(path));
}

// Directories start-up makes when they are missing.
bool madeAtStart(const QString& key)
{
    return key == QLatin1String("failpath") || key == QLatin1String("logpath") || key == QLatin1String("tdata");
}

void checkDirectory(Report& r, const QString& key, const QString& dir, const std::optional<QStringList>& writable)
{
    QString detail = dir;
    bool ok = true;
    const QFileInfo info(dir);
    if (!info.exists() && madeAtStart(key)) {
        QString parent = QDir::cleanPath(dir);
        while (!QFileInfo::exists(parent))
            parent = QFileInfo(parent).path();
        ok = ::access(parent.toUtf8().constData(), W_OK) == 0;
        detail += ok ? QStringLiteral(" (missing: start-up makes it)")
                     : QStringLiteral(": missing, and start-up cannot make it in %1: %2").arg(parent, why(errno));
    } else if (!info.isDir()) {
        ok = false;
        detail += info.exists() ? QStringLiteral(": not a directory") : QStringLiteral(": does not exist");
    } else if (::access(dir.toUtf8().constData(), W_OK) != 0) {
        ok = false;
        detail += QStringLiteral(": not writable: %1").arg(why(errno));
    } else {
        detail += QStringLiteral(" exists, writable");
    }
    const QString outside = outsideService(dir, writable);
    r.line(ok && outside.isEmpty(), key, outside.isEmpty() ? detail : dir + ": " + outside);
}

void checkDatabase(Report& r, const QString& db, const std::optional<QStringList>& writable)
{
    const QString file = QFileInfo(db).absoluteFilePath();
    QString detail = file;
    // SQLite writes its journal beside the file.
    bool ok = ::access(file.toUtf8().constData(), W_OK) == 0;
    if (!ok)
        detail += QStringLiteral(": not writable: %1").arg(why(errno));
    else if (!(ok = ::access(QFileInfo(file).path().toUtf8().constData(), W_OK) == 0))
        detail += QStringLiteral(": its directory is not writable (the journal goes there): %1").arg(why(errno));
    else
        detail += QStringLiteral(" writable");
    const QString outside = outsideService(QFileInfo(file).path(), writable);
    r.line(ok && outside.isEmpty(), QStringLiteral("database"), outside.isEmpty() ? detail : file + ": " + outside);
}

// Connects to every server at once and waits for all of them, at most
// kConnectBoundMs together. Nothing is sent: the connection is closed as
// soon as it is made.
void checkServers(Report& r, const QEL_SQLConf& conf)
{
    struct Server
    {
        QString name, host, port;
        int fd = -1;
        int error = EINPROGRESS;
        qint64 ms = 0;
    };
    QList<Server> servers = {{"server info", conf.serverip_info, conf.serverport_info},
                             {"server file", conf.serverip_file, conf.serverport_file},
                             {"server video", conf.serverip_video, conf.serverport_video}};
    QElapsedTimer clock;
    clock.start();
    for (Server& s : servers) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(quint16(s.port.toInt()));
        if (!QEL_SQLConf::problemWith("serverip_info", s.host).isEmpty() ||
            !QEL_SQLConf::problemWith("serverport_info", s.port).isEmpty()) {
            s.error = EINVAL;       // said with the keys
            continue;
        }
        inet_pton(AF_INET, s.host.toLatin1().constData(), &to.sin_addr);
        s.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (s.fd < 0 || ::connect(s.fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0)
            s.error = s.fd < 0 ? errno : 0;
        else if (errno != EINPROGRESS)
            s.error = errno;
        s.ms = clock.elapsed();
    }
    for (;;) {
        QVector<pollfd> waiting;
        for (const Server& s : servers)
            if (s.error == EINPROGRESS)
                waiting.append(pollfd{s.fd, POLLOUT, 0});
        const qint64 left = kConnectBoundMs - clock.elapsed();
        if (waiting.isEmpty() || left <= 0)
            break;
        if (::poll(waiting.data(), nfds_t(waiting.size()), int(left)) < 0 && errno != EINTR)
            break;
        for (const pollfd& p : waiting) {
            if (p.revents == 0)
                continue;
            for (Server& s : servers) {
                if (s.fd != p.fd)
                    continue;
                socklen_t len = sizeof s.error;
                if (::getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &s.error, &len) != 0)
                    s.error = errno;
                s.ms = clock.elapsed();
            }
        }
    }
    for (Server& s : servers) {
        if (s.fd >= 0)
            ::close(s.fd);
        if (s.error == EINVAL)
            continue;
        const QString where = s.host + ':' + s.port;
        if (s.error == 0)
            r.line(true, s.name, QStringLiteral("%1 reachable (%2 ms)").arg(where).arg(s.ms));
        else if (s.error == EINPROGRESS)
            r.line(false, s.name, QStringLiteral("%1: no answer within %2 s").arg(where).arg(kConnectBoundMs / 1000));
        else
            r.line(false, s.name, QStringLiteral("%1: %2").arg(where, why(s.error)));
    }
}

}  // namespace

int runCheck(const QString& dbPath)
{
    Report r;
    QEL_SQLConf conf(nullptr, dbPath, QEL_SQLConf::Access::Inspect);
    if (conf.status == QEL_SQLConf::kOpenError) {
        r.line(false, QStringLiteral("database"),
               QFileInfo::exists(dbPath) ? QStringLiteral("%1: cannot be read as a database").arg(dbPath)
                                         : QStringLiteral("%1: does not exist (qel_net --config %1 init makes one)")
                                               .arg(dbPath));
    } else {
        int keys = 0;
        for (const QEL_SQLConf::Key& k : QEL_SQLConf::keys()) {
            const QString key = QString::fromLatin1(k.name);
            // The stored identifier is never used (the host name is), but
            // start-up still needs its row.
            const QString value = k.field == &QEL_Settings::useInlineName ? conf.findValue(key) : conf.*k.field;
            const QString problem = conf.missing.contains(key)
                                        ? QStringLiteral("no value (start-up fills a missing row with \"%1\" and stops on an empty one)")
                                              .arg(QString::fromUtf8(k.value))
                                        : QEL_SQLConf::problemWith(key, value);
            if (!problem.isEmpty())
                r.line(false, key, QStringLiteral("\"%1\": %2").arg(value, problem));
            else
                ++keys;
        }
        const QString budget = QEL_SQLConf::problemWith("queue_limit_mb", conf.queue_limit_mb);
        if (!budget.isEmpty())
            r.line(false, QStringLiteral("queue_limit_mb"), QStringLiteral("\"%1\": %2").arg(conf.queue_limit_mb, budget));
        if (keys == QEL_SQLConf::keys().size() && budget.isEmpty())
            r.line(true, QStringLiteral("configuration"), QStringLiteral("%1: all %2 keys present and usable")
                                                             .arg(QFileInfo(dbPath).absoluteFilePath()).arg(keys));

        const std::optional<QStringList> writable = serviceWritablePaths();
        for (const QEL_SQLConf::Key& k : QEL_SQLConf::keys())
            if (k.kind == QEL_SQLConf::Key::Directory && QEL_SQLConf::problemWith(k.name, conf.*k.field).isEmpty())
                checkDirectory(r, QString::fromLatin1(k.name), conf.*k.field, writable);
        checkDatabase(r, dbPath, writable);
        checkServers(r, conf);
    }
    r.line(true, QStringLiteral("host name"),
           QStringLiteral("%1 (reported to the server as the device identifier)").arg(QHostInfo::localHostName()));
    if (r.problems == 0)
        std::printf("qel_net --check: ready\n");
    else
        std::printf("qel_net --check: %d problem%s, not ready\n", r.problems, r.problems == 1 ? "" : "s");
    return r.problems == 0 ? 0 : 1;
}
