#include "RunStateProbe.h"

#include <QByteArray>
#include <QFile>
#include <QRegularExpression>
#include <QStringList>

#include <cJSON.h>

#include "oxa_json.h"

#include <cmath>

#include "ShellCommand.h"
#include "oxa_cmd.h"

namespace {

// Truncation toward zero into the int range; anything that does not fit
// (NaN, infinity, huge values from a garbled line) is reported as unknown.
long long truncToInt(float v)
{
    if (!(v > -2147483649.0f && v < 2147483648.0f))
        return -1;
    return static_cast<int>(v);
}

long long memoryShare(double used, double total)
{
    if (!(total > 0.0) || !std::isfinite(used) || !std::isfinite(total))
        return -1;
    return truncToInt(static_cast<float>(used) / static_cast<float>(total) * 10000.0f);
}

// Newer top: "MiB Mem :  15996.6 total,   9000.1 free,   4000.2 used, ..."
// (unit label, a blank before the colon, decimal numbers).
const QRegularExpression& modernMemLine()
{
    static const QRegularExpression re(QStringLiteral("[KMGTPE]iB Mem\\s+:(.*)$"));
    return re;
}

}  // namespace

RunStateSample parseTopOutput(const QString& topText)
{
    RunStateSample s;
    const QStringList lines = topText.split(QStringLiteral("\n"));
    if (lines.isEmpty())
        return s;

    for (const QString& line : lines) {
        if (line.contains(QStringLiteral("%Cpu(s)"))) {
            const QStringList parts = line.split(QStringLiteral(","));
            for (QString part : parts) {
                if (!part.contains(QStringLiteral("id")))
                    continue;
                part.remove(QStringLiteral("id"));
                const float idle = part.trimmed().toFloat();
                s.cpu = truncToInt(10000.0f - idle * 100.0f);
            }
        }

        const QRegularExpressionMatch modern = modernMemLine().match(line);
        if (modern.hasMatch()) {
            double total = 0.0;
            double used = 0.0;
            const QStringList parts = modern.captured(1).split(QStringLiteral(","));
            for (QString part : parts) {
                if (part.contains(QStringLiteral("total")))
                    total = part.remove(QStringLiteral("total")).trimmed().toDouble();
                if (part.contains(QStringLiteral("used")))
                    used = part.remove(QStringLiteral("used")).trimmed().toDouble();
            }
            s.memory = memoryShare(used, total);
        } else if (line.contains(QStringLiteral("KiB Mem"))) {
            // Older top: "KiB Mem:   8069432 total,  2340000 used, ..."
            long long total = 0;
            long long used = 0;
            const QStringList parts = QString(line).remove(QStringLiteral("KiB Mem:")).split(QStringLiteral(","));
            for (QString part : parts) {
                if (part.contains(QStringLiteral("total")))
                    total = part.remove(QStringLiteral("total")).trimmed().toLongLong();
                if (part.contains(QStringLiteral("used")))
                    used = part.remove(QStringLiteral("used")).trimmed().toLongLong();
            }
            s.memory = memoryShare(static_cast<double>(used), static_cast<double>(total));
        }
    }
    return s;
}

long long readUptimeSeconds(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QString text = QString::fromUtf8(file.readAll());
    file.close();

    const double seconds = text.split(QStringLiteral(" ")).first().trimmed().toDouble();
    if (!(seconds > -9.2e18 && seconds < 9.2e18))
        return -1;
    return static_cast<long long>(seconds);
}

RunStateSample measureRunState(ShellCommand* shell)
{
    const long long uptime = readUptimeSeconds();
    // Bounded in wall time: a top that hangs (a stuck /proc read) is killed,
    // and the reports after it are measured as usual. Run through `shell`,
    // the orderly stop ends it at once (the load is then unknown).
    const char* const top = "timeout -k 1 5 top -bn 1 -i";
    const std::string out = shell != nullptr ? shell->run(top, ShellCommand::OnStop::Kill, true).output : oxa_cmd(top);
    RunStateSample s = parseTopOutput(QString::fromStdString(out));
    s.nearstart = uptime;
    return s;
}

bool composeRunStateBody(const QString& appJson, const RunStateSample& s, QString& out)
{
    const QByteArray utf8 = appJson.toUtf8();
    cJSON* root = oxa_json_parse(utf8.constData());
    if (root == nullptr)
        return false;
    if (!cJSON_IsObject(root)) {
        cJSON_Delete(root);
        return false;
    }

    cJSON_AddNumberToObject(root, "cpu", static_cast<double>(s.cpu));
    cJSON_AddNumberToObject(root, "memory", static_cast<double>(s.memory));
    cJSON_AddNumberToObject(root, "nearstart", static_cast<double>(s.nearstart));

    char* text = cJSON_Print(root);
    cJSON_Delete(root);
    if (text == nullptr)
        return false;
    out = QString::fromUtf8(text);
    cJSON_free(text);
    return true;
}
