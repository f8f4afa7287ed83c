#pragma once

#include <cstdint>

// The simulated instrument's endpoints and vendor requests (bmRequestType 0x40 and 0xC0), for the
// simulator and for the programs that control it.  Numbers in data stages are little-endian.
namespace sim {

inline constexpr uint8_t kEventEndpoint = 0x81;
inline constexpr uint8_t kStreamEndpoint = 0x82;
inline constexpr uint8_t kBulkLoopOut = 0x03;
inline constexpr uint8_t kBulkLoopIn = 0x83;
inline constexpr uint8_t kInterruptLoopOut = 0x04;
inline constexpr uint8_t kInterruptLoopIn = 0x84;

enum InstrumentRequest : uint8_t {
    kRequestScratch = 0x01,    // OUT: keeps the data stage; IN: returns it
    kRequestSeek = 0x02,       // OUT: the stream continues at this position (64 bits)
    kRequestSendEvents = 0x03, // OUT: sends the data stage as one packet of events
    kRequestStall = 0x04,      // OUT: wIndex endpoint; wValue 1 halts it, 0 ends the halt
    kRequestShort = 0x05,      // OUT: wIndex endpoint; its next answer has wValue bytes at most
    kRequestSilence = 0x06,    // OUT: wIndex endpoint; wValue 1: it no longer answers, 0: it does
    kRequestDelay = 0x07,      // OUT: wIndex endpoint; every answer comes wValue ms late
    kRequestVanish = 0x08,     // OUT: VanishRequest
    kRequestSendTimes = 0x09,  // OUT: sends wValue packets of events, each the monotonic clock's
                               // nanoseconds (64 bits) at which it was sent
    kRequestFirmware = 0x0A,   // IN: the firmware that it was booted with; wIndex (high) and
                               // wValue (low) are the offset of the first byte
};

inline constexpr uint32_t kNeverReturn = 0xFFFFFFFF;

// The device leaves the bus once the stream has sent that many more bytes, or if that is 0, after a
// time.
struct VanishRequest {
    uint64_t afterBytes;
    uint32_t returnAfterMs; // kNeverReturn: does not come back
    uint16_t product;       // idProduct on return; 0: as before
    uint16_t afterMs;       // counts only if afterBytes is 0; 0: at once
};
static_assert(sizeof(VanishRequest) == 16);

} // namespace sim
