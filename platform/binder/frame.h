/// The frames that carry transactions over a Unix stream socket.
///
/// A request is a `RequestHeader` and `size` bytes of parcel, its reply a `ReplyHeader` and `size`
/// bytes of parcel. Integers are in the machine's own byte order: both ends are on one machine. A
/// connection carries one transaction at a time; a one-way request gets no reply frame.
#pragma once

#include <cstdint>

namespace android::host {

constexpr uint32_t kRequestMagic = 0x51585552;  // "RUXQ"
constexpr uint32_t kReplyMagic = 0x41585552;    // "RUXA"
constexpr uint32_t kMaxParcelSize = 8U << 20;   // bytes; a larger frame ends the connection

struct RequestHeader {
    uint32_t magic;
    uint32_t size;  // bytes of parcel that follow
    uint32_t code;
    uint32_t flags;
};

struct ReplyHeader {
    uint32_t magic;
    uint32_t size;  // bytes of parcel that follow
    int32_t status;
};

}  // namespace android::host
