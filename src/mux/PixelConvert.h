#pragma once

#include <cstddef>
#include <cstdint>

// The camera layouts a push accepts, turned into the encoder's planar
// YUV 4:2:0 picture. A plane is given with its line size and the number of
// bytes that may be written through it; nothing is ever written past that.
struct YuvPlanes
{
    uint8_t* data[3];
    int linesize[3];
    size_t capacity[3];
};

namespace pixelconvert {

// 8-bit grey: the luma plane takes width*height bytes as one block (rows are
// not re-strided), both chroma planes are filled with 128 for
// (width*height)/4 bytes.
void mono8(const uint8_t* src, int width, int height, YuvPlanes& dst);

// NV12 (Y plane, then interleaved U,V): Y copied as one block, then U and V
// taken apart, U first.
void nv12(const uint8_t* src, int width, int height, YuvPlanes& dst);

// 24-bit RGB stored bottom-up. Every pixel's luma, computed with the
// integer BT.601 formula, goes to one fixed position of each plane, indexed
// by the picture's own width and height rather than by the pixel; the
// chroma planes receive luma values too. This is how the application's
// older cameras have always been streamed and is kept as it is; a store
// that would land outside its plane is left out.
void rgbBottomUp(const uint8_t* src, int width, int height, YuvPlanes& dst);

// BT.601 luma of one RGB pixel, as the conversion above computes it.
inline int luma(int p0, int p1, int p2) { return ((66 * p0 + 129 * p1 + 25 * p2 + 128) >> 8) + 16; }

// Planar I420 held in `src`: the planes point into it, nothing is copied.
// `src` must hold width*height*3/2 bytes.
void i420Planes(uint8_t* src, int width, int height, uint8_t* data[3], int linesize[3]);

}  // namespace pixelconvert
