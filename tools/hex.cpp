// The command hex: checks Intel HEX files and converts them.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
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
constexpr size_t kPiece = 1U << 16;
constexpr const char *kKeepRecords =
    "The file may be damaged; have the tool that wrote it do so again.";

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

// Writes a file in pieces that are worth a system call; the file is there only when all is.
class PieceWriter {
public:
    explicit PieceWriter(const std::string &path) : output(path, Output::Existing::Replace) {}

    Bytes piece;

    void flushWhenFull() {
        if (piece.size() >= kPiece)
            flush();
    }
    void close() {
        flush();
        output.close();
    }

private:
    void flush() {
        output.write(piece);
        piece.clear();
    }

    Output output;
};

// What a file holds, and what it is converted to, as its records come.
class HexContents {
public:
    explicit HexContents(const HexOptions &options);

    void take(const vexausb::HexRecordView &record);
    void closeFiles();
    void report(bool json, FILE *to) const;

private:
    void takeData(const vexausb::HexRecordView &record);
    void takeStart() const;
    void addToImage(uint64_t begin, std::span<const uint8_t> data);

    std::optional<PieceWriter> binary;
    std::optional<PieceWriter> image;
    vexausb::HexAddress address;
    std::vector<Segment> segments;
    size_t recordCount = 0;
    uint64_t bytes = 0;
    uint64_t end = 0;   // of the memory
    bool ended = false; // by an End Of File record
};

HexContents::HexContents(const HexOptions &options) {
    if (!options.binary.empty())
        binary.emplace(options.binary);
    if (!options.image.empty())
        image.emplace(options.image);
}

void HexContents::take(const vexausb::HexRecordView &record) {
    ++recordCount;
    if (binary) {
        vexausb::appendHexRecord(binary->piece, record);
        binary->flushWhenFull();
    }
    if (ended)
        return;
    switch (record.type) {
    case vexausb::kHexData:
        takeData(record);
        break;
    case vexausb::kHexEndOfFile:
        ended = true;
        break;
    case vexausb::kHexExtendedSegmentAddress:
    case vexausb::kHexExtendedLinearAddress:
        if (record.data.size() < 2)
            throw Error(Exit::DataWrong, "an extended address has less than two bytes",
                        kKeepRecords);
        address.extend(record);
        break;
    case vexausb::kHexStartSegmentAddress:
    case vexausb::kHexStartLinearAddress:
        takeStart();
        break;
    default:
        throw Error(Exit::DataWrong, fmt::format("unknown record type {:#04x}", record.type),
                    kKeepRecords);
    }
}

void HexContents::takeData(const vexausb::HexRecordView &record) {
    const uint64_t begin = address.of(record);
    const uint64_t size = record.data.size();
    if (size == 0)
        return;
    if (segments.empty() || segments.back().address + segments.back().size != begin)
        segments.push_back({begin, 0});
    segments.back().size += size;
    bytes += size;
    if (image)
        addToImage(begin, record.data);
    end = std::max(end, begin + size);
}

void HexContents::addToImage(uint64_t begin, std::span<const uint8_t> data) {
    if (begin < end)
        throw Error(Exit::DataWrong,
                    fmt::format("the records are not in ascending order: {:#x} comes late", begin),
                    "Sort them first, for instance with objcopy or srec_cat.");
    if (begin + data.size() > kMostImage)
        throw Error(Exit::DataWrong,
                    fmt::format("the image would reach up to {:#x}", begin + data.size()),
                    "More than 1 GiB is hardly meant; --binary keeps the addresses.");
    for (uint64_t gap = begin - end; gap != 0;) {
        const uint64_t zeros = std::min<uint64_t>(gap, kPiece);
        image->piece.insert(image->piece.end(), zeros, 0);
        image->flushWhenFull();
        gap -= zeros;
    }
    image->piece.insert(image->piece.end(), data.begin(), data.end());
    image->flushWhenFull();
}

void HexContents::takeStart() const {
    if (image)
        throw Error(Exit::DataWrong, "the file has a start address, which a flat image cannot hold",
                    "Have the tool that wrote it leave the start address out.");
}

void HexContents::closeFiles() {
    if (binary)
        binary->close();
    if (image)
        image->close();
}

void HexContents::report(bool json, FILE *to) const {
    if (json) {
        nlohmann::json rows = nlohmann::json::array();
        for (const Segment &segment : segments)
            rows.push_back({{"address", segment.address}, {"size", segment.size}});
        const nlohmann::json result{
            {"records", recordCount}, {"bytes", bytes}, {"end_of_file", ended}, {"segments", rows}};
        fmt::print(to, "{}\n", result.dump());
        return;
    }
    for (const Segment &segment : segments)
        fmt::print(to, "{:#010x} to {:#010x}  {:>9} bytes\n", segment.address,
                   segment.address + segment.size - 1, segment.size);
    fmt::print(to, "{} records, {} bytes in {} segments{}\n", recordCount, bytes, segments.size(),
               ended ? "" : ", no End Of File record");
}

void hex(const HexOptions &options, const CommonOptions &common) {
    if (!options.binary.empty() && options.binary == options.image)
        throw Error(Exit::Usage, "--binary and --image would write the same file",
                    "Give each a file of its own.");
    HexContents contents(options);
    readHexFile(options.file, [&](const vexausb::HexRecordView &record) { contents.take(record); });
    contents.closeFiles();
    const bool dataOnStdout = options.binary == "-" || options.image == "-";
    contents.report(common.json, dataOnStdout ? stderr : stdout);
}

} // namespace

void defineHexCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<HexOptions>();
    command.add_option("FILE", options->file, "The file; - is standard input")->required();
    command.add_option("--binary", options->binary,
                       "Write the records as raw bytes, the form that the library's FX2 loader "
                       "takes, to this file");
    command.add_option("--image", options->image,
                       "Write the memory from address 0 on, zero where there are no data, to this "
                       "file");
    addJsonOption(command, common);
    command.footer("Checks every record and prints the segments of memory that they fill.\n\n"
                   "Examples:\n"
                   "  vexa-usb hex firmware.hex\n"
                   "  vexa-usb hex firmware.hex --binary firmware.bin");
    command.callback([&common, options]() { hex(*options, common); });
}

} // namespace tool
