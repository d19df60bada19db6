#include "MemoryInfo.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(MemoryInfo, ElementsAreUsableOnlyWhenCompleteAndInRange)
{
    const char* good = R"({"shmid":5,"semid":6,"cameraid":12,"size":1966080,"width":1280,"height":1024,"fps":20})";
    const struct
    {
        const char* name;
        std::string element;
        bool usable;
    } cases[] = {
        {"complete", good, true},
        {"missing key", R"({"shmid":5,"semid":6,"cameraid":1,"size":10,"width":2,"height":2})", false},
        {"text instead of a number", R"({"shmid":"5","semid":6,"cameraid":1,"size":10,"width":2,"height":2,"fps":20})", false},
        {"fraction", R"({"shmid":5,"semid":6,"cameraid":1,"size":10.5,"width":2,"height":2,"fps":20})", false},
        {"size zero", R"({"shmid":5,"semid":6,"cameraid":1,"size":0,"width":2,"height":2,"fps":20})", false},
        {"negative width", R"({"shmid":5,"semid":6,"cameraid":1,"size":10,"width":-2,"height":2,"fps":20})", false},
        {"height zero", R"({"shmid":5,"semid":6,"cameraid":1,"size":10,"width":2,"height":0,"fps":20})", false},
        {"camera at INT_MAX", R"({"shmid":5,"semid":6,"cameraid":2147483647,"size":10,"width":2,"height":2,"fps":20})", false},
        {"negative camera", R"({"shmid":5,"semid":6,"cameraid":-1,"size":10,"width":2,"height":2,"fps":20})", false},
        {"beyond int", R"({"shmid":5e20,"semid":6,"cameraid":1,"size":10,"width":2,"height":2,"fps":20})", false},
        {"not an object", "7", false},
        {"keys in any case", R"({"ShmId":5,"SEMID":6,"cameraId":1,"Size":10,"Width":2,"Height":2,"FPS":20})", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QList<CameraAnnounce> cameras;
        ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray::fromStdString("{\"memoryinfo\":[" + c.element + "," + good + "]}"),
                                      cameras));
        ASSERT_EQ(cameras.size(), 2);
        EXPECT_EQ(cameras[0].usable, c.usable);
        EXPECT_TRUE(cameras[1].usable);     // one bad element spoils nothing else
    }

    QList<CameraAnnounce> cameras;
    ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray("{\"memoryinfo\":[") + good + "]}", cameras));
    const CameraAnnounce& c = cameras[0];
    EXPECT_EQ((std::vector<int>{c.shmid, c.semid, c.cameraid, c.size, c.width, c.height, c.fps, c.shmProject, c.semProject}),
              (std::vector<int>{5, 6, 12, 1966080, 1280, 1024, 20, 10012, 20012}));

    for (const char* body : {"", "not json", "{}", "{\"memoryinfo\":{}}", "[1,2]"}) {
        SCOPED_TRACE(body);
        EXPECT_FALSE(memoryinfo::parseAnnouncement(QByteArray(body), cameras));
    }
    ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray("{\"memoryinfo\":[]}"), cameras));
    EXPECT_TRUE(cameras.isEmpty());
    ASSERT_TRUE(memoryinfo::parseAnnouncement(QByteArray("{\"MemoryInfo\":[") + good + "]}", cameras));
    EXPECT_EQ(cameras.size(), 1);
}

TEST(MemoryInfo, FramesMustFitTheSideLimitAndTheSegment)
{
    const struct
    {
        int width, height;
        unsigned long long segment;
        bool fits;
    } cases[] = {
        {1280, 1024, 1966080, true},            // exactly one I420 picture
        {1280, 1024, 1966079, false},
        {3, 3, 9 + 2 * 4, true},                // odd sides round the chroma planes up
        {3, 3, 9 + 2 * 4 - 1, false},
        {8192, 8192, 1ULL << 40, true},
        {8193, 2, 1ULL << 40, false},
        {2, 8193, 1ULL << 40, false},
        {16000, 16000, 4096, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        CameraAnnounce camera;
        camera.width = c.width;
        camera.height = c.height;
        EXPECT_EQ(memoryinfo::frameFits(camera, c.segment), c.fits);
    }
}

TEST(MemoryInfo, ProjectNumbersAreDecimalConcatenations)
{
    const struct
    {
        int prefix, camera;
        bool ok;
        int project;
    } cases[] = {{100, 0, true, 1000}, {100, 3, true, 1003}, {100, 12, true, 10012}, {200, 11, true, 20011},
                 {100, 1, true, 1001}, {100, 9999999, true, 1009999999}, {300, 9999999, false, 0},
                 {100, 21474836, false, 0}, {100, -1, false, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.camera);
        int project = 0;
        EXPECT_EQ(memoryinfo::project(c.prefix, c.camera, project), c.ok);
        if (c.ok) {
            EXPECT_EQ(project, c.project);
        }
    }
}

}  // namespace
