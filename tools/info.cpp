#include <array>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "device.h"
#include "device_checks.h"
#include "device_json.h"
#include "errors.h"
#include "finding.h"
#include "progress.h"

namespace tool {

namespace {

using Json = nlohmann::json;

constexpr uint8_t kHighestEndpoint = 15;

// The library has no list of endpoints, but it knows the packet size of each that exists.  Null
// when the device's descriptors cannot be made sense of.
Json endpoints(const Device &device) {
    Json rows = Json::array();
    for (uint8_t number = 1; number <= kHighestEndpoint; ++number) {
        for (const uint8_t direction : {uint8_t{0}, kEndpointIn}) {
            const auto address = static_cast<uint8_t>(number | direction);
            uint16_t size = 0;
            const int32_t status = vexa_usb_get_max_packet_size(device.get(), address, &size);
            if (status == VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED)
                continue;
            if (status == VEXA_USB_STATUS_UNKNOWN)
                return nullptr;
            check(status, "reading the packet sizes");
            rows.push_back({{"address", address}, {"packet_size", size}});
            if (device.attached())
                rows.back()["type"] = device.attached()->endpointType(address);
        }
    }
    return rows;
}

Json streamLimits(const Device &device) {
    uint64_t memory = 0;
    uint64_t rate = 0;
    const int32_t status = vexa_usb_data_stream_memory_size_max(device.get(), &memory);
    if (status == VEXA_USB_STATUS_NOT_SUPPORTED)
        return nullptr;
    check(status, "reading the stream limits");
    check(vexa_usb_data_stream_rate_max(device.get(), &rate), "reading the stream limits");
    return {{"memory_size_max", memory}, {"rate_max", rate}};
}

Json warnings(const UsbDevice &device) {
    Json texts = Json::array();
    for (const Finding &found : {checkSpeed(device), checkPower(device), checkMemory({device})}) {
        if (!found.isFine())
            texts.push_back(found.text);
    }
    return texts;
}

Json describe(const Device &device) {
    _vexa_usb_device_descriptor descriptor{};
    check(vexa_usb_get_device_descriptor(device.get(), &descriptor, sizeof(descriptor)),
          "reading the device descriptor");
    Json info{{"vendor", descriptor.idVendor},
              {"product", descriptor.idProduct},
              {"kind", kindText(descriptor.idVendor, descriptor.idProduct)},
              {"release", descriptor.bcdDevice},
              {"class",
               {descriptor.bDeviceClass, descriptor.bDeviceSubClass, descriptor.bDeviceProtocol}},
              {"configurations", descriptor.bNumConfigurations},
              {"endpoints", endpoints(device)},
              {"data_stream", streamLimits(device)}};
    if (device.attached()) {
        info.update(attachedJson(*device.attached()));
        info["warnings"] = warnings(*device.attached());
    }
    return info;
}

void printAttached(const Json &info) {
    constexpr std::array kLines{std::pair{"manufacturer", "manufacturer"},
                                std::pair{"product_name", "product"}, std::pair{"serial", "serial"},
                                std::pair{"path", "path"}};
    for (const auto &[key, label] : kLines) {
        const auto text = info.value(key, std::string());
        if (!text.empty())
            fmt::print("{:<14}  {}\n", label, text);
    }
    if (info.contains("speed"))
        fmt::print("speed           {:g} Mbit/s\n", info["speed"].get<double>());
}

void print(const Json &info) {
    fmt::print("device          {}  {}\n",
               identifierText(info["vendor"].get<uint16_t>(), info["product"].get<uint16_t>()),
               info["kind"].get<std::string>());
    printAttached(info);
    const auto release = info["release"].get<uint16_t>();
    fmt::print("release         {:x}.{:02x}\n", release >> 8, release & 0xFF);
    const auto codes = info["class"].get<std::array<unsigned, 3>>();
    fmt::print("class           {:02x}:{:02x}:{:02x}\n", codes[0], codes[1], codes[2]);
    fmt::print("configurations  {}\n", info["configurations"].get<unsigned>());
    if (info["endpoints"].is_null())
        fmt::print("endpoints       not known: the device's configuration descriptor is wrong\n");
    for (const Json &endpoint : info["endpoints"]) {
        const auto address = endpoint["address"].get<unsigned>();
        fmt::print("endpoint {:#04x}   {:<3}  {:<9}  packets of {} bytes\n", address,
                   (address & kEndpointIn) != 0 ? "IN" : "OUT",
                   endpoint.value("type", std::string()), endpoint["packet_size"].get<unsigned>());
    }
    const Json &stream = info["data_stream"];
    if (stream.is_null())
        fmt::print("data stream     none\n");
    else
        fmt::print("data stream     up to {:.0f} MB/s, {} of buffers\n",
                   stream["rate_max"].get<double>() / 1e6,
                   sizeText(stream["memory_size_max"].get<uint64_t>()));
    if (!info.contains("warnings"))
        return;
    for (const Json &warning : info["warnings"])
        fmt::print("warning         {} ('vexa-usb doctor' tells what to do)\n",
                   warning.get<std::string>());
}

void info(const CommonOptions &common) {
    const Library library;
    const Device device(common.device);
    const Json described = describe(device);
    if (common.json)
        fmt::print("{}\n", described.dump(2, ' ', false, kReplaceWrongText));
    else
        print(described);
}

} // namespace

void defineInfoCommand(CLI::App &command, CommonOptions &common) {
    addDeviceOptions(command, common);
    addJsonOption(command, common);
    command.callback([&common]() { info(common); });
}

} // namespace tool
