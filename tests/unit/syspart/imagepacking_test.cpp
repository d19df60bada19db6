#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QStringList>
#include <cstdio>

#include "ImagePacking.h"

namespace {

QStringList images(int count)
{
    QStringList out;
    for (int i = 0; i < count; ++i)
        out << QString("/aoi/alarmimage/camera1/detect2/NG/%1.jpg").arg(i);
    return out;
}

QDateTime fixedNow()
{
    return QDateTime(QDate(2026, 11, 22), QTime(8, 9, 10, 11));
}

struct GroupingCase
{
    int images;
    int perArchive;
    QList<int> lastIndices;     // one per archive
};

TEST(ImagePacking, ArchivesHoldAtMostTheirShareAndAreNamedAfterTheirLastImage)
{
    const GroupingCase cases[] = {
        {1, 10, {0}},
        {10, 10, {9}},
        {11, 10, {9, 10}},
        {25, 10, {9, 19, 24}},
        {3, 1, {0, 1, 2}},      // templates: one image each
        {0, 10, {}},
    };
    for (const GroupingCase& c : cases) {
        const QVector<TarJob> jobs = planArchives(images(c.images), "/aoi/", "/work/", c.perArchive, fixedNow);
        ASSERT_EQ(jobs.size(), c.lastIndices.size()) << c.images << "/" << c.perArchive;
        int member = 0;
        for (int j = 0; j < jobs.size(); ++j) {
            EXPECT_EQ(jobs[j].archive, QString("/work/Tar_20261122080910011_%1.tar.gz").arg(c.lastIndices[j]));
            for (const QString& m : jobs[j].members)
                EXPECT_EQ(m, QString("./alarmimage/camera1/detect2/NG/%1.jpg").arg(member++));
        }
        EXPECT_EQ(member, c.images);
    }
}

TEST(ImagePacking, TarCommandNamesTheRootTheArchiveAndTheMembers)
{
    const QVector<TarJob> jobs = planArchives(images(2), "/aoi/", "/work/", 10, fixedNow);
    ASSERT_EQ(jobs.size(), 1);
    EXPECT_EQ(jobs[0].command,
              "tar -C '/aoi/' -zcf '/work/Tar_20261122080910011_1.tar.gz.part' "
              "'./alarmimage/camera1/detect2/NG/0.jpg' './alarmimage/camera1/detect2/NG/1.jpg'");
}

// What the shell makes of a quoted word is the word itself.
QString throughShell(const QString& word)
{
    const QByteArray command = ("printf '%s' " + shellQuote(word)).toUtf8();
    FILE* pipe = popen(command.constData(), "r");
    QByteArray out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0)
        out.append(buf, int(n));
    pclose(pipe);
    return QString::fromUtf8(out);
}

TEST(ImagePacking, AwkwardNamesStayOneWordAndExecuteNothing)
{
    const char* names[] = {
        "plain.jpg", "with space.jpg", "it's.jpg", "a;touch /tmp/qel_pwned;.jpg", "$(touch /tmp/qel_pwned).jpg",
        "`id`.jpg", "line\nbreak.jpg", "back\\slash.jpg", "\"double\".jpg", "star*.jpg", "图像.jpg", "",
    };
    for (const char* name : names)
        EXPECT_EQ(throughShell(QString::fromUtf8(name)), QString::fromUtf8(name)) << name;
    EXPECT_FALSE(QFile::exists("/tmp/qel_pwned"));
}

TEST(ImagePacking, CameraAndDetectionNumbersFromPaths)
{
    const struct
    {
        bool tmpl;
        const char* path;
        int camera, detect;
    } cases[] = {
        {false, "/aoi/alarmimage/camera3/detect2/NG/x.jpg", 3, 2},
        {false, "/aoi/alarmimage/camera12/detect1/OK/x.jpg", 1, 1},     // one digit each, by design
        {false, "/aoi/alarmimage/x.jpg", 0, 0},
        {false, "/aoi/camera", 0, 0},
        {true, "/aoi/cammer34/x.bmp", 3, 4},
        {true, "/aoi/cammer1", 1, 0},
        {true, "/aoi/x.bmp", 0, 0},
    };
    for (const auto& c : cases) {
        int camera = -1, detect = -1;
        if (c.tmpl)
            parseTemplateCamDec(c.path, camera, detect);
        else
            parseAlarmCamDec(c.path, camera, detect);
        EXPECT_EQ(camera, c.camera) << c.path;
        EXPECT_EQ(detect, c.detect) << c.path;
    }
}

TEST(ImagePacking, TimeFileContent)
{
    const QDateTime fallback = QDateTime::fromMSecsSinceEpoch(1);
    EXPECT_EQ(parseTimeFile("1795335870955\n", fallback).toMSecsSinceEpoch(), 1795335870955LL);
    EXPECT_EQ(parseTimeFile("", fallback), fallback);
    EXPECT_EQ(parseTimeFile("soon", fallback), fallback);

    // What a look packed above its time file survives a restart, whatever the names.
    QHash<QString, qint64> packed;
    const char* names[] = {"/a/plain.jpg", "/a/with space.jpg", "/a/line\nbreak.jpg", "/a/100%.jpg", "/a/图像.jpg"};
    qint64 ms = 1795335870955LL;
    for (const char* name : names)
        packed.insert(QString::fromUtf8(name), ms++);
    EXPECT_EQ(parsePackedList(packedListText(packed)), packed);
    EXPECT_EQ(parsePackedList("garbage\n12\nx /a.jpg\n7 %2Fb.jpg\n").value("/b.jpg", -1), 7);
    EXPECT_EQ(parsePackedList("garbage\n12\nx /a.jpg\n7 %2Fb.jpg\n").size(), 1);
}

}  // namespace
