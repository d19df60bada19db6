#include "GLog.h"

#include <glog/logging.h>

GLog::GLog(const std::string& logDir, char** argv, QObject* parent)
    : QObject(parent)
{
    FLAGS_log_dir = logDir;
    FLAGS_logbufsecs = 0;
    FLAGS_max_log_size = 100;
    FLAGS_stop_logging_if_full_disk = true;
    FLAGS_logtostderr = false;
    google::SetLogFilenameExtension("log");
    FLAGS_logtostderr = false;
    google::InitGoogleLogging(argv[0]);
    google::InstallFailureSignalHandler();
    google::InstallFailureWriter(SignalHandle);
    // A machine runs for years: log files older than a week go, so the log
    // directory stays bounded.
    google::EnableLogCleaner(kKeepLogDays);
}

GLog::~GLog()
{
    google::ShutdownGoogleLogging();
}

void SignalHandle(const char* data, size_t size)
{
    std::string report(data, size);
    google::LogMessage("network.cpp", __LINE__, google::GLOG_INFO).stream() << report;
}
