// Intel HEX in text and in raw bytes.
#include <filesystem>
#include <fstream>
#include <ios>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "firmware/formats/file_reader.h"
#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_parser.h"
#include "firmware/formats/strings.h"

namespace {

using namespace vexausb;
using Bytes = std::vector<uint8_t>;

// What the parser throws, as its type and message.
template <typename Parse>
std::string thrownBy(Parse parse) {
    try {
        parse();
    } catch (const std::out_of_range &error) {
        return std::string("out of range:") + error.what();
    } catch (const std::runtime_error &error) {
        return std::string("runtime error:") + error.what();
    }
    return "nothing";
}

std::string thrownByText(const std::string &text) {
    return thrownBy([&]() { parseHexText(text); });
}

HexRecord record(uint8_t type, uint16_t address, Bytes data) {
    return {address, type, std::move(data), 0};
}

TEST(HexText, TakesWhatIsInUse) {
    EXPECT_TRUE(parseHexText("").empty());
    EXPECT_TRUE(parseHexText(" \n\r\n\t\v\f\n").empty());
    const std::string rest(600, 'z'); // more than its count says
    const HexRecords records = parseHexText("\t :00000001FF\r\n"
                                            ":02FFf0090aBc40 \n"
                                            ":0100000042" +
                                            rest +
                                            "BD\n"
                                            ":010000004GzzFB\n" // one digit: 4
                                            ":00000001FF");
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].type, kHexEndOfFile);
    EXPECT_EQ(records[0].checksum, 0xFF);
    EXPECT_EQ(records[1].address, 0xFFF0);
    EXPECT_EQ(records[1].type, 9);
    EXPECT_EQ(records[1].data, (Bytes{0x0A, 0xBC}));
    EXPECT_EQ(records[2].data, Bytes{0x42});
    EXPECT_EQ(records[3].data, Bytes{0x04});
    HexTextReader reader("\n:00000001FF\n");
    EXPECT_TRUE(reader.next() && reader.line() == 2);
    const std::string longest = ":FF000000" + std::string(510, '0') + "01";
    const std::vector<char> exact(longest.begin(), longest.end()); // with nothing behind it
    HexTextReader last({exact.data(), exact.size()});
    EXPECT_EQ(last.next().value().data.size(), 255U);
}

TEST(HexText, RefusesTheRest) {
    EXPECT_EQ(thrownByText(":00000001FE"), "runtime error:Invalid checksum");
    EXPECT_EQ(thrownByText(":0200000001FD"), "runtime error:Invalid checksum"); // a byte short
    EXPECT_EQ(thrownByText("X00000001FF"), "runtime error:Hex record doesn't start with a colon");
    const char *const malformed[] = {
        "00000001FF",   // too short, before the colon counts
        "X00000001FFF", // even
        ":G0000001FF",     ":00G00001FF", ":000000G1FF", ":00000001-F",
        ":00 00001FF", // " 0" is no number
        ":02000000FF", // ends at the data
        ":040000000102FF",
        ":0000001FF", // a character short
        ":020000000102F",
        ":00000001FF\n:0", // also behind the end record
    };
    for (const char *const text : malformed)
        EXPECT_EQ(thrownByText(text), "runtime error:") << text;
}

TEST(HexBinary, RoundTripAndFailures) {
    EXPECT_TRUE(parseHexBinary(nullptr, 0).empty());
    Bytes stream;
    for (const Bytes &each : {Bytes{2, 0x12, 0x34, 0, 0xAA, 0x55, 0xB9}, Bytes{0, 0, 0, 1, 0xFF},
                              Bytes{1, 0, 0, 7, 3, 0xF5}})
        stream.insert(stream.end(), each.begin(), each.end());
    const HexRecords records = parseHexBinary(stream.data(), stream.size());
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].address, 0x1234);
    EXPECT_EQ(hexRecordsToBinary(records), stream);
    for (size_t size = 1; size < stream.size(); ++size) {
        if (size == 7 || size == 12)
            continue; // between records
        const Bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(thrownBy([&]() { parseHexBinary(cut.data(), cut.size()); }), "out of range:");
    }
    ++stream[4];
    EXPECT_EQ(thrownBy([&]() { parseHexBinary(stream.data(), stream.size()); }),
              "runtime error:Invalid checksum");
}

TEST(HexImage, PlacesRecords) {
    const Bytes sixteen(16, 0x11);
    EXPECT_EQ(hexRecordsToImage({record(0, 0, sixteen), record(0, 16, sixteen)}).size(), 32U);
    EXPECT_EQ(hexRecordsToImage({record(0, 16, sixteen), record(0, 0, sixteen)}).size(), 16U);
    Bytes image = hexRecordsToImage({record(kHexExtendedLinearAddress, 0, {0, 1}),
                                     record(0, 0, {7}), record(1, 0, {}), record(5, 0, {})});
    ASSERT_EQ(image.size(), 0x10001U);
    EXPECT_EQ(image[0xFFFF], 0);
    EXPECT_EQ(image[0x10000], 7);
    image =
        hexRecordsToImage({record(kHexExtendedSegmentAddress, 0, {0x12, 0x34}), record(0, 2, {9})});
    EXPECT_EQ(image.size(), 0x12343U);
    // The later base counts.
    image = hexRecordsToImage({record(kHexExtendedLinearAddress, 0, {0xFF, 0xFF}),
                               record(kHexExtendedSegmentAddress, 0, {0, 0}), record(0, 1, {5})});
    EXPECT_EQ(image, (Bytes{0, 5}));
    // A segment's base may reach above 16 bits, where the offset carries.
    image = hexRecordsToImage(
        {record(kHexExtendedSegmentAddress, 0, {0xFF, 0xFF}), record(0, 0xFFFF, {1})});
    EXPECT_EQ(image.size(), 0xFFFF0U + 0xFFFF + 1);
    HexAddress address;
    address.extend(record(kHexExtendedLinearAddress, 0, {0x12, 0x34}).view());
    EXPECT_EQ(address.of(record(0, 0x5678, {}).view()), 0x12345678U);
    address.extend(record(kHexExtendedLinearAddress, 0, {0xFF, 0xFF}).view());
    EXPECT_EQ(address.of(record(0, 0xFFFF, {}).view()), 0xFFFFFFFFU);
    for (const uint8_t type : Bytes{3, 5, 6, 255})
        EXPECT_EQ(thrownBy([&]() {
                      hexRecordsToImage({record(type, 0, {0, 0})});
                  }),
                  "runtime error:Unhandled record type");
    for (const uint8_t type : Bytes{2, 4})
        EXPECT_EQ(thrownBy([&]() { hexRecordsToImage({record(type, 0, {1})}); }), "runtime error:");
}

TEST(FirmwareFiles, ReadAndSplit) {
    EXPECT_THROW(readFileToBytes("/nowhere/at/all"), std::ios_base::failure);
    const std::string path = ::testing::TempDir() + "vexa-hex-test";
    std::ofstream(path, std::ios_base::binary) << ":00000001FF\r\n" << '\0';
    EXPECT_EQ(readFileToString(path).size(), 14U);
    EXPECT_EQ(readFileToBytes(path).back(), 0);
    std::ofstream(path) << ":00000001FF\r\n";
    EXPECT_EQ(parseHexFile(path).size(), 1U);
    std::filesystem::remove(path);

    using Pieces = std::vector<std::string>;
    EXPECT_EQ(splitToStrings("", '\n'), Pieces{""});
    EXPECT_EQ(splitToStrings("a\n", '\n'), (Pieces{"a", ""}));
    EXPECT_EQ(splitAnyToStrings(",a;b", ",;"), (Pieces{"", "a", "b"}));
    EXPECT_EQ(splitAnyToStrings("a,b", ""), Pieces{"a,b"});
    EXPECT_EQ(trimmed("xxaxbx", 'x'), "axb");
    EXPECT_EQ(trimmedLeft(" \ta ", " \t"), "a ");
    EXPECT_EQ(trimmedRight("aa", 'a'), "");
}

} // namespace
