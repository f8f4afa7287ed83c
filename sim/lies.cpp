#include "lies.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "byte_order.h"

namespace sim {

namespace {

// Offsets in the configuration descriptor, which begins with the configuration and its interface.
constexpr size_t kTotalLength = 2;
constexpr size_t kConfigurationNumber = 5;
constexpr size_t kInterface = 9;
constexpr size_t kInterfaceNumber = kInterface + 2;
constexpr size_t kEndpointCount = kInterface + 4;
constexpr size_t kAfterInterface = kInterface + 9;
constexpr size_t kPacketSize = 4; // in an endpoint's descriptor

constexpr size_t kTooMuch = 65536;
constexpr int32_t kNoStatus = -1234; // of a transfer

constexpr uint8_t kDfuDownload = 1;
constexpr uint8_t kDfuGetStatus = 3;

bool isType(uint16_t value, DescriptorType type) {
    return value >> 8 == type;
}

void setTotalLength(Bytes &bytes, size_t length) {
    putLittleEndian16(std::span(bytes).subspan(kTotalLength), static_cast<uint16_t>(length));
}

template <size_t Offset, uint8_t Value, DescriptorType Type = kConfigurationDescriptor>
void set(uint16_t value, Bytes &bytes) {
    if (isType(value, Type) && Offset < bytes.size()) // a processor may have no endpoint
        bytes[Offset] = Value;
}

template <uint16_t Length>
void claimLength(uint16_t value, Bytes &bytes) {
    if (isType(value, kConfigurationDescriptor))
        setTotalLength(bytes, Length);
}

void cutLastDescriptor(uint16_t value, Bytes &bytes) {
    if (!isType(value, kConfigurationDescriptor))
        return;
    bytes.resize(bytes.size() - 3);
    setTotalLength(bytes, bytes.size());
}

template <uint16_t Size>
void setPacketSizes(uint16_t value, Bytes &bytes) {
    if (!isType(value, kConfigurationDescriptor))
        return;
    for (size_t at = 0; at < bytes.size(); at += bytes[at]) {
        if (bytes[at + 1] == kEndpointDescriptor)
            putLittleEndian16(std::span(bytes).subspan(at + kPacketSize), Size);
    }
}

template <DescriptorType Type>
void leaveOut(uint16_t value, Bytes &bytes) {
    if (isType(value, Type))
        bytes.clear();
}

void shortenOddly(uint16_t value, Bytes &bytes) {
    if (isType(value, kStringDescriptor) && !bytes.empty()) {
        bytes.pop_back();
        --bytes[0];
    }
}

// What clears a terminal, a line feed, and half of a pair of surrogates.
void sendWildText(uint16_t value, Bytes &bytes) {
    if (isType(value, kStringDescriptor) && (value & 0xFF) != 0)
        bytes = {14, kStringDescriptor, 0x1B, 0, '[', 0, '2', 0, 'J', 0, '\n', 0, 0x00, 0xD8};
}

std::optional<Answer> dfuStatus(const Question &question, std::span<uint8_t> room,
                                const std::array<uint8_t, 6> &status) {
    if (question.setup == nullptr || !question.in || question.setup->request != kDfuGetStatus)
        return std::nullopt;
    return sendBytes(status, room);
}

template <uint8_t... Status>
std::optional<Answer> sayStatus(const Question &question, std::span<uint8_t> room) {
    return dfuStatus(question, room, {Status...});
}

std::optional<Answer> swallowEnd(const Question &question, std::span<uint8_t> /*room*/) {
    const bool isEnd = question.setup != nullptr && !question.in && question.length == 0 &&
                       question.setup->request == kDfuDownload;
    return isEnd ? std::optional(Answer::done(0)) : std::nullopt;
}

using Room = std::span<uint8_t>;

constexpr std::array kLies{
    Lie{"config-long", "the configuration says it has 65535 bytes", claimLength<0xFFFF>, nullptr},
    Lie{"config-short", "it says it has 40, in the middle of an endpoint", claimLength<40>,
        nullptr},
    Lie{"empty-descriptor", "the first endpoint's descriptor says it has 0 bytes",
        set<kAfterInterface, 0>, nullptr},
    Lie{"long-descriptor", "it says it has 255", set<kAfterInterface, 255>, nullptr},
    Lie{"cut-endpoint", "the last endpoint's descriptor is cut off", cutLastDescriptor, nullptr},
    Lie{"many-endpoints", "the interface says it has 255 endpoints", set<kEndpointCount, 255>,
        nullptr},
    Lie{"interface-200", "the only interface has number 200", set<kInterfaceNumber, 200>, nullptr},
    Lie{"configuration-0", "the only configuration has number 0", set<kConfigurationNumber, 0>,
        nullptr},
    Lie{"configuration-2", "the only configuration has a number that is refused",
        set<kConfigurationNumber, 2>, nullptr},
    Lie{"no-configuration", "there is no configuration; the kernel gives such a device up",
        leaveOut<kConfigurationDescriptor>, nullptr},
    Lie{"packet-0", "all endpoints have packets of 0 bytes", setPacketSizes<0>, nullptr},
    Lie{"packet-huge", "all endpoints have packets of 65535 bytes", setPacketSizes<0xFFFF>,
        nullptr},
    Lie{"string-long", "strings say they have 255 bytes", set<0, 255, kStringDescriptor>, nullptr},
    Lie{"string-odd", "strings end within a character", shortenOddly, nullptr},
    Lie{"string-missing", "there are no strings", leaveOut<kStringDescriptor>, nullptr},
    Lie{"string-wild", "strings are no text, and would clear a terminal", sendWildText, nullptr},
    Lie{"babble", "more data than asked for, which the host's controller ends", nullptr,
        [](const Question &question, Room /*room*/) -> std::optional<Answer> {
            if (!question.in)
                return std::nullopt;
            return Answer::failed(-EOVERFLOW, question.length);
        }},
    Lie{"takes-too-much", "64 KiB more are taken than were sent", nullptr,
        [](const Question &question, Room /*room*/) -> std::optional<Answer> {
            if (question.in)
                return std::nullopt;
            return Answer::done(question.length + kTooMuch);
        }},
    Lie{"no-status", "everything ends with a status that there is not", nullptr,
        [](const Question & /*question*/, Room /*room*/) {
            return std::optional(Answer::failed(kNoStatus, 0));
        }},
    Lie{"stall", "everything is refused", nullptr,
        [](const Question & /*question*/, Room /*room*/) {
            return std::optional(Answer::stall());
        }},
    Lie{"silence", "nothing is answered", nullptr,
        [](const Question & /*question*/, Room /*room*/) { return std::optional(Answer::wait()); }},
    Lie{"nothing", "everything is answered with 0 bytes", nullptr,
        [](const Question & /*question*/, Room /*room*/) {
            return std::optional(Answer::done(0));
        }},
    Lie{"dfu-poll", "after each block asks to be left alone for 16777 s (as=dfu)", nullptr,
        sayStatus<0, 0xFF, 0xFF, 0xFF, 4, 0>},
    Lie{"dfu-busy", "works on its first block for ever (as=dfu)", nullptr,
        sayStatus<0, 0, 0, 0, 4, 0>},
    Lie{"dfu-state", "is in a state that there is not (as=dfu)", nullptr,
        sayStatus<0, 0, 0, 0, 0x77, 0>},
    Lie{"dfu-status", "has a status that there is not (as=dfu)", nullptr,
        sayStatus<0xEE, 0, 0, 0, 5, 0>},
    Lie{"dfu-error", "is in the state of an error that has not happened (as=dfu)", nullptr,
        sayStatus<0, 0, 0, 0, 10, 0>},
    Lie{"dfu-endless", "never starts what was written (as=dfu)", nullptr, swallowEnd},
};

} // namespace

const Lie &findLie(const std::string &name) {
    const auto *const found =
        std::find_if(kLies.begin(), kLies.end(), [&](const Lie &lie) { return name == lie.name; });
    if (found != kLies.end())
        return *found;
    std::vector<std::string> names;
    names.reserve(kLies.size());
    for (const Lie &lie : kLies)
        names.emplace_back(lie.name);
    throw std::invalid_argument(
        fmt::format("lie={} is none; there are {}", name, fmt::join(names, ", ")));
}

std::string lieHelp() {
    std::string text;
    for (const Lie &lie : kLies)
        text += fmt::format("  {:<20} {}\n", lie.name, lie.description);
    return text;
}

} // namespace sim
