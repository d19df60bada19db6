#include "FrameSlots.h"
#include "PixelConvert.h"

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(FrameSlots, TimesRoundToTheNearestIntervalSinceTheEpoch)
{
    const struct
    {
        int64_t timeMs;
        int fps;
        int64_t slot;
    } cases[] = {
        {1000, 10, 10}, {1049, 10, 10}, {1050, 10, 11}, {0, 20, 0}, {24, 20, 0}, {25, 20, 1},
        {1700000000000LL, 20, 34000000000LL}, {1700000000024LL, 20, 34000000000LL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeMs);
        EXPECT_EQ(frameslots::slotOf(c.timeMs, c.fps), c.slot);
    }
    EXPECT_TRUE(frameslots::takes(0, -1));     // the first frame, even at time 0
    EXPECT_FALSE(frameslots::takes(10, 10));
    EXPECT_FALSE(frameslots::takes(9, 10));
}

// Planes of a 4x2 (or given) picture with padded lines, as the encoder's frame has them.
struct Planes
{
    Planes(int lineY, int lineC, int rowsY, int rowsC)
        : y(static_cast<size_t>(lineY) * rowsY, 0xEE), u(static_cast<size_t>(lineC) * rowsC, 0xEE),
          v(static_cast<size_t>(lineC) * rowsC, 0xEE)
    {
        planes = {{y.data(), u.data(), v.data()}, {lineY, lineC, lineC}, {y.size(), u.size(), v.size()}};
    }
    std::vector<uint8_t> y, u, v;
    YuvPlanes planes;
};

TEST(PixelConvert, GreyAndNv12AreCopiedAsBlocks)
{
    // grey 4x2: eight luma bytes as one block into lines of 8, chroma 128 for two bytes
    const uint8_t grey[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    Planes g(8, 4, 2, 1);
    pixelconvert::mono8(grey, 4, 2, g.planes);
    EXPECT_EQ(std::vector<uint8_t>(g.y.begin(), g.y.begin() + 9), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 0xEE}));
    EXPECT_EQ(g.u, (std::vector<uint8_t>{128, 128, 0xEE, 0xEE}));
    EXPECT_EQ(g.v, (std::vector<uint8_t>{128, 128, 0xEE, 0xEE}));

    // NV12 4x2: Y block, then U,V pairs taken apart, U first
    const uint8_t nv12[12] = {1, 2, 3, 4, 5, 6, 7, 8, 10, 20, 11, 21};
    Planes n(4, 2, 2, 1);
    pixelconvert::nv12(nv12, 4, 2, n.planes);
    EXPECT_EQ(n.y, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(n.u, (std::vector<uint8_t>{10, 11}));
    EXPECT_EQ(n.v, (std::vector<uint8_t>{20, 21}));

    // planes smaller than the picture are never written past
    Planes tiny(2, 1, 1, 1);
    pixelconvert::mono8(grey, 4, 2, tiny.planes);
    pixelconvert::nv12(nv12, 4, 2, tiny.planes);
    EXPECT_EQ(tiny.y.size(), 2u);
}

TEST(PixelConvert, BottomUpRgbStoresEachLumaAtThePicturesFixedPositions)
{
    // 2x2 RGB, rows bottom-up: buffer row 0 is the picture's last row.
    const uint8_t rgb[12] = {255, 255, 255, 0, 0, 0,      // bottom row: white, black
                             10, 200, 30, 90, 90, 90};     // top row
    // Planes large enough to hold the fixed positions linesize*height + width.
    Planes p(4, 4, 3, 3);
    pixelconvert::rgbBottomUp(rgb, 2, 2, p.planes);
    // Pixels are visited top row first (buffer row 1), left to right; every
    // luma lands on Y[4*2+2]; even columns of even rows on U[4*2+2], of odd rows on V[4*2+2].
    const int topLeft = pixelconvert::luma(10, 200, 30);
    const int bottomLeft = pixelconvert::luma(255, 255, 255);
    const int bottomRight = pixelconvert::luma(0, 0, 0);
    EXPECT_EQ(bottomRight, 16);
    EXPECT_EQ(bottomLeft, 235);
    EXPECT_EQ(p.y[10], bottomRight);
    EXPECT_EQ(p.u[10], topLeft);
    EXPECT_EQ(p.v[10], bottomLeft);
    for (size_t i = 0; i < p.y.size(); ++i)
        if (i != 10) {
            EXPECT_EQ(p.y[i], 0xEE) << i;
        }

    // In the encoder's own frame those positions lie past the planes: nothing is written.
    Planes exact(2, 1, 2, 1);
    pixelconvert::rgbBottomUp(rgb, 2, 2, exact.planes);
    EXPECT_EQ(exact.y, std::vector<uint8_t>(4, 0xEE));
}

TEST(PixelConvert, I420PlanesPointIntoTheCopy)
{
    std::vector<uint8_t> frame(6 * 4 * 3 / 2);
    uint8_t* data[3];
    int linesize[3];
    pixelconvert::i420Planes(frame.data(), 6, 4, data, linesize);
    EXPECT_EQ(data[0], frame.data());
    EXPECT_EQ(data[1], frame.data() + 24);
    EXPECT_EQ(data[2], frame.data() + 30);
    EXPECT_EQ(linesize[0], 6);
    EXPECT_EQ(linesize[1], 3);
    EXPECT_EQ(linesize[2], 3);
}

}  // namespace
