// qel_net --config: the integrator's way to the settings in info_sysconf,
// without SQL. Every value is checked with the rules the agent's own use of
// it implies before anything is written, and what is given is written in
// one transaction or not at all.
#include "Commands.h"

#include <QFileInfo>
#include <QPair>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "QEL_SQLConf.h"

namespace {

void out(const QString& text)
{
    std::fputs(text.toUtf8().constData(), stdout);
}

int refuse(const QString& text)
{
    std::fprintf(stderr, "qel_net --config: %s\n", text.toUtf8().constData());
    return 1;
}

int usage()
{
    std::fputs("usage: qel_net --config DB show\n"
               "       qel_net --config DB get KEY\n"
               "       qel_net --config DB set KEY VALUE [KEY VALUE ...]\n"
               "       qel_net --config DB init [--server ADDRESS]\n",
               stderr);
    return 2;
}

QString noDatabase(const QString& db)
{
    return QStringLiteral("%1: no such database (qel_net --config %1 init makes one)").arg(db);
}

int show(const QString& db)
{
    QEL_SQLConf conf(nullptr, db, QEL_SQLConf::Access::Inspect);
    if (conf.status == QEL_SQLConf::kOpenError)
        return refuse(noDatabase(db));
    int width = 0;
    for (const QEL_SQLConf::Key& k : QEL_SQLConf::keys())
        width = std::max(width, int(qstrlen(k.name)));
    auto row = [&](const QString& key, const QString& value) {
        const QString problem = conf.missing.contains(key) ? QStringLiteral("missing") : QEL_SQLConf::problemWith(key, value);
        out(QStringLiteral("%1  %2%3\n").arg(key, -width).arg(value, problem.isEmpty() ? QString() : "   <- " + problem));
    };
    // The stored identifier, not the host name the agent reports in its place.
    for (const QEL_SQLConf::Key& k : QEL_SQLConf::keys())
        row(QString::fromLatin1(k.name), conf.findValue(k.name));
    for (const QString& key : QEL_SQLConf::optionalKeys()) {
        const QString value = conf.findValue(key);
        if (!value.isEmpty())
            row(key, value);
    }
    return 0;
}

int get(const QString& db, const QString& key)
{
    if (QEL_SQLConf::problemWith(key, QString()).startsWith(QLatin1String("unknown key")))
        return refuse(QStringLiteral("%1: %2").arg(key, QEL_SQLConf::problemWith(key, QString())));
    QEL_SQLConf conf(nullptr, db, QEL_SQLConf::Access::Inspect);
    if (conf.status == QEL_SQLConf::kOpenError)
        return refuse(noDatabase(db));
    const QString value = conf.findValue(key);
    if (value.isEmpty() && !QEL_SQLConf::optionalKeys().contains(key))
        return refuse(QStringLiteral("%1: no value in %2").arg(key, db));
    out(value + '\n');
    return 0;
}

// Checks every pair first; writes only when all are usable.
int set(const QString& db, const QList<QPair<QString, QString>>& pairs, bool fresh)
{
    int bad = 0;
    for (const auto& p : pairs) {
        const QString problem = QEL_SQLConf::problemWith(p.first, p.second);
        if (!problem.isEmpty()) {
            refuse(QStringLiteral("%1 \"%2\": %3").arg(p.first, p.second, problem));
            ++bad;
        }
    }
    if (bad > 0)
        return refuse(QStringLiteral("nothing written"));
    QEL_SQLConf conf(nullptr, db, QEL_SQLConf::Access::Edit);
    if (conf.status == QEL_SQLConf::kOpenError)
        return refuse(noDatabase(db));
    QList<QPair<QString, QString>> before;
    for (const auto& p : pairs)
        before.append({p.first, conf.findValue(p.first)});
    QString error;
    if (!conf.setValues(pairs, &error))
        return refuse(QStringLiteral("%1: nothing written: %2").arg(db, error));
    if (fresh)
        return 0;
    int changed = 0;
    for (int i = 0; i < pairs.size(); ++i) {
        if (before[i].second == pairs[i].second)
            continue;
        out(QStringLiteral("%1: %2 -> %3\n")
                .arg(pairs[i].first, before[i].second.isEmpty() ? QStringLiteral("(none)") : before[i].second,
                     pairs[i].second));
        ++changed;
    }
    out(changed == 0 ? QStringLiteral("nothing changed\n")
                     : QStringLiteral("the agent reads its settings at start-up: systemctl restart qel_net\n"));
    return 0;
}

int init(const QString& db, const QString& server)
{
    // Claimed before anything is written: an existing file is never touched,
    // even one that appears meanwhile.
    const int fd = ::open(db.toUtf8().constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (fd < 0)
        return refuse(QStringLiteral("%1: %2 (init makes a new database only)")
                          .arg(db, QString::fromLocal8Bit(std::strerror(errno))));
    ::close(fd);
    QList<QPair<QString, QString>> rows;
    QString servers;
    for (const QEL_SQLConf::Key& k : QEL_SQLConf::keys()) {
        QString value = QString::fromUtf8(k.value);
        if (k.kind == QEL_SQLConf::Key::Address)
            servers = value = server.isEmpty() ? value : server;
        rows.append({QString::fromLatin1(k.name), value});
    }
    const int status = set(db, rows, true);
    if (status != 0) {
        ::unlink(db.toUtf8().constData());
        return status;
    }
    out(QStringLiteral("wrote %1: the default paths, every server at %2\n").arg(db, servers));
    return show(db);
}

}  // namespace

int runConfig(const QStringList& args)
{
    if (args.size() < 2)
        return usage();
    const QString db = args[0];
    const QString what = args[1];
    const QStringList rest = args.mid(2);
    if (what == QLatin1String("show") && rest.isEmpty())
        return show(db);
    if (what == QLatin1String("get") && rest.size() == 1)
        return get(db, rest[0]);
    if (what == QLatin1String("set") && !rest.isEmpty() && rest.size() % 2 == 0) {
        QList<QPair<QString, QString>> pairs;
        for (int i = 0; i < rest.size(); i += 2)
            pairs.append({rest[i], rest[i + 1]});
        return set(db, pairs, false);
    }
    if (what == QLatin1String("init") && (rest.isEmpty() || (rest.size() == 2 && rest[0] == QLatin1String("--server")))) {
        const QString server = rest.value(1);
        if (!server.isEmpty() && !QEL_SQLConf::problemWith(QStringLiteral("serverip_info"), server).isEmpty())
            return refuse(QStringLiteral("--server \"%1\": %2")
                              .arg(server, QEL_SQLConf::problemWith(QStringLiteral("serverip_info"), server)));
        return init(db, server);
    }
    return usage();
}
