// What the items read from the application and the machine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImagePacking.h"
#include "MemoryInfo.h"
#include "RunStateProbe.h"

namespace {

TEST(MemoryInfo, ElementsAreUsableOnlyWhenCompleteAndInRange)
{
    const std::string good = R"({"shmid":5,"semid":6,"cameraid":12,"size":1966080,"width":1280,"height":1024,"fps":20})";
    const std::pair<const char*, bool> elements[] = {
        {R"({"shmid":5,"semid":6,"cameraid":1,"size":10,"width":2,"height":2})", false},     // a key missing
        {R"({"shmid":"5","semid":6,"cameraid":1,"size":10,"width":2,"height":2,"fps":20})", false},
        {R"({"shmid":5,"semid":6,"cameraid":1,"size":10.5,"width":2,"height":2,"fps":20})", false},
        {R"({"shmid":5,"semid":6,"cameraid":1,"size":0,"width":2,"height":2,"fps":20})", false},
        {R"({"shmid":5,"semid":6,"cameraid":1,"size":10,"width":-2,"height":2,"fps":20})", false},
        {R"({"shmid":5,"semid":6,"cameraid":2147483647,"size":10,"width":2,"height":2,"fps":20})", false},
        {R"({"shmid":5e20,"semid":6,"cameraid":1,"size":10,"width":2,"height":2,"fps":20})", false},
        {"7", false},
        {R"({"ShmId":5,"SEMID":6,"cameraId":1,"Size":10,"Width":2,"Height":2,"FPS":20})", true},
    };
    for (const auto& [element, usable] : elements) {
        QList<CameraAnnounce> cameras;
        ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray::fromStdString("{\"memoryinfo\":[" + std::string(element) + "," + good + "]}"),
                                                  cameras));
        ASSERT_EQ(cameras.size(), 2);
        EXPECT_EQ(cameras[0].usable, usable) << element;
        EXPECT_TRUE(cameras[1].usable);     // one bad element spoils nothing else
    }
    QList<CameraAnnounce> cameras;
    ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray::fromStdString("{\"MemoryInfo\":[" + good + "]}"), cameras));
    const CameraAnnounce& c = cameras[0];
    EXPECT_EQ((std::vector<int>{c.shmid, c.semid, c.cameraid, c.size, c.width, c.height, c.fps, c.shmProject, c.semProject}),
              (std::vector<int>{5, 6, 12, 1966080, 1280, 1024, 20, 10012, 20012}));
    for (const char* body : {"", "not json", "{}", "{\"memoryinfo\":{}}", "[1,2]"})
        EXPECT_FALSE(memoryinfo::parseAnnouncement(QByteArray(body), cameras)) << body;
}

TEST(MemoryInfo, FramesMustFitTheSideLimitAndTheSegment)
{
    const struct { int width, height; unsigned long long segment; bool fits; } cases[] = {
        {1280, 1024, 1966080, true}, {1280, 1024, 1966079, false},
        {3, 3, 9 + 2 * 4, true}, {3, 3, 9 + 2 * 4 - 1, false},      // odd sides round the chroma planes up
        {8192, 8192, 1ULL << 40, true}, {8193, 2, 1ULL << 40, false}, {2, 8193, 1ULL << 40, false},
    };
    for (const auto& c : cases) {
        CameraAnnounce camera;
        camera.width = c.width;
        camera.height = c.height;
        EXPECT_EQ(memoryinfo::frameFits(camera, c.segment), c.fits) << c.width << "x" << c.height << " in " << c.segment;
    }
    const struct { int prefix, camera; bool ok; int project; } projects[] = {
        {100, 0, true, 1000}, {200, 11, true, 20011}, {100, 9999999, true, 1009999999}, {300, 9999999, false, 0},
        {100, -1, false, 0}};
    for (const auto& p : projects) {
        int project = 0;
        EXPECT_EQ(memoryinfo::project(p.prefix, p.camera, project), p.ok) << p.camera;
        EXPECT_EQ(project, p.project) << p.camera;
    }
}

// The processor share is 100 % less the idle share, the memory share used
// over total, both in hundredths of a percent; -1 when not read.
TEST(ParseTopOutput, CpuAndMemory)
{
    const struct { const char* name; const char* text; long long cpu, memory; } cases[] = {
        {"old procps",
         "%Cpu(s):  2.5 us,  0.0 sy,  0.0 ni, 97.5 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st\n"
         "KiB Mem:   8069432 total,  2340000 used,  5729432 free,   180212 buffers\n"
         "KiB Swap:  8263676 total,        0 used,  8263676 free.  1520344 cached Mem\n", 250, 2899},
        {"procps-ng 4: swap has total and used too",
         "%Cpu(s):  1.6 us,  0.0 sy,  0.0 ni, 98.4 id,  0.0 wa,  0.0 hi,  0.0 si,  0.0 st \n"
         "MiB Mem :  15996.6 total,   9000.1 free,   4000.2 used,   2996.3 buff/cache     \n"
         "MiB Swap:   2048.0 total,   2048.0 free,      0.0 used.  11996.4 avail Mem \n", 160, 2500},
        {"GiB", "GiB Mem :     15.6 total,      8.8 free,      3.9 used,      2.9 buff/cache\n", -1, 2500},
        {"idle 100.0", "%Cpu(s):  0.0 us,  0.0 sy,  0.0 ni,100.0 id,  0.0 wa\n", 0, -1},
        {"idle 0.0", "%Cpu(s):  0.0 us,100.0 sy,  0.0 ni,  0.0 id,  0.0 wa\n", 10000, -1},
        {"idle 99.9", "%Cpu(s):  0.1 us,  0.0 sy,  0.0 ni, 99.9 id\n", 10, -1},
        {"idle nan", "%Cpu(s):  0.0 us,  nan id\n", -1, -1},
        {"total 0", "MiB Mem :      0.0 total,      0.0 free,      0.0 used\n", -1, -1},
        {"later lines overwrite",
         "%Cpu(s):  2.5 us, 97.5 id\nKiB Mem:   8069432 total,  2340000 used\n"
         "%Cpu(s):  6.2 us, 93.8 id\nKiB Mem:         0 total,  2340000 used\n", 620, -1},
    };
    for (const auto& c : cases) {
        const RunStateSample s = parseTopOutput(QString::fromUtf8(c.text));
        EXPECT_EQ(std::make_pair(s.cpu, s.memory), std::make_pair(c.cpu, c.memory)) << c.name;
    }
}

// Image names are bytes: whatever the application wrote comes back byte for
// byte; valid UTF-8 reads as the text it is.
TEST(FileNames, AnyBytesRoundTrip)
{
    const struct { const char* name; QByteArray bytes; bool utf8; } cases[] = {
        {"ASCII", "camera1/img_1.bmp", true},
        {"UTF-8, three and four bytes", "\xe7\x94\xb2\xf0\x9f\x98\x80.bmp", true},
        {"Latin-1", "caf\xe9.bmp", false},
        {"cut short at the end", "a\xe7\x94", false},
        {"overlong slash", "\xc0\xaf", false},
        {"an encoded surrogate", "\xed\xb2\x80", false},
        {"above U+10FFFF", "\xf4\x90\x80\x80", false},
        {"every byte", [] { QByteArray all; for (int b = 1; b < 256; ++b) all += char(b); return all; }(), false},
    };
    for (const auto& c : cases) {
        const QString name = decodeFileName(c.bytes);
        EXPECT_EQ(encodeFileName(name), c.bytes) << c.name;
        EXPECT_EQ(name == QString::fromUtf8(c.bytes), c.utf8) << c.name;
    }
    EXPECT_NE(decodeFileName("\xff"), decodeFileName("\xfe"));
}

}  // namespace
