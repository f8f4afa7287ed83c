// The command hex: checks Intel HEX files and converts them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "bytes.h"
#include "commands.h"
#include "errors.h"
#include "firmware_file.h"
#include "fx2_records.h"
#include "hex_file.h"
#include "hex_memory.h"
#include "hex_placer.h"
#include "output.h"
#include "same_file.h"

namespace tool {

namespace {

constexpr uint64_t kMostImage = 1U << 30;
constexpr size_t kPiece = 1U << 16; // of one write
constexpr size_t kMostShown = 10;

struct HexOptions {
    std::string file;
    std::string binary;
    std::string image;
};

// What a file holds, and what it is converted to.
class HexContents {
public:
    explicit HexContents(const HexOptions &options);

    void read();
    void writeFiles();
    void report(bool json, FILE *to) const;

private:
    void checkImage() const;
    void writeImage();
    nlohmann::json asJson() const;
    void printOverlaps(FILE *to) const;
    uint64_t size() const;

    const std::string &path_;
    // Opened before the work, so that errors show early. A file replaces an older one only when it
    // is complete.
    std::optional<Output> binary_;
    std::optional<Output> image_;
    HexPlacer placer_;
    HexMemory memory_;
    Fx2Records fx2Records_;
    size_t recordCount_ = 0;
};

HexContents::HexContents(const HexOptions &options) : path_(options.file) {
    if (!options.binary.empty())
        binary_.emplace(options.binary, Output::Existing::Replace);
    if (!options.image.empty())
        image_.emplace(options.image, Output::Existing::Replace);
}

void HexContents::read() {
    readHexFile(path_, [this](const vexausb::HexRecordView &record, size_t line) {
        ++recordCount_;
        if (const auto address = placer_.take(record))
            memory_.add(*address, record.data, line);
        if (binary_)
            fx2Records_.take(record);
    });
    memory_.arrange();
}

// Nothing is written before everything has been checked, and both files are complete before either
// replaces an older one.
void HexContents::writeFiles() {
    const Bytes records = binary_ ? fx2Records_.finish(path_) : Bytes();
    if (image_)
        checkImage();
    if (binary_)
        binary_->write(records);
    if (image_)
        writeImage();
    if (binary_)
        binary_->close();
    if (image_)
        image_->close();
}

void HexContents::checkImage() const {
    for (const HexMemory::Overlap &overlap : memory_.overlaps()) {
        if (overlap.differsAt)
            throwWrongFile(path_,
                           fmt::format("lines {} and {} give different bytes for {:#x}",
                                       overlap.line, overlap.otherLine, *overlap.differsAt),
                           "Only one of them can be in an image; take the other line out.");
    }
    const auto &segments = memory_.segments();
    const uint64_t end = segments.empty() ? 0 : segments.back().address + segments.back().size;
    if (end > kMostImage)
        throwWrongFile(path_, fmt::format("the image would reach up to {:#x}", end),
                       "It begins at address 0 and ends at 1 GiB at most; 'objcopy -I ihex -O "
                       "binary' begins at the lowest address of the file.");
}

void HexContents::writeImage() {
    Bytes piece;
    uint64_t done = 0;
    const auto append = [&](std::span<const uint8_t> bytes) {
        piece.insert(piece.end(), bytes.begin(), bytes.end());
        done += bytes.size();
        if (piece.size() >= kPiece) {
            image_->write(piece);
            piece.clear();
        }
    };
    const Bytes zeros(kPiece);
    memory_.visit([&](uint64_t address, std::span<const uint8_t> data) {
        while (done < address)
            append(std::span(zeros).first(std::min<uint64_t>(address - done, kPiece)));
        append(data);
    });
    image_->write(piece);
}

uint64_t HexContents::size() const {
    uint64_t bytes = 0;
    for (const HexMemory::Segment &segment : memory_.segments())
        bytes += segment.size;
    return bytes;
}

void HexContents::report(bool json, FILE *to) const {
    if (json) {
        fmt::print(to, "{}\n", asJson().dump());
        return;
    }
    for (const HexMemory::Segment &segment : memory_.segments())
        fmt::print(to, "{:#010x} to {:#010x}  {:>9} bytes\n", segment.address,
                   segment.address + segment.size - 1, segment.size);
    printOverlaps(to);
    fmt::print(to, "{} records, {} bytes in {} segments{}\n", recordCount_, size(),
               memory_.segments().size(), placer_.ended() ? "" : ", no End Of File record");
}

nlohmann::json HexContents::asJson() const {
    nlohmann::json segments = nlohmann::json::array();
    for (const HexMemory::Segment &segment : memory_.segments())
        segments.push_back({{"address", segment.address}, {"size", segment.size}});
    nlohmann::json overlaps = nlohmann::json::array();
    for (const HexMemory::Overlap &overlap : memory_.overlaps()) {
        overlaps.push_back({{"address", overlap.address},
                            {"size", overlap.size},
                            {"lines", {overlap.line, overlap.otherLine}},
                            {"same", !overlap.differsAt}});
        if (overlap.differsAt)
            overlaps.back()["differs_at"] = *overlap.differsAt;
    }
    return {{"records", recordCount_},
            {"bytes", size()},
            {"end_of_file", placer_.ended()},
            {"segments", segments},
            {"overlaps", overlaps}};
}

void HexContents::printOverlaps(FILE *to) const {
    const auto &overlaps = memory_.overlaps();
    const size_t shown = std::min(overlaps.size(), kMostShown);
    for (const HexMemory::Overlap &overlap : std::span(overlaps).first(shown))
        fmt::print(to, "{:#010x} to {:#010x}  given twice, {} (lines {} and {})\n", overlap.address,
                   overlap.address + overlap.size - 1,
                   overlap.differsAt ? fmt::format("DIFFERENT bytes at {:#x}", *overlap.differsAt)
                                     : "the same bytes",
                   overlap.line, overlap.otherLine);
    if (shown < overlaps.size())
        fmt::print(to, "and {} more that are given twice\n", overlaps.size() - shown);
}

void hex(const HexOptions &options, const CommonOptions &common) {
    if (!options.binary.empty() && !options.image.empty() &&
        isSameFile(options.binary, options.image))
        throw Error(Exit::Usage, "--binary and --image would write the same file",
                    "Give each a file of its own.");
    HexContents contents(options);
    contents.read();
    contents.writeFiles();
    const bool dataOnStdout = options.binary == "-" || options.image == "-";
    contents.report(common.json, dataOnStdout ? stderr : stdout);
}

} // namespace

void defineHexCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<HexOptions>();
    command.add_option("FILE", options->file, "The file; - is standard input")->required();
    command.add_option("--binary", options->binary,
                       "Write the records as raw bytes, as the library's FX2 loader takes them, to "
                       "this file");
    command.add_option("--image", options->image,
                       "Write the memory from address 0 on, zero where there are no data, to this "
                       "file");
    addJsonOption(command, common);
    command.footer("Checks every record and prints the segments of memory that they fill, and what "
                   "they give twice.\n\n"
                   "Examples:\n"
                   "  vexa-usb hex firmware.hex\n"
                   "  vexa-usb hex firmware.hex --binary firmware.bin");
    command.callback([&common, options]() { hex(*options, common); });
}

} // namespace tool
