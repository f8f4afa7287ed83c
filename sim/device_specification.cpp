#include "device_specification.h"

#include <charconv>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "instrument.h"
#include "vexa_usb_config.h"

namespace sim {

const char *const kDeviceSpecificationHelp =
    "A DEVICE is a kind and, after commas, how it differs from the usual:\n"
    "  instrument[,speed=full|high|super][,vendor=ID][,product=ID][,serial=TEXT][,bcd-usb=BCD]"
    "[,away=MS]\n"
    "away=MS plugs it in that many milliseconds after the start.\n"
    "Numbers may be written in hexadecimal, with 0x.";

namespace {

uint32_t parseNumber(const std::string &key, const std::string &text, uint32_t most) {
    const bool isHex = text.starts_with("0x");
    const char *const first = text.data() + (isHex ? 2 : 0);
    const char *const last = text.data() + text.size();
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(first, last, value, isHex ? 16 : 10);
    if (error != std::errc() || end != last || value > most)
        throw std::invalid_argument(
            fmt::format("{}={} is not a number from 0 to {}", key, text, most));
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

void apply(DeviceSpecification &specification, const std::string &key, const std::string &value) {
    if (key == "speed")
        specification.shape.speed = parseSpeed(value);
    else if (key == "vendor")
        specification.shape.vendor = static_cast<uint16_t>(parseNumber(key, value, 0xFFFF));
    else if (key == "product")
        specification.shape.product = static_cast<uint16_t>(parseNumber(key, value, 0xFFFF));
    else if (key == "bcd-usb")
        specification.shape.bcdUsb = static_cast<uint16_t>(parseNumber(key, value, 0xFFFF));
    else if (key == "serial")
        specification.shape.serial = value;
    else if (key == "away")
        specification.away = std::chrono::milliseconds(parseNumber(key, value, 86400000));
    else
        throw std::invalid_argument(fmt::format("a device has no property '{}'", key));
}

} // namespace

DeviceSpecification parseDeviceSpecification(const std::string &text) {
    std::istringstream input(text);
    std::string word;
    std::getline(input, word, ',');
    if (word != "instrument")
        throw std::invalid_argument(
            fmt::format("'{}' is no kind of device; there is: instrument", word));

    DeviceSpecification specification;
    DeviceShape &shape = specification.shape;
    shape.vendor = VEXA_USB_VENDOR_ID;
    shape.product = 0x0001;
    shape.manufacturer = "vexa-usb";
    shape.productName = "Simulated instrument";
    shape.serial = "SIM0001";
    while (std::getline(input, word, ',')) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos)
            throw std::invalid_argument(fmt::format("'{}' should be KEY=VALUE", word));
        apply(specification, word.substr(0, equals), word.substr(equals + 1));
    }
    return specification;
}

std::unique_ptr<DeviceModel> makeDevice(const DeviceSpecification &specification) {
    return std::make_unique<Instrument>(specification.shape);
}

} // namespace sim
