// The command hex: checks Intel HEX files and converts them.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "bytes.h"
#include "commands.h"
#include "errors.h"
#include "firmware/hex_convert.h"
#include "firmware_file.h"

namespace tool {

namespace {

constexpr uint64_t kMostImage = 1U << 30;

struct HexOptions {
    std::string file;
    std::string binary;
    std::string image;
};

// Bytes that lie one behind the other, in memory and in the file.
struct Segment {
    uint64_t address;
    uint64_t size;
};

struct Contents {
    std::vector<Segment> segments;
    uint64_t bytes = 0;
    uint64_t end = 0;      // of the memory
    bool ascends = true;   // no record begins before the end of another
    bool ended = false;    // by an End Of File record
    bool hasStart = false; // of the program, which a flat image has no place for
};

uint64_t baseOf(const vexausb::HexRecord &record) {
    if (record.data.size() < 2)
        throw Error(Exit::DataWrong, "an extended address has less than two bytes", "");
    const unsigned value = record.data[0] << 8U | record.data[1];
    return uint64_t{value} << (record.type == vexausb::kHexExtendedSegmentAddress ? 4 : 16);
}

void addData(Contents &contents, uint64_t address, uint64_t size) {
    if (size == 0)
        return;
    if (contents.segments.empty() ||
        contents.segments.back().address + contents.segments.back().size != address)
        contents.segments.push_back({address, 0});
    contents.segments.back().size += size;
    contents.bytes += size;
    contents.ascends = contents.ascends && address >= contents.end;
    contents.end = std::max(contents.end, address + size);
}

Contents examine(const vexausb::HexRecords &records) {
    Contents contents;
    uint64_t base = 0;
    for (const vexausb::HexRecord &record : records) {
        switch (record.type) {
        case vexausb::kHexData:
            addData(contents, base + record.address, record.data.size());
            break;
        case vexausb::kHexEndOfFile:
            contents.ended = true;
            return contents;
        case vexausb::kHexExtendedSegmentAddress:
        case vexausb::kHexExtendedLinearAddress:
            base = baseOf(record);
            break;
        case vexausb::kHexStartSegmentAddress:
        case vexausb::kHexStartLinearAddress:
            contents.hasStart = true;
            break;
        default:
            throw Error(Exit::DataWrong, fmt::format("unknown record type {:#04x}", record.type),
                        "");
        }
    }
    return contents;
}

void write(const std::string &path, const Bytes &bytes) {
    Output output(path);
    output.write(bytes);
    output.close();
}

Bytes flatImage(const vexausb::HexRecords &records, const Contents &contents) {
    if (contents.hasStart)
        throw Error(Exit::DataWrong, "the file has a start address, which a flat image cannot hold",
                    "Have the tool that wrote it leave the start address out.");
    if (!contents.ascends)
        throw Error(Exit::DataWrong, "the records are not in ascending order",
                    "Sort them first, for instance with objcopy or srec_cat.");
    if (contents.end > kMostImage)
        throw Error(
            Exit::DataWrong,
            fmt::format("the image would have {:#x} bytes, from address 0 on", contents.end),
            "More than 1 GiB is hardly meant; --binary keeps the addresses.");
    return vexausb::hexRecordsToImage(records);
}

void report(const Contents &contents, size_t records, bool json, FILE *to) {
    if (json) {
        nlohmann::json segments = nlohmann::json::array();
        for (const Segment &segment : contents.segments)
            segments.push_back({{"address", segment.address}, {"size", segment.size}});
        fmt::print(to, "{}\n",
                   nlohmann::json{{"records", records},
                                  {"bytes", contents.bytes},
                                  {"end_of_file", contents.ended},
                                  {"segments", segments}}
                       .dump());
        return;
    }
    for (const Segment &segment : contents.segments)
        fmt::print(to, "{:#010x} to {:#010x}  {:>9} bytes\n", segment.address,
                   segment.address + segment.size - 1, segment.size);
    fmt::print(to, "{} records, {} bytes in {} segments{}\n", records, contents.bytes,
               contents.segments.size(), contents.ended ? "" : ", no End Of File record");
}

void hex(const HexOptions &options, const CommonOptions &common) {
    const vexausb::HexRecords records = readHexFile(options.file);
    const Contents contents = examine(records);
    if (!options.binary.empty())
        write(options.binary, vexausb::hexRecordsToBinary(records));
    if (!options.image.empty())
        write(options.image, flatImage(records, contents));
    const bool dataOnStdout = options.binary == "-" || options.image == "-";
    report(contents, records.size(), common.json, dataOnStdout ? stderr : stdout);
}

} // namespace

void addHexCommand(CLI::App &app, CommonOptions &common) {
    CLI::App *command = app.add_subcommand("hex", "Check and convert an Intel HEX file");
    const auto options = std::make_shared<HexOptions>();
    command->add_option("FILE", options->file, "The file; - is standard input")->required();
    command->add_option("--binary", options->binary,
                        "Write the records as raw bytes, the form that the library's FX2 loader "
                        "takes, to this file");
    command->add_option("--image", options->image,
                        "Write the memory from address 0 on, zero where there are no data, to this "
                        "file");
    addJsonOption(*command, common);
    command->footer("Checks every record and prints the segments of memory that they fill.\n\n"
                    "Examples:\n"
                    "  vexa-usb hex firmware.hex\n"
                    "  vexa-usb hex firmware.hex --binary firmware.bin");
    command->callback([&common, options]() { hex(*options, common); });
}

} // namespace tool
