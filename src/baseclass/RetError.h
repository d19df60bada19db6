#pragma once

// Result codes of item, socket and codec operations.
enum RetError : int {
    RET_OK = 0,                 // written to the socket, a reply is awaited
    RET_DONE = 1,               // completely handled by the send step: remove at once
    RET_BADJSON = 3,            // JSON text not parsable, or key missing
    RET_PARSED = 4,             // parsed successfully
    RET_NOTHING = 5,            // nothing to queue
    RET_TYPE_RANGE = 6,         // application message names a type above 20
    RET_MALFORMED = 7,          // application message malformed / nothing to pack
    ERR_NetNoConnect = 8,       // socket not connected; the send thread stops
    RET_VIDEO_ALREADY = 9,      // the frame buffers were announced before: nothing done
    RET_NOTHING_TO_COPY = 10,   // no camera to push, or no frame rate: no copy thread
    RET_DAMAGED = 11,           // item number of a queued text cannot be determined
    RET_TIMEOUT = 12,           // sent twice without a reply
    RET_HEART_TIMEOUT = 13,     // heartbeat not acknowledged in time
    RET_BAD_APP_JSON = 14,      // the application's JSON text is not valid
    RET_UPLOAD_REFUSED = 15,    // the server refused an uploaded archive
    RET_GIVEN_UP = 16,          // the send step gave the request up (kept for the next start); go on
};
