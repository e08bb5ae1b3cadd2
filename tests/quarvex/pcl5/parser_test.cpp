#include "pcl5/parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace qx::pcl5;

namespace {

// Every command of the input as text: "E2:E", "P:&l:O=1", "T:abc".
std::vector<std::string> parseAll(const std::string& in) {
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    std::vector<std::string> out;
    for (int guard = 0; guard < 1000; ++guard) {
        Command c = p.next();
        if (c.kind == Command::Kind::End)
            break;
        if (c.kind == Command::Kind::Text) {
            out.push_back("T:" + std::string(reinterpret_cast<const char*>(c.text), c.textLength));
        } else if (c.kind == Command::Kind::Escape2) {
            out.push_back(std::string("E2:") + static_cast<char>(c.final));
        } else {
            std::string s = "P:";
            s += static_cast<char>(c.parameter);
            if (c.group)
                s += static_cast<char>(c.group);
            s += ":";
            s += static_cast<char>(c.final);
            s += "=";
            char buf[32];
            std::snprintf(buf, sizeof buf, "%g", c.value);
            s += buf;
            if (c.sign)
                s += c.sign;
            if (!c.hasValue)
                s += "?";
            out.push_back(s);
        }
    }
    return out;
}

} // namespace

TEST(Pcl5Parser, TwoCharacterEscapesAndText) {
    auto v = parseAll("\x1b" "EHello\r\n\x1b" "9\x1b=x");
    std::vector<std::string> want = {"E2:E", "T:Hello\r\n", "E2:9", "E2:=", "T:x"};
    EXPECT_EQ(v, want);
}

TEST(Pcl5Parser, ParameterisedAndCombined) {
    auto v = parseAll("\x1b&l1O\x1b&l0o2A\x1b(8U\x1b(s1p12v0s3b4148T");
    std::vector<std::string> want = {"P:&l:O=1", "P:&l:O=0", "P:&l:A=2", "P:(:U=8",
                                      "P:(s:P=1", "P:(s:V=12", "P:(s:S=0", "P:(s:B=3", "P:(s:T=4148"};
    EXPECT_EQ(v, want);
}

TEST(Pcl5Parser, SignsDecimalsAndMissingValues) {
    auto v = parseAll("\x1b*p+30x-12.5Y\x1b*rB\x1b(s16.67H\x1b%-12345X");
    std::vector<std::string> want = {"P:*p:X=30+", "P:*p:Y=-12.5-", "P:*r:B=0?", "P:(s:H=16.67",
                                      "P:%:X=-12345-"};
    EXPECT_EQ(v, want);
}

TEST(Pcl5Parser, DataIsTakenAfterItsCommandEvenInsideACombinedSequence) {
    const std::string in = std::string("\x1b*b3m4w") + std::string("\x1b\x00\xff\x1b", 4) + "2Yabc";
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    Command c = p.next();
    EXPECT_TRUE(c.is('*', 'b', 'M'));
    EXPECT_EQ(c.intValue(), 3);
    c = p.next();
    EXPECT_TRUE(c.is('*', 'b', 'W'));
    auto data = p.takeData(static_cast<size_t>(c.intValue()));
    ASSERT_EQ(data.size(), 4u);
    EXPECT_EQ(data[0], 0x1b);
    EXPECT_EQ(data[3], 0x1b);
    c = p.next();
    EXPECT_TRUE(c.is('*', 'b', 'Y'));
    EXPECT_EQ(c.intValue(), 2);
    c = p.next();
    EXPECT_EQ(c.kind, Command::Kind::Text);
    EXPECT_EQ(c.textLength, 3u);
    EXPECT_FALSE(p.truncated());
}

TEST(Pcl5Parser, TruncatedDataAndSequences) {
    const std::string in = "\x1b*b10Wabc";
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    Command c = p.next();
    auto data = p.takeData(static_cast<size_t>(c.intValue()));
    EXPECT_EQ(data.size(), 3u);
    EXPECT_TRUE(p.truncated());
    EXPECT_EQ(p.next().kind, Command::Kind::End);

    auto v = parseAll("ab\x1b&l12");
    std::vector<std::string> want = {"T:ab"};
    EXPECT_EQ(v, want);
    Parser q(reinterpret_cast<const uint8_t*>("\x1b"), 1);
    EXPECT_EQ(q.next().kind, Command::Kind::End);
    EXPECT_TRUE(q.truncated());
}

TEST(Pcl5Parser, MalformedSequencesAreSkipped) {
    // A byte that is neither digit nor parameter character ends the sequence; it is read again.
    auto v = parseAll("\x1b&l1\x01Z\x1b\x05Q");
    std::vector<std::string> want = {"T:\x01Z", "T:\x05Q"};
    EXPECT_EQ(v, want);
    const std::string in = "\x1b&l1\x01";
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    while (p.next().kind != Command::Kind::End) {
    }
    EXPECT_EQ(p.malformed(), 1);
}

TEST(Pcl5Parser, HugeValuesStayFinite) {
    auto v = parseAll("\x1b*b99999999999999999999999W");
    ASSERT_EQ(v.size(), 1u);
    const std::string in = "\x1b*b99999999999999999999999W";
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    Command c = p.next();
    EXPECT_GT(c.intValue(), 0);
    EXPECT_LE(c.value, 1e10);
}

TEST(Pcl5Parser, TextRunsAreBounded) {
    const std::string in(10000, 'a');
    Parser p(reinterpret_cast<const uint8_t*>(in.data()), in.size());
    size_t total = 0;
    for (Command c = p.next(100); c.kind != Command::Kind::End; c = p.next(100)) {
        EXPECT_LE(c.textLength, 100u);
        total += c.textLength;
    }
    EXPECT_EQ(total, in.size());
}
