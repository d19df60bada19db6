#include "PixelConvert.h"

#include <algorithm>
#include <cstring>

namespace pixelconvert {
namespace {

// Copies `n` bytes to a plane, no further than its capacity.
void copyInto(uint8_t* plane, size_t capacity, const uint8_t* src, size_t n)
{
    std::memcpy(plane, src, std::min(n, capacity));
}

void storeAt(YuvPlanes& dst, int plane, long long index, uint8_t value)
{
    if (index >= 0 && static_cast<size_t>(index) < dst.capacity[plane])
        dst.data[plane][index] = value;
}

}  // namespace

void mono8(const uint8_t* src, int width, int height, YuvPlanes& dst)
{
    const long long pixels = static_cast<long long>(width) * height;
    if (pixels <= 0)
        return;
    copyInto(dst.data[0], dst.capacity[0], src, static_cast<size_t>(pixels));
    const size_t quarter = static_cast<size_t>(pixels / 4);
    std::memset(dst.data[1], 128, std::min(quarter, dst.capacity[1]));
    std::memset(dst.data[2], 128, std::min(quarter, dst.capacity[2]));
}

void nv12(const uint8_t* src, int width, int height, YuvPlanes& dst)
{
    const long long pixels = static_cast<long long>(width) * height;
    if (pixels <= 0)
        return;
    copyInto(dst.data[0], dst.capacity[0], src, static_cast<size_t>(pixels));
    const long long n = pixels / 2;
    const uint8_t* uv = src + pixels;
    const long long pairs = ((n - 1) >> 1) + 1;
    const long long limit = std::min<long long>(pairs, static_cast<long long>(std::min(dst.capacity[1], dst.capacity[2])));
    for (long long i = 0; i < limit; ++i) {
        dst.data[1][i] = uv[2 * i];
        dst.data[2][i] = uv[2 * i + 1];
    }
}

void rgbBottomUp(const uint8_t* src, int width, int height, YuvPlanes& dst)
{
    if (height < 1 || width < 1)
        return;
    const long long at[3] = {static_cast<long long>(dst.linesize[0]) * height + width,
                             static_cast<long long>(dst.linesize[1]) * height + width,
                             static_cast<long long>(dst.linesize[2]) * height + width};
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<size_t>(height - 1 - y) * width * 3;
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = row + static_cast<size_t>(x) * 3;
            const uint8_t v = static_cast<uint8_t>(luma(p[0], p[1], p[2]));
            storeAt(dst, 0, at[0], v);
            if (x % 2 == 0)
                storeAt(dst, y % 2 == 0 ? 1 : 2, at[y % 2 == 0 ? 1 : 2], v);
        }
    }
}

void i420Planes(uint8_t* src, int width, int height, uint8_t* data[3], int linesize[3])
{
    const size_t pixels = static_cast<size_t>(width) * height;
    data[0] = src;
    data[1] = src + pixels;
    data[2] = src + pixels * 5 / 4;
    linesize[0] = width;
    linesize[1] = linesize[2] = width / 2;
}

}  // namespace pixelconvert
