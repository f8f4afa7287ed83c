#include "hex_file.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "bytes.h"
#include "errors.h"
#include "firmware/formats/hex_parser.h"
#include "firmware_file.h"

namespace tool {

namespace {

constexpr size_t kPiece = 1U << 16; // what stays in the processor's caches is quickest

constexpr const char *kLineHint =
    "A line of Intel HEX is ':', then pairs of hexadecimal digits: count, address (two), type, "
    "data, checksum.";

// Whole lines of a file, a piece at a time.
class HexPieces {
public:
    explicit HexPieces(const std::string &filePath);

    // Empty at the end.
    std::string_view next();

private:
    void readMore();

    const std::string &path;
    Input input;
    Bytes buffer;
    size_t begin = 0; // of what was not given yet
    size_t end = 0;
    size_t total = 0;
    bool atEnd = false;
};

HexPieces::HexPieces(const std::string &filePath) : path(filePath), input(filePath) {
    if (input.size() > kMostFirmware)
        throwTooLarge(path);
}

std::string_view HexPieces::next() {
    for (;;) {
        const std::string_view here(reinterpret_cast<const char *>(buffer.data()) + begin,
                                    end - begin);
        const size_t whole = atEnd ? here.size() : here.rfind('\n') + 1;
        if (whole != 0 || atEnd) {
            begin += whole;
            return here.substr(0, whole);
        }
        readMore();
    }
}

void HexPieces::readMore() {
    std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
              buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
    end -= std::exchange(begin, 0);
    if (end >= kPiece)
        throwWrongFile(path, "a line of more than 64 KiB", kLineHint);
    buffer.resize(end + kPiece);
    const size_t count = input.read(std::span(buffer).subspan(end));
    end += count;
    total += count;
    atEnd = count == 0;
    if (total > kMostFirmware)
        throwTooLarge(path);
}

// What is wrong with a record, be it for the reader or for who takes it, is wrong with that line.
bool takeRecord(vexausb::HexTextReader &reader, const HexTaker &take, const std::string &path,
                size_t linesBefore) {
    const auto lineText = [&]() { return fmt::format("line {}: ", linesBefore + reader.line()); };
    try {
        const auto record = reader.next();
        if (record)
            take(*record, linesBefore + reader.line());
        return record.has_value();
    } catch (const Error &error) {
        throwWrongFile(path, lineText() + error.what(), error.hint);
    } catch (const std::exception &error) {
        const bool tells = *error.what() != '\0';
        throwWrongFile(path, lineText() + (tells ? error.what() : "Not a whole record"), kLineHint);
    }
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
        throwWrongFile(path, "there is no record in the file", kLineHint);
}

} // namespace tool
