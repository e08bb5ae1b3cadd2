// The instruction reader and the polyline-encoded data decoder.

#include "hpgl2/hpgl2.h"
#include "hpgl2/reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace qx::hpgl2;

namespace {

struct Instruction {
    std::string mnemonic;
    std::vector<double> params;
};

std::vector<Instruction> readAll(const std::string& text, size_t* stop = nullptr, size_t* stray = nullptr) {
    const auto* data = reinterpret_cast<const uint8_t*>(text.data());
    Reader r(data, text.size());
    std::vector<Instruction> out;
    char a, b;
    while (r.nextMnemonic(a, b)) {
        Instruction in;
        in.mnemonic = {a, b};
        r.numbers(in.params);
        out.push_back(in);
    }
    if (stop)
        *stop = r.position();
    if (stray)
        *stray = r.strayBytes();
    return out;
}

// Encodes one number the way polyline-encoded data carries it: sign in the lowest bit, then
// digits least significant first, the last one from the terminator range.
std::string encode(long value, bool sevenBit) {
    unsigned long n = value < 0 ? (static_cast<unsigned long>(-value) << 1) | 1 : static_cast<unsigned long>(value) << 1;
    const unsigned base = sevenBit ? 32 : 64;
    std::string out;
    while (n >= base) {
        out.push_back(static_cast<char>(63 + n % base));
        n /= base;
    }
    out.push_back(static_cast<char>((sevenBit ? 95 : 191) + n));
    return out;
}

std::vector<EncodedItem> decode(const std::string& text, size_t* pos = nullptr) {
    size_t p = 0;
    auto items = decodePolylineEncoded(reinterpret_cast<const uint8_t*>(text.data()), text.size(), p);
    if (pos)
        *pos = p;
    return items;
}

} // namespace

TEST(Hpgl2Reader, SeparatorsSignsAndDecimals) {
    const auto in = readAll("PA10,20 30 -40-50+60;PR.5,-.25\r\nSP 1 ;");
    ASSERT_EQ(in.size(), 3u);
    EXPECT_EQ(in[0].mnemonic, "PA");
    EXPECT_EQ(in[0].params, (std::vector<double>{10, 20, 30, -40, -50, 60}));
    EXPECT_EQ(in[1].mnemonic, "PR");
    EXPECT_EQ(in[1].params, (std::vector<double>{0.5, -0.25}));
    EXPECT_EQ(in[2].mnemonic, "SP");
    EXPECT_EQ(in[2].params, (std::vector<double>{1}));
}

TEST(Hpgl2Reader, TerminatorIsOptionalAndCaseDoesNotMatter) {
    const auto in = readAll("LTLT;pu;pd10,10DI0,1DI1,0in");
    ASSERT_EQ(in.size(), 7u);
    EXPECT_EQ(in[0].mnemonic, "LT");
    EXPECT_TRUE(in[0].params.empty());
    EXPECT_EQ(in[1].mnemonic, "LT");
    EXPECT_EQ(in[2].mnemonic, "PU");
    EXPECT_EQ(in[3].mnemonic, "PD");
    EXPECT_EQ(in[3].params, (std::vector<double>{10, 10}));
    EXPECT_EQ(in[4].params, (std::vector<double>{0, 1}));
    EXPECT_EQ(in[5].params, (std::vector<double>{1, 0}));
    EXPECT_EQ(in[6].mnemonic, "IN");
}

TEST(Hpgl2Reader, StopsAtEscape) {
    size_t stop = 0;
    const std::string text = "IN;PA1,2\x1b%0A;PA3,4;";
    const auto in = readAll(text, &stop);
    ASSERT_EQ(in.size(), 2u);
    EXPECT_EQ(in[1].params, (std::vector<double>{1, 2}));
    EXPECT_EQ(stop, text.find('\x1b'));
}

TEST(Hpgl2Reader, StrayBytesAreSkippedAndCounted) {
    size_t stray = 0;
    const auto in = readAll("\n\n#PA1,2;X;PU", nullptr, &stray);
    ASSERT_EQ(in.size(), 2u);
    EXPECT_EQ(in[0].mnemonic, "PA");
    EXPECT_EQ(in[1].mnemonic, "PU");
    EXPECT_EQ(stray, 2u); // '#' and the lone 'X'
}

TEST(Hpgl2Reader, SkipParametersPassesQuotedStrings) {
    const std::string text = "BP1,\"A;B PU\",5;PA1,1;";
    const auto* data = reinterpret_cast<const uint8_t*>(text.data());
    Reader r(data, text.size());
    char a, b;
    ASSERT_TRUE(r.nextMnemonic(a, b));
    r.skipParameters();
    ASSERT_TRUE(r.nextMnemonic(a, b));
    EXPECT_EQ(std::string({a, b}), "PA");
}

TEST(Hpgl2PolylineEncoded, EncoderRoundTripBase64) {
    // "=" absolute first pair, "<" pen up second pair, then a relative pen-down pair.
    const std::string text = "=" + encode(1000, false) + encode(-2000, false) + "<" + encode(5, false) +
                             encode(0, false) + encode(-123456, false) + encode(7, false) + ";PA";
    size_t pos = 0;
    const auto items = decode(text, &pos);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].x, 1000);
    EXPECT_EQ(items[0].y, -2000);
    EXPECT_TRUE(items[0].absolute);
    EXPECT_FALSE(items[0].penUp);
    EXPECT_EQ(items[1].x, 5);
    EXPECT_EQ(items[1].y, 0);
    EXPECT_TRUE(items[1].penUp);
    EXPECT_FALSE(items[1].absolute);
    EXPECT_EQ(items[2].x, -123456);
    EXPECT_EQ(items[2].y, 7);
    EXPECT_FALSE(items[2].penUp);
    EXPECT_EQ(pos, text.size() - 2); // after the ';'
}

TEST(Hpgl2PolylineEncoded, SevenBitBase32) {
    const std::string text = "7" + encode(300, true) + encode(-31, true) + encode(1, true) + encode(-1, true) + ";";
    const auto items = decode(text);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].x, 300);
    EXPECT_EQ(items[0].y, -31);
    EXPECT_EQ(items[1].x, 1);
    EXPECT_EQ(items[1].y, -1);
}

TEST(Hpgl2PolylineEncoded, PenSelectFractionsAndIgnoredBytes) {
    // Pen 2, then three fraction bits: 20 / 8 = 2.5. Line ends and blanks in between are ignored.
    const std::string text = ":" + encode(2, false) + ">" + encode(3, false) + "\r\n" + encode(20, false) + " " +
                             encode(-12, false) + ";";
    const auto items = decode(text);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].kind, EncodedItem::Kind::Pen);
    EXPECT_EQ(items[0].pen, 2);
    EXPECT_EQ(items[1].kind, EncodedItem::Kind::Point);
    EXPECT_DOUBLE_EQ(items[1].x, 2.5);
    EXPECT_DOUBLE_EQ(items[1].y, -1.5);
}

TEST(Hpgl2PolylineEncoded, KnownBytesFromADriver) {
    // Bytes as a plotting program wrote them: 's' 0xC1 is 52 + 2 * 64 = 180 -> +90,
    // '\' 0xD2 is 29 + 19 * 64 = 1245 -> -622.
    const std::string text = std::string("s\xC1\\\xD2") + ";";
    const auto items = decode(text);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].x, 90);
    EXPECT_EQ(items[0].y, -622);
}

TEST(Hpgl2PolylineEncoded, StopsAtEscapeWithoutConsumingIt) {
    const std::string text = encode(4, false) + encode(4, false) + "\x1b%0A";
    size_t pos = 0;
    const auto items = decode(text, &pos);
    EXPECT_EQ(items.size(), 1u);
    EXPECT_EQ(pos, text.find('\x1b'));
}

TEST(Hpgl2PolylineEncoded, FlagsWithTheEighthBitAndSevenBitParity) {
    // 0xBD is '=' with its eighth bit; after '7' the eighth bit of every byte is dropped, so a
    // digit sent with parity reads as without.
    std::string text = std::string("\xBD") + encode(10, false) + encode(20, false) + "7" + encode(3, true);
    std::string y = encode(-4, true);
    y[0] = static_cast<char>(y[0] | 0x80);
    text += y + ";";
    const auto items = decode(text);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_TRUE(items[0].absolute);
    EXPECT_EQ(items[0].x, 10);
    EXPECT_EQ(items[0].y, 20);
    EXPECT_EQ(items[1].x, 3);
    EXPECT_EQ(items[1].y, -4);
}
