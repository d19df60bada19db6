#include <QCoreApplication>
#include <QString>
#include <cstdio>
#include <string>
#include <sys/prctl.h>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif

#include <glog/logging.h>

#include "Commands.h"
#include "GLog.h"
#include "NetWorkConsole.h"
#include "QEL_SQLConf.h"
#include "ServiceNotify.h"
#include "StopSignals.h"
#include "globals.h"
#include "oxa_dir.h"
#include "startup.h"

#ifndef QEL_VERSION
#error "QEL_VERSION is the project version, defined by CMakeLists.txt"
#endif

void chkDirComplete(const QEL_Settings& conf)
{
    if (oxa_dir_create(conf.logpath.toUtf8().constData(), "") != 0)
        LOG(INFO) << "logdir create wrong:" << true;
    if (oxa_dir_create(conf.failpath.toUtf8().constData(), "") != 0)
        LOG(INFO) << "faildir create wrong:" << true;
    if (oxa_dir_create(conf.tdata.toUtf8().constData(), "") != 0)
        LOG(INFO) << "tdata create wrong:" << true;
}

// "--version" and "--help" as the only argument, "--check [DB]" and
// "--config DB ..." answer and end; any other single argument is the
// database path. The exit status when it answered, else -1.
static int answeredOption(int argc, char* argv[])
{
    const std::string arg = argc >= 2 ? argv[1] : "";
    if (argc == 2 && arg == "--version") {
        printf("qel_net " QEL_VERSION "\n");
        return 0;
    }
    if (argc == 2 && arg == "--help") {
        printf("usage: qel_net [DATABASE]\n"
               "       qel_net --check [DATABASE]\n"
               "       qel_net --config DATABASE show | get KEY | set KEY VALUE... | init [--server ADDRESS]\n"
               "The network agent of the inspection machine: reports what the inspection\n"
               "application sends on 127.0.0.1:8890 to the central server.\n"
               "DATABASE is the SQLite configuration database (default ./sysconf.db);\n"
               "it also keeps the requests not yet delivered. SIGTERM or SIGINT stop the\n"
               "agent in order. --check says whether this machine is ready for the agent\n"
               "as configured; --config reads and edits the settings. See qel_net(8).\n");
        return 0;
    }
    const bool check = arg == "--check" && argc <= 3;
    if (!check && !(arg == "--config" && argc >= 3))
        return -1;
    QCoreApplication app(argc, argv);
    if (check)
        return runCheck(argc == 3 ? QString::fromUtf8(argv[2]) : QStringLiteral("./sysconf.db"));
    QStringList args;
    for (int i = 2; i < argc; ++i)
        args << QString::fromUtf8(argv[i]);
    return runConfig(args);
}

int main(int argc, char* argv[])
{
    const int answered = answeredOption(argc, argv);
    if (answered >= 0)
        return answered;

    // The video encoder asks for transparent huge pages for its frames, which
    // rounds every frame plane up to 2 MiB of resident memory (about 5 MiB
    // more per camera); 4 KiB pages keep a camera's frames at their size.
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);

    QCoreApplication app(argc, argv);

    // Qt 5 and 6 already treat C strings as UTF-8; only the locale codec is
    // left to set, and only Qt 5 still has it.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("utf-8"));
#endif

    const QString dbPath = (argc == 2) ? QString::fromUtf8(argv[1]) : QString("./sysconf.db");
    // Read once; the parts that use it get their values when they are made.
    auto* conf = new QEL_SQLConf(&app, dbPath);

    if (conf->status == QEL_SQLConf::kSuccess) {
        chkDirComplete(*conf);
        gGlog = new GLog(conf->logpath.toUtf8().toStdString(), argv, &app);
        LOG(INFO) << "version:" QEL_VERSION << " release";
        LOG(INFO) << conf->status.toUtf8().constData();
        LOG(INFO) << "log:" << "(log files older than " << GLog::kKeepLogDays << " days are removed)";
        gConsole = new NetWorkConsole(&app, *conf, dbPath);
        gConsole->FirstInit();
        ServiceNotify::attach(gConsole, &app);
        new StopSignals(
            [&app](int signo) {
                LOG(INFO) << "stop:" << "(signal " << signo << ", stopping in order)";
                ServiceNotify::stopping();
                gConsole->stop();
                app.quit();
            },
            &app);
        app.exec();
        delete gConsole;
        gConsole = nullptr;
        LOG(INFO) << "stop:" << "(every request not yet answered is kept for the next start)";
        google::FlushLogFiles(google::GLOG_INFO);
        return 0;
    }

    if (oxa_dir_create("./qel_net/", "qel_log") != 0)
        perror("logdir create wrong");
    const std::string logDir = std::string("./qel_net/") + "qel_log";
    gGlog = new GLog(logDir, argv, &app);
    LOG(INFO) << "version:" QEL_VERSION << " release";
    LOG(INFO) << conf->status.toUtf8().constData();
    return 0;
}
