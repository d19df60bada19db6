// Bytes from the video server: the push-address reply, framed by its
// Content-Length and scanned for the streaming server's address.
#include <cstddef>
#include <cstdint>

#include "PushAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The agent reads at most one buffer's worth.
    if (size >= pushaddress::kReplyBuffer)
        size = pushaddress::kReplyBuffer - 1;
    const char* reply = reinterpret_cast<const char*>(data);
    const long whole = pushaddress::wanted(reply, size);
    if (whole >= 0 && static_cast<size_t>(whole) < size)
        size = static_cast<size_t>(whole);
    pushaddress::Address a;
    if (pushaddress::findAddress(reply, size, a)) {
        if (a.host.size() > pushaddress::kMaxHost || a.path.size() > pushaddress::kMaxPath)
            __builtin_trap();
        a.usable();
    }
    return 0;
}
