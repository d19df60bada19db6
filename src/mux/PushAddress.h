#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The video server's answer to a push-address query, read as bytes. The
// server may answer with a plain address or with JSON around it; the address
// is found by scanning, not by parsing JSON:
//   "http:" ... first digit ... host ... ':' port ... '/' path ('"' or '}' ends it)
// A missing port means 80.
namespace pushaddress {

constexpr size_t kReplyBuffer = 2048;   // bytes read from the server, terminator included
constexpr size_t kMaxHost = 35;
constexpr size_t kMaxPath = 511;

struct Address
{
    std::string host;       // as found: digits and dots only
    int port = 0;           // as written in the answer
    std::string path;       // after the first '/', without it
    uint32_t ip = 0;        // network order; INADDR_NONE when the host is not a dotted address
    uint16_t netPort = 0;   // network order

    // Only a dotted IPv4 address and a TCP port can be connected to.
    bool usable() const;
};

// How many bytes make the whole reply once its head is complete: head,
// blank line and the number after the first "Content-Length" (0 when there
// is none). -1 while "\r\n\r\n" has not arrived.
long wanted(const char* data, size_t len);

// The push address in a reply (`len` bytes, no terminator needed). False when
// there is no "http:", no digit after it, or neither ':' nor '/' after the
// host.
bool findAddress(const char* data, size_t len, Address& out);

}  // namespace pushaddress
