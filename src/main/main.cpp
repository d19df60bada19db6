#include <QCoreApplication>
#include <QString>
#include <cstdio>
#include <string>
#include <sys/prctl.h>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif

#include <glog/logging.h>

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

void chkDirComplete()
{
    if (oxa_dir_create(gConfig->logpath.toUtf8().constData(), "") != 0)
        LOG(INFO) << "logdir create wrong:" << true;
    if (oxa_dir_create(gConfig->failpath.toUtf8().constData(), "") != 0)
        LOG(INFO) << "faildir create wrong:" << true;
    if (oxa_dir_create(gConfig->tdata.toUtf8().constData(), "") != 0)
        LOG(INFO) << "tdata create wrong:" << true;
}

// "--version" and "--help" as the only argument answer and end; any other
// single argument is the database path. Returns true when it answered.
static bool answeredOption(int argc, char* argv[])
{
    if (argc != 2)
        return false;
    const std::string arg = argv[1];
    if (arg == "--version") {
        printf("qel_net " QEL_VERSION "\n");
        return true;
    }
    if (arg == "--help") {
        printf("usage: qel_net [DATABASE]\n"
               "The network agent of the inspection machine: reports what the inspection\n"
               "application sends on 127.0.0.1:8890 to the central server.\n"
               "DATABASE is the SQLite configuration database (default ./sysconf.db);\n"
               "it also keeps the requests not yet delivered. SIGTERM or SIGINT stop the\n"
               "agent in order. See qel_net(8).\n");
        return true;
    }
    return false;
}

int main(int argc, char* argv[])
{
    if (answeredOption(argc, argv))
        return 0;

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
    gConfig = QEL_SQLConf::getInstance(&app, dbPath);

    if (gConfig->status == QEL_SQLConf::kSuccess) {
        chkDirComplete();
        gGlog = new GLog(gConfig->logpath.toUtf8().toStdString(), argv, &app);
        LOG(INFO) << "version:" QEL_VERSION << " release";
        LOG(INFO) << gConfig->status.toUtf8().constData();
        LOG(INFO) << "log:" << "(log files older than " << GLog::kKeepLogDays << " days are removed)";
        gConsole = new NetWorkConsole(&app, dbPath);
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
    LOG(INFO) << gConfig->status.toUtf8().constData();
    return 0;
}
