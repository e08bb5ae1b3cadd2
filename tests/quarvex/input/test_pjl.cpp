// PJL command lines: SET and DEFAULT values, ENTER LANGUAGE, job ends.

#include "input/pjl.h"

#include <gtest/gtest.h>

#include <string>

using qx::input::PjlState;

namespace {

PjlState::Lines parse(PjlState& pjl, const std::string& s, size_t pos = 0) {
    return pjl.parseLines(reinterpret_cast<const uint8_t*>(s.data()), s.size(), pos);
}

} // namespace

TEST(Pjl, SetValues) {
    PjlState pjl;
    const std::string s = "@PJL JOB NAME=\"Report = 2\"\r\n"
                          "@PJL SET RESOLUTION=600\r\n"
                          "@PJL SET PAPER = A4\r\n"
                          "@PJL SET ORIENTATION=LANDSCAPE\r\n"
                          "@PJL SET FORMLINES=66\r\n"
                          "@PJL SET LPARM:PCL SYMSET=PC8\r\n"
                          "@PJL SET LPARM : PCL PITCH=12.5\r\n"
                          "@PJL SET PTSIZE=9\r\n"
                          "@PJL SET FONTSOURCE=I\r\n"
                          "@PJL SET FONTNUMBER=3\r\n"
                          "@PJL SET COPIES=5\r\n";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.end, s.size());
    EXPECT_EQ(lines.commands, 11);
    EXPECT_TRUE(lines.language.empty());
    const auto& c = pjl.current();
    EXPECT_EQ(c.resolution, 600);
    EXPECT_EQ(c.paper, "A4");
    EXPECT_EQ(c.orientation, "LANDSCAPE");
    EXPECT_EQ(c.formLines, 66);
    EXPECT_EQ(c.symbolSet, "PC8");
    EXPECT_DOUBLE_EQ(c.pitch, 12.5);
    EXPECT_DOUBLE_EQ(c.pointSize, 9);
    EXPECT_EQ(c.fontSource, "I");
    EXPECT_EQ(c.fontNumber, 3);
    // SET changes the job, not the defaults.
    EXPECT_EQ(pjl.defaults().resolution, 0);
}

TEST(Pjl, CaseAndBlanksDoNotMatter) {
    PjlState pjl;
    parse(pjl, "@pjl set paper=legal\n@PJL   SET   Resolution =  1200  \n");
    EXPECT_EQ(pjl.current().paper, "LEGAL");
    EXPECT_EQ(pjl.current().resolution, 1200);
}

TEST(Pjl, BadValuesAreIgnored) {
    PjlState pjl;
    parse(pjl, "@PJL SET RESOLUTION=fine\n@PJL SET ORIENTATION=SIDEWAYS\n@PJL SET FORMLINES=-3\n"
               "@PJL SET\n@PJL SET PAPER\n@PJL SET =\n@PJL\n");
    EXPECT_EQ(pjl.current().resolution, 0);
    EXPECT_EQ(pjl.current().orientation, "");
    EXPECT_EQ(pjl.current().formLines, 0);
    EXPECT_EQ(pjl.current().paper, "");
}

TEST(Pjl, OtherPersonalitiesAreNotOurs) {
    PjlState pjl;
    parse(pjl, "@PJL SET LPARM:POSTSCRIPT PAPER=A3\n@PJL SET IPARM:PARALLEL PAPER=A3\n");
    EXPECT_EQ(pjl.current().paper, "");
}

TEST(Pjl, DefaultOutlivesTheJobAndSetDoesNot) {
    PjlState pjl;
    parse(pjl, "@PJL DEFAULT PAPER=A4\n@PJL SET PAPER=LETTER\n@PJL SET RESOLUTION=600\n");
    EXPECT_EQ(pjl.current().paper, "LETTER");
    EXPECT_EQ(pjl.defaults().paper, "A4");
    parse(pjl, "@PJL EOJ NAME=\"x\"\n");
    EXPECT_EQ(pjl.current().paper, "A4");
    EXPECT_EQ(pjl.current().resolution, 0);
    parse(pjl, "@PJL INITIALIZE\n");
    EXPECT_EQ(pjl.current().paper, "");
}

TEST(Pjl, EnterLanguageEndsTheLines) {
    PjlState pjl;
    const std::string s = "@PJL SET RESOLUTION=300\r\n@PJL ENTER LANGUAGE = PCLXL\r\n) HP-PCL XL;2;0\n";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.language, "PCLXL");
    EXPECT_EQ(s.substr(lines.end, 3), ") H");
    EXPECT_EQ(lines.commands, 2);
}

TEST(Pjl, StopsAtTheFirstLineThatIsNotPjl) {
    PjlState pjl;
    const std::string s = "@PJL COMMENT hello\r\n\x1b" "E\x1b&l0O";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.end, s.find('\x1b'));
    EXPECT_TRUE(lines.language.empty());
}

TEST(Pjl, AnEscapeEndsALineWithoutLineFeed) {
    PjlState pjl;
    const std::string s = "@PJL SET PAPER=A5\x1b%-12345X";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.end, s.find('\x1b'));
    EXPECT_EQ(pjl.current().paper, "A5");
}

TEST(Pjl, TruncatedLastLineIsStillRead) {
    PjlState pjl;
    const std::string s = "@PJL SET PAPER=A3";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.end, s.size());
    EXPECT_EQ(pjl.current().paper, "A3");
}

TEST(Pjl, AHugeLineIsSkippedWithoutTrouble) {
    PjlState pjl;
    std::string s = "@PJL COMMENT " + std::string(5'000'000, 'x') + "\n@PJL SET PAPER=A4\n";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(lines.end, s.size());
    EXPECT_EQ(pjl.current().paper, "A4");
}

TEST(Pjl, CarriageReturnAloneEndsALine) {
    PjlState pjl;
    const std::string s = "@PJL SET PAPER=A4\r@PJL ENTER LANGUAGE=PCLXL\r) HP-PCL XL;2;0\n";
    const auto lines = parse(pjl, s);
    EXPECT_EQ(pjl.current().paper, "A4");
    EXPECT_EQ(lines.language, "PCLXL");
    EXPECT_EQ(lines.end, s.find(')'));
}
