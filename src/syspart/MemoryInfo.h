#pragma once

#include <QByteArray>
#include <QList>

// The application's announcement of its camera frame buffers (type-9 body):
//   {"memoryinfo":[{"shmid":..,"semid":..,"cameraid":..,"size":..,
//                   "width":..,"height":..,"fps":..}, ...]}
// Pure parsing: nothing is attached here. Keys are matched without regard
// to case ("MemoryInfo", "ShmId" ...), as the application has always had them.
struct CameraAnnounce
{
    int shmid = -1;
    int semid = -1;
    int cameraid = -1;
    int size = 0;
    int width = 0;
    int height = 0;
    int fps = 0;
    // Every key present as an integer, size, width and height above 0, and
    // IPC project numbers that can be derived from the camera number. An
    // element that is not usable is a camera that does not match.
    bool usable = false;
    int shmProject = 0;     // "100" followed by the camera number
    int semProject = 0;     // "200" followed by the camera number
};

namespace memoryinfo {

// False when the body is not JSON or has no "memoryinfo" array; otherwise
// every element, usable or not, in order.
bool parseAnnouncement(const QByteArray& body, QList<CameraAnnounce>& cameras);

// The largest frame side taken (8192 x 8192 frames at most).
const int kMaxSide = 8192;

// Whether the announced frames can be taken from a segment of
// `segmentBytes`: neither side above kMaxSide, and a whole picture in the
// layout the frames are copied in (I420) inside the segment.
bool frameFits(const CameraAnnounce& camera, unsigned long long segmentBytes);

// The decimal text of `prefix` followed by the camera number, read back as
// an integer (camera 12 with prefix 100 gives 10012). False when that is not
// a non-negative int.
bool project(int prefix, int cameraid, int& out);

}  // namespace memoryinfo
