// The stream reader on hand-assembled streams: both bindings, every data type, attribute ids,
// embedded data, and the errors for malformed input.

#include "pclxl/stream.h"
#include "xl_writer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qx::pclxl {
namespace {

using test::XlWriter;

std::vector<Operator> readAll(const std::vector<uint8_t>& bytes, std::string* error = nullptr,
                              StreamReader::Status* last = nullptr) {
    StreamReader r(bytes.data(), bytes.size());
    std::vector<Operator> ops;
    if (!r.readHeader()) {
        if (error)
            *error = r.error();
        if (last)
            *last = StreamReader::Status::Error;
        return ops;
    }
    Operator op;
    for (;;) {
        const StreamReader::Status st = r.next(op);
        if (st != StreamReader::Status::Operator) {
            if (error)
                *error = r.error();
            if (last)
                *last = st;
            return ops;
        }
        ops.push_back(op);
    }
}

class BothBindings : public ::testing::TestWithParam<bool> {};

TEST_P(BothBindings, HeaderNamesBindingAndClass) {
    XlWriter w(GetParam(), "3;0");
    StreamReader r(w.bytes.data(), w.bytes.size());
    ASSERT_TRUE(r.readHeader()) << r.error();
    EXPECT_EQ(r.header().littleEndian, GetParam());
    EXPECT_EQ(r.header().protocolClass, "3.0");
    EXPECT_EQ(r.header().comment, "Test stream");
    EXPECT_EQ(r.position(), w.bytes.size());
}

TEST_P(BothBindings, EveryScalarType) {
    XlWriter w(GetParam());
    w.ub(200).a(1).u16(65000).a(2).u32(4000000000u).a(3).s16(-1234).a(4).s32(-70000).a(5).r32(2.5f).a(6)
        .op(op::SetCursor);
    std::string error;
    auto ops = readAll(w.bytes, &error);
    ASSERT_EQ(ops.size(), 1u) << error;
    const Operator& op = ops[0];
    EXPECT_EQ(op.tag, op::SetCursor);
    ASSERT_EQ(op.attrs.size(), 6u);
    EXPECT_EQ(op.find(1)->number(), 200);
    EXPECT_EQ(op.find(1)->type, BaseType::UByte);
    EXPECT_EQ(op.find(2)->number(), 65000);
    EXPECT_EQ(op.find(2)->type, BaseType::UInt16);
    EXPECT_EQ(op.find(3)->number(), 4000000000.0);
    EXPECT_EQ(op.find(3)->type, BaseType::UInt32);
    EXPECT_EQ(op.find(4)->number(), -1234);
    EXPECT_EQ(op.find(4)->type, BaseType::SInt16);
    EXPECT_EQ(op.find(5)->number(), -70000);
    EXPECT_EQ(op.find(5)->type, BaseType::SInt32);
    EXPECT_EQ(op.find(6)->number(), 2.5);
    EXPECT_TRUE(op.find(6)->isReal());
}

TEST_P(BothBindings, EveryXyAndBoxType) {
    XlWriter w(GetParam());
    w.ubXy(1, 2).a(1).u16Xy(300, 40000).a(2).u32Xy(70000, 5).a(3).s16Xy(-3, 4).a(4).s32Xy(-100000, 7).a(5)
        .r32Xy(0.5f, -1.25f).a(6).op(op::NewPath);
    w.ubBox(1, 2, 3, 4).a(1).u16Box(10, 20, 30, 40000).a(2).u32Box(1, 2, 3, 100000).a(3)
        .s16Box(-1, -2, 3, 4).a(4).s32Box(-1, 2, -3, 4).a(5).r32Box(0.25f, 0.5f, 0.75f, 1).a(6)
        .op(op::NewPath);
    std::string error;
    auto ops = readAll(w.bytes, &error);
    ASSERT_EQ(ops.size(), 2u) << error;
    const Operator& a = ops[0];
    EXPECT_EQ(a.find(1)->shape, Value::Shape::Xy);
    EXPECT_EQ(a.find(1)->at(1), 2);
    EXPECT_EQ(a.find(2)->at(1), 40000);
    EXPECT_EQ(a.find(3)->at(0), 70000);
    EXPECT_EQ(a.find(4)->at(0), -3);
    EXPECT_EQ(a.find(5)->at(0), -100000);
    EXPECT_EQ(a.find(6)->at(1), -1.25);
    const Operator& b = ops[1];
    EXPECT_EQ(b.find(1)->shape, Value::Shape::Box);
    EXPECT_EQ(b.find(1)->at(3), 4);
    EXPECT_EQ(b.find(2)->at(3), 40000);
    EXPECT_EQ(b.find(3)->at(3), 100000);
    EXPECT_EQ(b.find(4)->at(1), -2);
    EXPECT_EQ(b.find(5)->at(2), -3);
    EXPECT_EQ(b.find(6)->at(0), 0.25);
}

TEST_P(BothBindings, EveryArrayType) {
    XlWriter w(GetParam());
    w.str("Courier").a(attr::FontName).u16Array({1, 65535}).a(2).u32Array({7, 4000000000u}).a(3)
        .s16Array({-5, 5}).a(4).s32Array({-70000}).a(5).r32Array({1.5f, -2}).a(6).op(op::SetFont);
    std::string error;
    auto ops = readAll(w.bytes, &error);
    ASSERT_EQ(ops.size(), 1u) << error;
    const Operator& op = ops[0];
    EXPECT_EQ(op.find(attr::FontName)->text(), "Courier");
    EXPECT_TRUE(op.find(2)->isArray());
    EXPECT_EQ(op.find(2)->size(), 2u);
    EXPECT_EQ(op.find(2)->at(1), 65535);
    EXPECT_EQ(op.find(3)->at(1), 4000000000.0);
    EXPECT_EQ(op.find(4)->at(0), -5);
    EXPECT_EQ(op.find(5)->at(0), -70000);
    EXPECT_EQ(op.find(6)->at(1), -2);
}

TEST_P(BothBindings, SixteenBitAttributeIdsAndEmbeddedData) {
    XlWriter w(GetParam());
    w.u16(12).a16(attr::CharCode).op(op::ReadChar).data({1, 2, 3});
    std::vector<uint8_t> big(300, 0xAB);
    w.op(op::ReadImage).data(big);
    w.op(op::ReadImage).data({9}, true);
    std::string error;
    auto ops = readAll(w.bytes, &error);
    ASSERT_EQ(ops.size(), 3u) << error;
    EXPECT_EQ(ops[0].find(attr::CharCode)->number(), 12);
    ASSERT_TRUE(ops[0].hasData);
    EXPECT_EQ(ops[0].dataSize, 3u);
    EXPECT_EQ(ops[0].data[2], 3);
    EXPECT_EQ(ops[1].dataSize, 300u);
    EXPECT_EQ(ops[1].data[299], 0xAB);
    EXPECT_EQ(ops[2].dataSize, 1u);
    EXPECT_EQ(ops[2].data[0], 9);
}

INSTANTIATE_TEST_SUITE_P(Reader, BothBindings, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "LowByteFirst" : "HighByteFirst"; });

TEST(Reader, SkipsWhitespaceBetweenTokens) {
    XlWriter w;
    w.raw({0x20, 0x0A, 0x00}).ub(1).raw({0x20}).a(attr::ROP3).raw({0x09}).op(op::SetROP).raw({0x0D, 0x0A});
    std::string error;
    auto ops = readAll(w.bytes, &error);
    ASSERT_EQ(ops.size(), 1u) << error;
    EXPECT_EQ(ops[0].find(attr::ROP3)->number(), 1);
}

TEST(Reader, StopsInFrontOfUniversalExitLanguage) {
    XlWriter w;
    w.op(op::NewPath);
    const size_t uel = w.offset();
    w.raw("\x1b%-12345X@PJL EOJ\n");
    StreamReader r(w.bytes.data(), w.bytes.size());
    ASSERT_TRUE(r.readHeader());
    Operator op;
    EXPECT_EQ(r.next(op), StreamReader::Status::Operator);
    EXPECT_EQ(r.next(op), StreamReader::Status::End);
    EXPECT_EQ(r.position(), uel);
}

TEST(Reader, RefusesAsciiBinding) {
    const std::string s = "' HP-PCL XL;2;0;x\n";
    std::vector<uint8_t> bytes(s.begin(), s.end());
    StreamReader r(bytes.data(), bytes.size());
    EXPECT_FALSE(r.readHeader());
    EXPECT_NE(r.error().find("ASCII binding is not supported"), std::string::npos) << r.error();
    const std::string t = "` HP-PCL XL;2;0;x\n";
    std::vector<uint8_t> bytes2(t.begin(), t.end());
    StreamReader r2(bytes2.data(), bytes2.size());
    EXPECT_FALSE(r2.readHeader());
    EXPECT_NE(r2.error().find("ASCII binding"), std::string::npos) << r2.error();
}

TEST(Reader, RefusesSomethingElse) {
    const std::string s = "%!PS-Adobe-3.0\n";
    std::vector<uint8_t> bytes(s.begin(), s.end());
    StreamReader r(bytes.data(), bytes.size());
    EXPECT_FALSE(r.readHeader());
    EXPECT_EQ(r.error(), "not a PCL XL stream header in stream header at byte 0");
}

TEST(Reader, TruncatedValueNamesItsPosition) {
    XlWriter w;
    w.op(op::NewPath);
    const size_t at = w.offset();
    w.raw({0xD1, 0x01, 0x00, 0x02}); // uint16_xy with one byte missing
    std::string error;
    StreamReader::Status last;
    auto ops = readAll(w.bytes, &error, &last);
    EXPECT_EQ(ops.size(), 1u);
    EXPECT_EQ(last, StreamReader::Status::Error);
    EXPECT_EQ(error, "truncated uint16_xy value in attribute list at byte " + std::to_string(at));
}

TEST(Reader, ArrayLongerThanTheDataIsRefusedWithoutAllocating) {
    XlWriter w;
    const size_t at = w.offset();
    w.raw({0xCA, 0xC2, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3}); // uint32_array claiming 2^31 elements
    std::string error;
    readAll(w.bytes, &error);
    EXPECT_EQ(error, "uint32_array of 2147483647 elements runs past the end of the data in attribute list at byte " +
                         std::to_string(at));
}

TEST(Reader, EmbeddedDataLongerThanTheStream) {
    XlWriter w;
    w.u16(0).a(attr::StartLine).op(op::ReadImage);
    const size_t at = w.offset();
    w.raw({0xFA, 0x00, 0x10, 0x00, 0x00, 1, 2, 3});
    std::string error;
    readAll(w.bytes, &error);
    EXPECT_EQ(error, "embedded data of 4096 bytes runs past the end of the data (3 left) in ReadImage at byte " +
                         std::to_string(at));
}

TEST(Reader, MalformedAttributeLists) {
    {
        XlWriter w;
        const size_t at = w.offset();
        w.raw({0xF8, 0x03}).op(op::SetColorSpace);
        std::string error;
        readAll(w.bytes, &error);
        EXPECT_EQ(error, "attribute id without a value in attribute list at byte " + std::to_string(at));
    }
    {
        XlWriter w;
        w.ub(1);
        const size_t at = w.offset();
        w.op(op::SetROP);
        std::string error;
        readAll(w.bytes, &error);
        EXPECT_EQ(error, "value without an attribute id (found 0x7B) in attribute list at byte " + std::to_string(at));
    }
    {
        XlWriter w;
        w.op(op::NewPath);
        const size_t at = w.offset();
        w.raw({0x45});
        std::string error;
        readAll(w.bytes, &error);
        EXPECT_EQ(error, "unknown operator 0x45 in stream at byte " + std::to_string(at));
    }
    {
        XlWriter w;
        const size_t at = w.offset();
        w.ub(1).a(attr::ROP3);
        std::string error;
        StreamReader::Status last;
        readAll(w.bytes, &error, &last);
        EXPECT_EQ(last, StreamReader::Status::Error);
        EXPECT_EQ(error, "truncated attribute list in attribute list at byte " + std::to_string(at));
    }
}

TEST(Reader, LineFeedWhereTheBindingShouldBe) {
    const std::vector<uint8_t> bytes = {0x0A, 0xE1, 0x9D, 0x72};
    StreamReader r(bytes.data(), bytes.size());
    EXPECT_FALSE(r.readHeader());
    EXPECT_EQ(r.error(), "not a PCL XL stream header in stream header at byte 0");
}

TEST(Reader, TruncatedHeader) {
    const std::string s = ") HP-PCL XL;2;0";
    std::vector<uint8_t> bytes(s.begin(), s.end());
    StreamReader r(bytes.data(), bytes.size());
    EXPECT_FALSE(r.readHeader());
    EXPECT_EQ(r.error(), "truncated stream header in stream header at byte 0");
}

TEST(Reader, GarbageNeverReadsPastTheEnd) {
    // Every prefix of a valid stream, and a scrambled copy, end in End or Error, never a crash.
    XlWriter w;
    w.start().u16Box(1, 2, 3, 4).a(attr::BoundingBox).op(op::Rectangle).u16(0).a(attr::StartLine)
        .op(op::ReadImage).data(std::vector<uint8_t>(40, 7)).endPage().endSession();
    for (size_t n = 0; n <= w.bytes.size(); ++n) {
        std::vector<uint8_t> part(w.bytes.begin(), w.bytes.begin() + n);
        StreamReader r(part.data(), part.size());
        if (!r.readHeader())
            continue;
        Operator op;
        int guard = 0;
        while (r.next(op) == StreamReader::Status::Operator)
            ASSERT_LT(++guard, 1000);
        EXPECT_LE(r.position(), part.size());
    }
    std::vector<uint8_t> scrambled = w.bytes;
    uint32_t seed = 12345;
    for (size_t i = 30; i < scrambled.size(); ++i) {
        seed = seed * 1103515245 + 12345;
        if ((seed >> 16) % 5 == 0)
            scrambled[i] = uint8_t(seed >> 8);
    }
    StreamReader r(scrambled.data(), scrambled.size());
    ASSERT_TRUE(r.readHeader());
    Operator op;
    int guard = 0;
    while (r.next(op) == StreamReader::Status::Operator)
        ASSERT_LT(++guard, 1000);
}

} // namespace
} // namespace qx::pclxl
