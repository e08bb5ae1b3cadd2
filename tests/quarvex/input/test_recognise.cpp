// Recognising printer languages, and what is not one, from the content alone.

#include "input/recognise.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using qx::input::Kind;

namespace {

Kind kindOf(const std::string& s) {
    return qx::input::recognise(reinterpret_cast<const uint8_t*>(s.data()), s.size());
}

std::string emfHeader() {
    std::string s(88, '\0');
    s[0] = 1; // EMR_HEADER
    s[4] = 88;
    s.replace(40, 4, " EMF");
    return s;
}

} // namespace

TEST(Recognise, PjlAndUel) {
    EXPECT_EQ(kindOf("\x1b%-12345X@PJL\r\n"), Kind::Uel);
    EXPECT_EQ(kindOf("@PJL JOB\r\n"), Kind::Pjl);
    EXPECT_EQ(kindOf("\r\n@pjl enter language=pcl\n"), Kind::Pjl);
}

TEST(Recognise, Pcl5EscapeSequences) {
    EXPECT_EQ(kindOf("\x1b" "E\x1b&l0O"), Kind::Pcl5);
    EXPECT_EQ(kindOf("\x1b&l1O"), Kind::Pcl5);
    EXPECT_EQ(kindOf("\x1b*r1A"), Kind::Pcl5);
    EXPECT_EQ(kindOf("\x1b%0BIN;PD;"), Kind::Pcl5);
    EXPECT_EQ(kindOf("\x1b" "9"), Kind::Pcl5);
}

TEST(Recognise, PlainTextIsAPclTextJob) {
    EXPECT_EQ(kindOf("Hello, printer.\r\nSecond line\f"), Kind::Pcl5);
    EXPECT_EQ(kindOf("Title line\r\n\x1b(s3B Bold text"), Kind::Pcl5);
    // Latin-1 text is text too.
    EXPECT_EQ(kindOf("Gr\xfc\xdf" "e aus M\xfc" "nchen\r\n"), Kind::Pcl5);
}

TEST(Recognise, PclXlStreamHeaders) {
    EXPECT_EQ(kindOf(") HP-PCL XL;2;0;Comment\n"), Kind::PclXl);
    EXPECT_EQ(kindOf(") HP-PCL XL;3;0\n"), Kind::PclXl);
    EXPECT_EQ(kindOf(") BROADCAST;1;0\n"), Kind::PclXl);
    // Either byte order, and the ASCII binding.
    EXPECT_EQ(kindOf("( HP-PCL XL;2;0\n"), Kind::PclXl);
    EXPECT_EQ(kindOf("' HP-PCL XL;1;1\n"), Kind::PclXl);
    EXPECT_EQ(kindOf(") HP-PCL"), Kind::Pcl5) << "too short for a header: text";
}

TEST(Recognise, RefusedKinds) {
    EXPECT_EQ(kindOf("%!PS-Adobe-3.0\n"), Kind::PostScript);
    EXPECT_EQ(kindOf("\x04%!PS\n"), Kind::PostScript);
    EXPECT_EQ(kindOf("%PDF-1.7\n%\xe2\xe3\xcf\xd3\n"), Kind::Pdf);
    EXPECT_EQ(kindOf(emfHeader()), Kind::Emf);
    EXPECT_EQ(kindOf(std::string("\x00\x00\x01\x00\x10\x00\x00\x00\x00\x00\x00\x00", 12)), Kind::EmfSpool);
    EXPECT_EQ(kindOf(std::string("II*\0\x08\0\0\0", 8)), Kind::Image);
    EXPECT_EQ(kindOf("\x89PNG\r\n\x1a\n"), Kind::Image);
    EXPECT_EQ(kindOf(std::string("PK\x03\x04\x14\0", 6)), Kind::Archive);
}

TEST(Recognise, RandomBinaryIsRefused) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::string s(8192, '\0');
        for (char& c : s)
            c = static_cast<char>(rng());
        s[0] = static_cast<char>(0x80 | seed); // not an escape, not a known signature
        EXPECT_EQ(kindOf(s), Kind::Binary) << "seed " << seed;
    }
}

TEST(Recognise, BlankDataIsEmpty) {
    EXPECT_EQ(kindOf(""), Kind::Empty);
    EXPECT_EQ(kindOf(std::string("\r\n \t\0\0", 6)), Kind::Empty);
}

TEST(Recognise, DescriptionsNameTheKind) {
    EXPECT_EQ(qx::input::describe(Kind::PostScript), "PostScript");
    EXPECT_NE(qx::input::describe(Kind::Pdf).find("PDF"), std::string::npos);
    EXPECT_NE(qx::input::describe(Kind::EmfSpool).find("EMF"), std::string::npos);
    EXPECT_TRUE(qx::input::isConvertible(Kind::Pcl5));
    EXPECT_TRUE(qx::input::isConvertible(Kind::PclXl));
    EXPECT_TRUE(qx::input::isConvertible(Kind::PostScript));
    EXPECT_TRUE(qx::input::isConvertible(Kind::Pdf));
    EXPECT_FALSE(qx::input::isConvertible(Kind::Binary));
}

TEST(Recognise, FindUel) {
    const std::string s = "abc\x1b%-12345Xdef\x1b%-12345X";
    const auto* d = reinterpret_cast<const uint8_t*>(s.data());
    EXPECT_EQ(qx::input::findUel(d, s.size(), 0), 3u);
    EXPECT_EQ(qx::input::findUel(d, s.size(), 4), 15u);
    EXPECT_EQ(qx::input::findUel(d, s.size(), 16), s.size());
    EXPECT_EQ(qx::input::findUel(d, 10, 0), 10u) << "a UEL cut off by the end is no UEL";
}
