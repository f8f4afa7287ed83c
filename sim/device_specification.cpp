#include "device_specification.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <istream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "dfu_device.h"
#include "fx2.h"
#include "fx3.h"
#include "hostile_device.h"
#include "imx7.h"
#include "instrument.h"
#include "lies.h"

namespace sim {

namespace {

constexpr uint32_t kDay = 86400000; // milliseconds
constexpr uint32_t kMaxRequests = 1000000000;

template <typename Device>
std::unique_ptr<DeviceModel> makeBootDevice(const DeviceSpecification &specification) {
    return std::make_unique<Device>(specification.shape, specification.behaviour);
}

std::unique_ptr<DeviceModel> makeInstrument(const DeviceSpecification &specification) {
    if (!specification.recording.empty())
        return std::make_unique<Instrument>(specification.shape, specification.recording);
    return std::make_unique<Instrument>(specification.shape);
}

constexpr const char *kHostile = "hostile";

struct Kind {
    const char *name;
    std::unique_ptr<DeviceModel> (*make)(const DeviceSpecification &);
    uint16_t vendor; // 0: that of the instrument
    uint16_t product;
    const char *productName;
    const char *description; // in --help
};

constexpr std::array kKinds{
    Kind{"instrument", makeInstrument, 0, 0x0001, "Simulated instrument",
         "streams, sends events, loops data back"},
    Kind{"fx2", makeBootDevice<Fx2>, 0x04B4, 0x8613, "Simulated FX2",
         "Cypress EZ-USB FX2 without firmware; executes what is loaded"},
    Kind{"fx3", makeBootDevice<Fx3>, 0x04B4, 0x00F3, "Simulated FX3",
         "Cypress FX3 in its boot loader"},
    Kind{"dfu", makeBootDevice<DfuDevice>, 0, 0x0DF0, "Simulated DFU device",
         "device in DFU 1.1 mode"},
    Kind{"imx7", makeBootDevice<Imx7>, 0x15A2, 0x0076, "Simulated i.MX7",
         "NXP i.MX7 in serial-download mode"},
    Kind{kHostile, makeInstrument, 0, 0x0001, "Simulated instrument",
         "lies, as lie=NAME says, and is otherwise an instrument or what as=KIND says"},
};

std::string kindNames() {
    std::vector<std::string> names;
    names.reserve(kKinds.size());
    for (const Kind &kind : kKinds)
        names.emplace_back(kind.name);
    return fmt::format("{}", fmt::join(names, ", "));
}

const Kind &findKind(const std::string &name) {
    const auto *const found = std::find_if(kKinds.begin(), kKinds.end(),
                                           [&](const Kind &kind) { return name == kind.name; });
    if (found == kKinds.end())
        throw std::invalid_argument(
            fmt::format("'{}' is not a kind of device; there are {}", name, kindNames()));
    return *found;
}

uint32_t parseNumber(const std::string &key, const std::string &text, uint32_t max) {
    const bool isHex = text.starts_with("0x");
    const char *const first = text.data() + (isHex ? 2 : 0);
    const char *const last = text.data() + text.size();
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(first, last, value, isHex ? 16 : 10);
    if (error != std::errc() || end != last || value > max)
        throw std::invalid_argument(
            fmt::format("{}={} is not a number from 0 to {}", key, text, max));
    return value;
}

Speed parseSpeed(const std::string &text) {
    if (text == "full")
        return Speed::Full;
    if (text == "high")
        return Speed::High;
    if (text == "super")
        return Speed::Super;
    throw std::invalid_argument(fmt::format("speed={} is not full, high or super", text));
}

std::chrono::milliseconds parseTime(const std::string &key, const std::string &text) {
    return std::chrono::milliseconds(parseNumber(key, text, kDay));
}

// False when the behaviour has no such property.
bool applyBehaviour(LoadBehaviour &behaviour, const std::string &key, const std::string &value) {
    const auto step = [&]() {
        const uint32_t number = parseNumber(key, value, UINT32_MAX);
        if (number == 0)
            throw std::invalid_argument(key + " counts from 1");
        return number;
    };
    if (key == "fail")
        behaviour.fail = step();
    else if (key == "short")
        behaviour.shorten = step();
    else if (key == "unplug")
        behaviour.unplug = step();
    else if (key == "bad-status")
        behaviour.badStatus = step();
    else if (key == "delay")
        behaviour.delay = parseTime(key, value);
    else if (key == "poll")
        behaviour.poll = std::chrono::milliseconds(parseNumber(key, value, 0xFFFFFF));
    else if (key == "linger")
        behaviour.linger = parseTime(key, value);
    else
        return false;
    return true;
}

// N or N+M
Leaving parseLeaving(const std::string &key, const std::string &text) {
    const size_t plus = text.find('+');
    const uint32_t after = parseNumber(key, text.substr(0, plus), kMaxRequests);
    if (after == 0)
        throw std::invalid_argument(key + " counts from 1");
    return {after,
            plus == std::string::npos ? 0 : parseNumber(key, text.substr(plus + 1), kMaxRequests)};
}

void apply(DeviceSpecification &specification, const std::string &key, const std::string &value) {
    const auto identifier = [&]() {
        return static_cast<uint16_t>(parseNumber(key, value, 0xFFFF));
    };
    DeviceShape &shape = specification.shape;
    if (key == "speed")
        shape.speed = parseSpeed(value);
    else if (key == "vendor")
        shape.vendor = identifier();
    else if (key == "product")
        shape.product = identifier();
    else if (key == "bcd-usb")
        shape.bcdUsb = identifier();
    else if (key == "serial")
        shape.serial = value;
    else if (key == "away")
        specification.away = parseTime(key, value);
    else if (key == "leave-after")
        specification.leaving = parseLeaving(key, value);
    else if (key == "lie" && specification.kind == kHostile)
        specification.lie = &findLie(value);
    else if (key == "file" && specification.as == "instrument")
        specification.recording = value;
    else if (specification.as == "instrument" ||
             !applyBehaviour(specification.behaviour, key, value))
        throw std::invalid_argument(
            fmt::format("a device of kind {} has no property '{}'", specification.kind, key));
}

using Properties = std::vector<std::pair<std::string, std::string>>;

Properties parseProperties(std::istream &input) {
    Properties properties;
    std::string word;
    while (std::getline(input, word, ',')) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos)
            throw std::invalid_argument(fmt::format("'{}' should be KEY=VALUE", word));
        properties.emplace_back(word.substr(0, equals), word.substr(equals + 1));
    }
    return properties;
}

// Before the other properties, wherever it stands: they change what comes with the kind.
std::string takeAs(Properties &properties) {
    std::string kind = "instrument";
    std::erase_if(properties, [&](const auto &property) {
        const bool isAs = property.first == "as";
        if (isAs)
            kind = property.second;
        return isAs;
    });
    return kind;
}

DeviceShape shapeOf(const Kind &kind) {
    DeviceShape shape = instrumentShape();
    if (kind.vendor != 0)
        shape.vendor = kind.vendor;
    shape.product = kind.product;
    shape.productName = kind.productName;
    return shape;
}

} // namespace

DeviceSpecification parseDeviceSpecification(const std::string &text) {
    std::istringstream input(text);
    std::string word;
    std::getline(input, word, ',');
    DeviceSpecification specification;
    specification.kind = specification.as = findKind(word).name;
    Properties properties = parseProperties(input);
    if (specification.kind == kHostile)
        specification.as = takeAs(properties);
    if (specification.as == kHostile)
        throw std::invalid_argument("as=hostile is no device to be otherwise");
    specification.shape = shapeOf(findKind(specification.as));
    for (const auto &[key, value] : properties)
        apply(specification, key, value);
    if (specification.kind == kHostile && specification.lie == nullptr)
        throw std::invalid_argument("a hostile device needs lie=NAME; see --help");
    return specification;
}

std::string deviceSpecificationHelp() {
    std::string kinds;
    for (const Kind &kind : kKinds)
        kinds += fmt::format("  {:<10}  {}\n", kind.name, kind.description);
    return "A DEVICE is a kind and, after commas, how it differs from the usual:\n"
           "  KIND[,speed=full|high|super][,vendor=ID][,product=ID][,serial=TEXT][,bcd-usb=BCD]"
           "[,away=MS]\n"
           "      [,leave-after=N[+M]]\n"
           "away=MS plugs it in that many milliseconds after the start. leave-after=N takes it off "
           "the\nbus after its Nth request or transfer, and puts it back, to leave again after N, "
           "then N+M.\n"
           "An instrument with file=PATH streams what is in that file, over and over.\n"
           "Numbers may be written in hexadecimal, with 0x.\n"
           "\n"
           "Kinds:\n" +
           kinds +
           "The bare processors become instruments once their firmware runs. What they may do "
           "wrong, "
           "once:\n"
           "  fail=N         refuse the Nth request\n"
           "  short=N        take a byte less of the Nth request\n"
           "  unplug=N       leave the bus in the Nth request, and come back\n"
           "  bad-status=N   report an error in the Nth status (dfu, imx7)\n"
           "  delay=MS       answer every request that much later\n"
           "  poll=MS        need that long for each block (dfu)\n"
           "  linger=MS      stay that long once all is written, 2000 unless told (dfu)\n"
           "What a hostile device lies about, lie=NAME:\n" +
           lieHelp();
}

std::unique_ptr<DeviceModel> makeDevice(const DeviceSpecification &specification) {
    auto device = findKind(specification.as).make(specification);
    if (specification.lie == nullptr && !specification.leaving)
        return device;
    return std::make_unique<HostileDevice>(std::move(device), specification.lie,
                                           specification.leaving);
}

} // namespace sim
