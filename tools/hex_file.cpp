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
#include "input.h"

namespace tool {

namespace {

constexpr size_t kPiece = 1U << 16; // fits the processor's caches

constexpr const char *kLineHint =
    "A line of Intel HEX is ':', then pairs of hexadecimal digits: count, address (two), type, "
    "data, checksum.";

// Whole lines of a file, a piece at a time.
class HexPieces {
public:
    explicit HexPieces(const std::string &path);

    // Empty at the end.
    std::string_view next();

private:
    void readMore();

    const std::string &path_;
    Input input_;
    Bytes buffer_;
    size_t begin_ = 0; // of what next() has not returned yet
    size_t end_ = 0;
    size_t total_ = 0;
    bool atEnd_ = false;
};

HexPieces::HexPieces(const std::string &path) : path_(path), input_(path) {
    if (input_.size() > kMostFirmware)
        throwTooLarge(path_);
}

std::string_view HexPieces::next() {
    for (;;) {
        const std::string_view here(reinterpret_cast<const char *>(buffer_.data()) + begin_,
                                    end_ - begin_);
        const size_t whole = atEnd_ ? here.size() : here.rfind('\n') + 1;
        if (whole != 0 || atEnd_) {
            begin_ += whole;
            return here.substr(0, whole);
        }
        readMore();
    }
}

void HexPieces::readMore() {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= std::exchange(begin_, 0);
    if (end_ >= kPiece)
        throwWrongFile(path_, "a line of more than 64 KiB", kLineHint);
    buffer_.resize(end_ + kPiece);
    const size_t count = input_.read(std::span(buffer_).subspan(end_));
    end_ += count;
    total_ += count;
    atEnd_ = count == 0;
    if (total_ > kMostFirmware)
        throwTooLarge(path_);
}

// Errors of the reader and of `take` both get the number of the line.
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
        lines +=
            reader.line() - 1; // the rest after the last line break continues in the next piece
    }
    if (!any)
        throwWrongFile(path, "there is no record in the file", kLineHint);
}

} // namespace tool
