#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Terms of chapter 9 of the USB 2.0 and 3.0 specifications.
namespace sim {

using Bytes = std::vector<uint8_t>;

enum class Speed : uint8_t { Full = 2, High = 3, Super = 5 }; // as numbered by USB/IP

enum class EndpointType : uint8_t { Bulk = 2, Interrupt = 3 };

inline constexpr uint8_t kEndpointIn = 0x80;

enum RequestType : uint8_t {
    kRequestIn = 0x80,
    kTypeMask = 0x60,
    kTypeStandard = 0x00,
    kTypeVendor = 0x40,
    kRecipientMask = 0x1F,
    kRecipientEndpoint = 0x02,
};

enum StandardRequest : uint8_t {
    kGetStatus = 0,
    kClearFeature = 1,
    kSetFeature = 3,
    kGetDescriptor = 6,
    kGetConfiguration = 8,
    kSetConfiguration = 9,
    kGetInterface = 10,
    kSetInterface = 11,
    kSetSel = 48,
    kSetIsochDelay = 49,
};

enum DescriptorType : uint8_t {
    kDeviceDescriptor = 1,
    kConfigurationDescriptor = 2,
    kStringDescriptor = 3,
    kInterfaceDescriptor = 4,
    kEndpointDescriptor = 5,
    kQualifierDescriptor = 6,
    kBosDescriptor = 15,
    kCapabilityDescriptor = 16,
    kReportDescriptor = 0x22, // of HID devices
    kCompanionDescriptor = 48,
};

struct Setup {
    uint8_t requestType;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    uint16_t length;

    bool isIn() const { return (requestType & kRequestIn) != 0; }
};

} // namespace sim
