#include "firmware_file.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <numeric>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "errors.h"
#include "firmware/fx3_image.h"
#include "firmware/hex_convert.h"
#include "firmware/hex_parser.h"
#include "firmware/imx7_image.h"

namespace tool {

namespace {

constexpr size_t kDfuSuffix = 16;
constexpr size_t kHexPiece = 1U << 16; // what stays in the processor's caches is quickest

[[noreturn]] void throwWrong(const std::string &path, const std::string &what,
                             const std::string &hint) {
    throw Error(Exit::DataWrong, fmt::format("{}: {}", path, what), hint);
}

Bytes readNonEmpty(const std::string &path) {
    Bytes bytes = readInput(path);
    if (bytes.empty())
        throwWrong(path, "the file is empty", "Nothing was sent.");
    return bytes;
}

constexpr const char *kHexHint =
    "A line of Intel HEX is ':', then pairs of hexadecimal digits: count, address (two), type, "
    "data, checksum.";

constexpr uint16_t kFx2Upper = 0x3000; // from here on, memory is written by a program

// Makes the records of a file those that an FX2 is to be loaded with.
struct Fx2Records {
    void take(const vexausb::HexRecordView &record);
    void takeData(const vexausb::HexRecordView &record);
    void append(uint16_t address, uint8_t type, std::span<const uint8_t> data);

    Bytes image;
    bool ended = false;
};

// Whole lines of a file, a piece at a time.
class HexPieces {
public:
    explicit HexPieces(const std::string &filePath) : path(filePath), input(filePath) {}

    // Empty at the end.
    std::string_view next();

private:
    const std::string &path;
    Input input;
    Bytes buffer;
    size_t begin = 0; // of what was not given yet
    size_t end = 0;
};

std::string_view HexPieces::next() {
    for (;;) {
        const std::string_view here(reinterpret_cast<const char *>(buffer.data()) + begin,
                                    end - begin);
        const size_t whole = here.rfind('\n');
        if (whole != std::string_view::npos) {
            begin += whole + 1;
            return here.substr(0, whole + 1);
        }
        std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
                  buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
        end -= std::exchange(begin, 0);
        if (end >= kHexPiece)
            throwWrong(path, "a line of more than 64 KiB", kHexHint);
        buffer.resize(end + kHexPiece);
        const size_t count = input.read(std::span(buffer).subspan(end));
        end += count;
        if (count == 0)
            return {reinterpret_cast<const char *>(buffer.data()), std::exchange(end, 0)};
    }
}

// What is wrong with a record, be it for the reader or for who takes it, is wrong with that line.
bool takeRecord(vexausb::HexTextReader &reader, const HexTaker &take, const std::string &path,
                size_t linesBefore) {
    const auto place = [&]() {
        return fmt::format("{}: line {}", path, linesBefore + reader.line());
    };
    try {
        const auto record = reader.next();
        if (record)
            take(*record);
        return record.has_value();
    } catch (const Error &error) {
        throw Error(error.exit, fmt::format("{}: {}", place(), error.what()), error.hint);
    } catch (const std::exception &error) {
        const bool tells = *error.what() != '\0';
        throw Error(Exit::DataWrong,
                    fmt::format("{}: {}", place(), tells ? error.what() : "Not a whole record"),
                    kHexHint);
    }
}

uint32_t reflectedCrc(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int i = 0; i < 8; ++i)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
    }
    return crc;
}

// As DFU 1.1 has it: "UFD", the suffix's length, and a checksum over all before that.
bool hasDfuSuffix(std::span<const uint8_t> bytes) {
    return bytes.size() >= kDfuSuffix && std::memcmp(&bytes[bytes.size() - 8], "UFD\x10", 4) == 0;
}

bool isDfuSuffixRight(std::span<const uint8_t> bytes) {
    uint32_t stored = 0;
    std::memcpy(&stored, &bytes[bytes.size() - sizeof(stored)], sizeof(stored));
    return reflectedCrc(bytes.first(bytes.size() - sizeof(stored))) == stored;
}

Bytes readWithHeader(const std::string &path,
                     std::optional<uint32_t> (*address)(std::span<const uint8_t>),
                     const char *wanted) {
    Bytes bytes = readNonEmpty(path);
    if (!address(bytes))
        throwWrong(path, "wrong header", wanted);
    return bytes;
}

} // namespace

void readHexFile(const std::string &path, const HexTaker &take) {
    HexPieces pieces(path);
    size_t lines = 0;
    bool any = false;
    for (std::string_view text = pieces.next(); !text.empty(); text = pieces.next()) {
        vexausb::HexTextReader reader(text);
        while (takeRecord(reader, take, path, lines))
            any = true;
        lines += reader.line() - 1; // what is behind its last line goes on in the next piece
    }
    if (!any)
        throwWrong(path, "there is no record in the file", kHexHint);
}

// A data record that ends where the chip needs another way of writing is given in two.
void Fx2Records::takeData(const vexausb::HexRecordView &record) {
    const size_t below = record.address < kFx2Upper ? kFx2Upper - record.address : SIZE_MAX;
    const size_t first = std::min(below, record.data.size());
    append(record.address, vexausb::kHexData, record.data.first(first));
    if (first != record.data.size())
        append(kFx2Upper, vexausb::kHexData, record.data.subspan(first));
}

void Fx2Records::append(uint16_t address, uint8_t type, std::span<const uint8_t> data) {
    vexausb::HexRecordView record{address, type, data, 0};
    const size_t begin = image.size();
    vexausb::appendHexRecord(image, record);
    const auto sum =
        std::accumulate(image.begin() + static_cast<std::ptrdiff_t>(begin), image.end(), 0U);
    image.back() = static_cast<uint8_t>(-sum);
}

void Fx2Records::take(const vexausb::HexRecordView &record) {
    if (ended)
        return;
    switch (record.type) {
    case vexausb::kHexData:
        takeData(record);
        break;
    case vexausb::kHexEndOfFile:
        ended = true;
        append(0, vexausb::kHexEndOfFile, {});
        break;
    case vexausb::kHexExtendedSegmentAddress:
    case vexausb::kHexExtendedLinearAddress:
        if (std::any_of(record.data.begin(), record.data.end(),
                        [](uint8_t byte) { return byte != 0; }))
            throw Error(Exit::DataWrong, "an address above 64 KiB",
                        "An FX2 has 64 KiB of memory; this file is for something else.");
        break;
    case vexausb::kHexStartSegmentAddress:
    case vexausb::kHexStartLinearAddress:
        break; // an 8051 starts at 0
    default:
        throw Error(Exit::DataWrong, fmt::format("unknown record type {:#04x}", record.type),
                    kHexHint);
    }
}

Bytes readFx2Image(const std::string &path) {
    Fx2Records records;
    readHexFile(path, [&](const vexausb::HexRecordView &record) { records.take(record); });
    if (!records.ended)
        throwWrong(path, "there is no End Of File record",
                   "The file seems to be cut short; make it again.");
    return std::move(records.image);
}

std::vector<uint32_t> readFx3Image(const std::string &path) {
    constexpr const char *kHint = "An FX3 boot image is what the chip's tools make of a program: "
                                  "sections in 32-bit words, the entry, a checksum.";
    const Bytes bytes = readNonEmpty(path);
    if (bytes.size() % sizeof(uint32_t) != 0)
        throwWrong(path, "the size is not a multiple of four bytes", kHint);
    std::vector<uint32_t> words(bytes.size() / sizeof(uint32_t));
    std::memcpy(words.data(), bytes.data(), bytes.size());
    vexausb::Fx3ImageWalk walk(words);
    using Record = vexausb::Fx3ImageWalk::Record;
    Record record = walk.next();
    while (record == Record::Section)
        record = walk.next();
    if (record == Record::Broken)
        throwWrong(path, "a section runs past the end of the file", kHint);
    if (record == Record::End)
        throwWrong(path, "there is no program entry", kHint);
    if (!walk.checksumRight())
        throwWrong(path, "Invalid checksum", kHint);
    return words;
}

Bytes readDfuImage(const std::string &path) {
    Bytes bytes = readNonEmpty(path);
    if (hasDfuSuffix(bytes)) {
        if (!isDfuSuffixRight(bytes))
            throwWrong(path, "the checksum of its DFU suffix is wrong",
                       "The file is damaged; get it anew.");
        bytes.resize(bytes.size() - kDfuSuffix);
    }
    if (bytes.empty())
        throwWrong(path, "there is nothing but a suffix in the file", "Nothing was sent.");
    return bytes;
}

Bytes readSplImage(const std::string &path) {
    return readWithHeader(path, vexausb::imx7SplAddress,
                          "An SPL begins with an i.MX image vector table (0xD1) without device "
                          "configuration data; for a U-Boot image say 'load uboot'.");
}

Bytes readUbootImage(const std::string &path) {
    return readWithHeader(path, vexausb::imx7UbootAddress,
                          "A U-Boot image begins with the magic number 27 05 19 56; for the "
                          "loader before it say 'load spl'.");
}

} // namespace tool
