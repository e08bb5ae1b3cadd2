// PCL 5 text through the symbol sets: every code of every set the engine knows is printed on a
// recording device, and what lands there is compared with the same character reached through
// another set, or with nothing at all where the set has no character.

#include "pcl5/pcl5.h"

#include "common/diagnostics.h"
#include "fonts/font_library.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <map>
#include <string>
#include <vector>

using namespace qx;

namespace {

const FontLibrary& fonts() {
    static FontLibrary lib({std::string(QX_STAGE_DIR) + "/fonts"}, false);
    return lib;
}

// The recording device's calls of one kind ("mask", "fill") for a job.
std::vector<std::string> callsOf(const std::string& job, const std::string& kind) {
    RecordingDevice dev;
    Diagnostics diag("test", false);
    JobContext ctx{dev, diag, &fonts(), {}};
    pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
    std::vector<std::string> out;
    for (const std::string& c : dev.calls())
        if (c.rfind(kind, 0) == 0)
            out.push_back(c);
    return out;
}

std::vector<std::string> masksOf(const std::string& job) { return callsOf(job, "mask"); }

const std::string ESC = "\x1b";

std::string setName(uint16_t id) { return symbolSetName(id); }

// One code of one set in CG Times 12 point, sent as transparent print data so that control
// codes print too, followed by an I from ISO Latin 1. The result names the glyph drawn for the
// code (size and ink, without its place) and where the I lands, which shows the code's advance.
struct Printed {
    std::string glyph; // empty when nothing was drawn
    std::string next;  // the I's mask with its place
    bool operator==(const Printed&) const = default;
};

void PrintTo(const Printed& p, std::ostream* os) { *os << "{" << p.glyph << " | " << p.next << "}"; }

bool anyFaceHas(char32_t u) {
    for (int i = 0; i < fonts().count(); ++i)
        if (fonts().hasGlyph(i, u))
            return true;
    return false;
}

Printed printCode(uint16_t set, int code) {
    const std::string job = ESC + "E" + ESC + "(" + setName(set) + ESC + "(s1p12v0s0b4101T" + ESC + "*p300x300Y" +
                            ESC + "&p1X" + std::string(1, static_cast<char>(code)) + ESC + "(0N" + "I";
    std::vector<std::string> m = masksOf(job);
    Printed p;
    if (m.empty())
        return p;
    p.next = m.back();
    if (m.size() == 2)
        p.glyph = m.front().substr(0, m.front().find(" ["));
    return p;
}

// The sets whose characters come from the text faces (Symbol and Wingdings select faces of
// their own and are checked apart).
const std::vector<uint16_t>& textSets() {
    static const std::vector<uint16_t> sets = {
        symbolSetId(8, 'U'),  symbolSetId(10, 'U'), symbolSetId(11, 'U'), symbolSetId(12, 'U'),
        symbolSetId(17, 'U'), symbolSetId(0, 'N'),  symbolSetId(2, 'N'),  symbolSetId(5, 'N'),
        symbolSetId(19, 'U'), symbolSetId(9, 'U'),  symbolSetId(9, 'E'),  symbolSetId(5, 'T'),
        symbolSetId(0, 'U'),  symbolSetId(12, 'J'), symbolSetId(10, 'J'), symbolSetId(5, 'M'),
        symbolSetId(7, 'J'),  symbolSetId(8, 'M'),  symbolSetId(6, 'J'),  symbolSetId(15, 'U'),
        symbolSetId(13, 'J'), symbolSetId(9, 'N'),  symbolSetId(4, 'N'),  symbolSetId(6, 'N'),
        symbolSetId(9, 'T'),  symbolSetId(26, 'U'), symbolSetId(19, 'L')};
    return sets;
}

} // namespace

TEST(Pcl5SymbolSets, GroffMinusSignsAndLigaturesPrintAsThemselves) {
    // groff's LaserJet driver prints the minus sign as Desktop 0xC0 and the fi ligature as
    // Desktop 0xAD. They must be the minus of Math-8 and the fi of PS Text and MC Text, not
    // Roman-8's a-circumflex and U-grave.
    const uint16_t desktop = symbolSetId(7, 'J');
    const Printed minus = printCode(desktop, 0xC0);
    ASSERT_FALSE(minus.glyph.empty());
    EXPECT_EQ(minus, printCode(symbolSetId(8, 'M'), 0x2D));
    EXPECT_NE(minus.glyph, printCode(symsets::Roman8, 0xC0).glyph);

    const Printed fi = printCode(desktop, 0xAD);
    ASSERT_FALSE(fi.glyph.empty());
    EXPECT_EQ(fi, printCode(symbolSetId(10, 'J'), 0xAE));
    EXPECT_EQ(fi, printCode(symbolSetId(12, 'J'), 0xDE));
    EXPECT_NE(fi.glyph, printCode(symsets::Roman8, 0xAD).glyph);
}

TEST(Pcl5SymbolSets, RomanEightDashPrintsTheMinusSign) {
    // plotutils' PCL driver prints every minus sign as Roman-8 code 246. It must come out as the
    // minus sign that Math-8 prints at 0x2D and the plot's PostScript shows, not as the em dash
    // of Windows 3.1 Latin 1 code 151, whose ink runs the whole advance.
    const Printed dash = printCode(symsets::Roman8, 0xF6);
    ASSERT_FALSE(dash.glyph.empty());
    EXPECT_EQ(dash, printCode(symbolSetId(8, 'M'), 0x2D));
    EXPECT_NE(dash.glyph, printCode(symsets::Win31Latin1, 0x97).glyph);
}

TEST(Pcl5SymbolSets, PlotutilsLabelMinusSignsPrintAsMinusSigns) {
    // plotutils writes "-6" on an axis as an HP-GL/2 label in Univers, Roman-8, with the minus
    // as code 246. That code draws Math-8's minus, not Windows 3.1 Latin 1's em dash.
    auto labelGlyph = [](int symbolSet, char code) {
        const std::string job = ESC + "E" + ESC + "%0BIN;SP1;SD1," + std::to_string(symbolSet) +
                                ",2,1,4,14,5,0,6,0,7,4148;PA2000,2000;LB" + std::string(1, code) + "\x03;" +
                                ESC + "%0A" + ESC + "E";
        const std::vector<std::string> m = masksOf(job);
        return m.size() == 1 ? m.front().substr(0, m.front().find(" [")) : std::string();
    };
    const std::string minus = labelGlyph(symsets::Roman8, '\xF6');
    ASSERT_FALSE(minus.empty());
    EXPECT_EQ(minus, labelGlyph(symbolSetId(8, 'M'), '-'));
    const std::string emDash = labelGlyph(symsets::Win31Latin1, '\x97');
    ASSERT_FALSE(emDash.empty());
    EXPECT_NE(minus, emDash);
}

TEST(Pcl5SymbolSets, EveryCodeOfEverySetPrintsItsCharacterOrNothing) {
    // Where each character can be reached: the first set and code that map to it.
    std::map<char32_t, std::pair<uint16_t, int>> first;
    for (uint16_t set : textSets())
        for (int code = 0; code < 256; ++code)
            if (char32_t u = symbolSetToUnicode(set, code))
                first.emplace(u, std::make_pair(set, code));
    const Printed nothing = printCode(symsets::Ascii, 0x80); // no character: the I alone, unmoved
    ASSERT_TRUE(nothing.glyph.empty());
    ASSERT_FALSE(nothing.next.empty());

    int compared = 0, blank = 0;
    for (uint16_t set : textSets()) {
        ASSERT_TRUE(symbolSetKnown(set)) << setName(set);
        for (int code = 0; code < 256; ++code) {
            const char32_t u = symbolSetToUnicode(set, code);
            const Printed got = printCode(set, code);
            if (u == 0) {
                EXPECT_EQ(got, nothing) << setName(set) << " code " << code << " has no character";
                ++blank;
                continue;
            }
            const auto [otherSet, otherCode] = first.at(u);
            if (otherSet == set && otherCode == code) {
                // The first place of this character: it draws something unless it is a space.
                if (u != U' ' && u != 0xA0 && u != 0x2002 && u != 0x2003 && u != 0x2009 && anyFaceHas(u)) {
                    EXPECT_FALSE(got.glyph.empty()) << setName(set) << " code " << code;
                }
                continue;
            }
            EXPECT_EQ(got, printCode(otherSet, otherCode))
                << setName(set) << " code " << code << " against " << setName(otherSet) << " code " << otherCode;
            ++compared;
        }
    }
    EXPECT_GT(compared, 3000);
    EXPECT_GT(blank, 1000);
}

TEST(Pcl5SymbolSets, LinePrinterPrintsEveryCharacterOfItsSets) {
    // The Line Printer font (typeface 0, 16.67 pitch, 8.5 point) with each Latin set it carries:
    // every code with a character draws it, every code without one draws nothing and does not move.
    const uint16_t sets[] = {symbolSetId(0, 'N'),  symbolSetId(0, 'U'),  symbolSetId(2, 'N'),  symbolSetId(4, 'N'),
                             symbolSetId(5, 'N'),  symbolSetId(6, 'N'),  symbolSetId(8, 'U'),  symbolSetId(9, 'E'),
                             symbolSetId(9, 'N'),  symbolSetId(9, 'T'),  symbolSetId(10, 'U'), symbolSetId(11, 'U'),
                             symbolSetId(12, 'U'), symbolSetId(17, 'U'), symbolSetId(19, 'L'), symbolSetId(19, 'U'),
                             symbolSetId(26, 'U')};
    const std::string font = ESC + "(s0p16.67h8.5v0s0b0T";
    int drawn = 0;
    for (uint16_t set : sets) {
        ASSERT_TRUE(symbolSetKnown(set)) << setName(set);
        for (int code = 0; code < 256; ++code) {
            const char32_t u = symbolSetToUnicode(set, code);
            if (u == 0xA0)
                continue; // the no-break space: a glyph without ink
            const std::vector<std::string> m = masksOf(ESC + "E" + ESC + "(" + setName(set) + font + ESC + "*p300x300Y" +
                                                       ESC + "&p1X" + std::string(1, static_cast<char>(code)) + "|");
            // Each code is followed by a bar: with a character the code draws one glyph before it.
            const size_t want = (u == 0 || u == U' ') ? 1 : 2;
            EXPECT_EQ(m.size(), want) << setName(set) << " code " << code;
            drawn += m.size() == 2 ? 1 : 0;
        }
    }
    EXPECT_GT(drawn, 3000);
}

TEST(Pcl5SymbolSets, SymbolPrintsTheSymbolFontsGlyphsAndNothingElse) {
    // Symbol (19M) in the Symbol typeface: every code the Symbol font fills draws one glyph of
    // its own (the face that stands in for the Symbol font), the empty ones draw nothing.
    const std::string face = ESC + "(19M" + ESC + "(s1p12v0s0b16686T";
    int drawn = 0;
    for (int code = 0; code < 256; ++code) {
        const std::vector<std::string> m = masksOf(face + ESC + "&p1X" + std::string(1, static_cast<char>(code)));
        const char32_t u = symbolSetToUnicode(symsets::Symbol, code);
        EXPECT_EQ(m.size(), u == 0 || u == U' ' ? 0u : 1u) << "code " << code;
        drawn += static_cast<int>(m.size());
    }
    EXPECT_EQ(drawn, 188); // PS Math's 188 characters and the radical extender, less the space
}

TEST(Pcl5SymbolSets, WingdingsPrintsItsSymbolsAndNothingForCodesItLacks) {
    const uint16_t wing = symsets::Wingdings;
    const std::string face = ESC + "(579L" + ESC + "(s1p12v0s0b31402T";
    int symbols = 0;
    for (int code = 0; code < 256; ++code) {
        std::vector<std::string> m = masksOf(face + ESC + "&p1X" + std::string(1, static_cast<char>(code)));
        const char32_t u = symbolSetToUnicode(wing, code);
        if (u == 0 || u == U' ') {
            EXPECT_TRUE(m.empty()) << "code " << code;
            continue;
        }
        // Every symbol of the set is drawn, by the face that stands in for Wingdings itself.
        EXPECT_EQ(m.size(), 1u) << "code " << code;
        EXPECT_TRUE(fonts().hasGlyph(fonts().selectByName("Wingdings"), u)) << "code " << code;
        ++symbols;
    }
    EXPECT_EQ(symbols, 222);
    // The scissors (0x22) are not Zapf Dingbats' first symbol nor a quotation mark.
    std::vector<std::string> scissors = masksOf(face + "\"");
    ASSERT_EQ(scissors.size(), 1u);
    std::vector<std::string> quote = masksOf(ESC + "(s1p12v0s0b4101T\"");
    ASSERT_EQ(quote.size(), 1u);
    EXPECT_NE(scissors[0].substr(0, scissors[0].find(" [")), quote[0].substr(0, quote[0].find(" [")));
}

namespace {

// The top edge of an underline rule "fill ... M x0,y0 L ..." in points.
double ruleTop(const std::string& fill) {
    double x = 0, y = 0;
    const size_t m = fill.find(" M");
    if (m != std::string::npos)
        std::sscanf(fill.c_str() + m + 2, "%lf,%lf", &x, &y);
    return y;
}

} // namespace

TEST(Pcl5SymbolSets, TextInASetWithoutATableSaysSoOnce) {
    auto warningsOf = [](const std::string& job) {
        RecordingDevice dev;
        Diagnostics diag("test", false);
        JobContext ctx{dev, diag, &fonts(), {}};
        pcl5::run(reinterpret_cast<const uint8_t*>(job.data()), job.size(), ctx);
        return diag.lines();
    };
    // Legal (1U): printed through Roman-8, once said; selecting it without printing says nothing.
    const auto legal = warningsOf(ESC + "E" + ESC + "(1UAbc def" + ESC + "(8Ughi" + ESC + "(1Ujkl" + ESC + "E");
    ASSERT_EQ(legal.size(), 1u);
    EXPECT_NE(legal[0].find("symbol set 1U is not available"), std::string::npos) << legal[0];
    EXPECT_TRUE(warningsOf(ESC + "E" + ESC + "(1U" + ESC + "(8UAbc" + ESC + "E").empty());
    EXPECT_TRUE(warningsOf(ESC + "E" + ESC + "(19UAbc" + ESC + "(10UAbc" + ESC + "E").empty());
}

TEST(Pcl5Underline, FixedSitsFiveDotsDownAndFloatingFollowsTheFont) {
    // Baseline 300 dots (72 pt) below the top margin, which is half an inch down. The fixed underline starts 5 dots below it whatever the
    // font; the floating one where a 48 point CG Times puts its underline, further down.
    const std::string big = ESC + "(s1p48v0s0b4101T" + ESC + "*p300x300Y";
    std::vector<std::string> fixed = callsOf(big + ESC + "&d0D" + "Text" + ESC + "&d@", "fill");
    std::vector<std::string> floating = callsOf(big + ESC + "&d3D" + "Text" + ESC + "&d@", "fill");
    ASSERT_EQ(fixed.size(), 1u);
    ASSERT_EQ(floating.size(), 1u);
    EXPECT_NEAR(ruleTop(fixed[0]), 36 + 72 + 5 * 0.24, 0.02);
    const FontMetrics m = fonts().metrics(fonts().selectPcl(FontRequest{symsets::Roman8, true, 10, 48, 0, 0, 4101}));
    EXPECT_NEAR(ruleTop(floating[0]), 36 + 72 + (m.underlinePosition + m.underlineThickness / 2) * 48 - 1.5 * 0.24, 0.05);
    EXPECT_GT(ruleTop(floating[0]), ruleTop(fixed[0]) + 2);
}

TEST(Pcl5DisplayFunctions, EscapeSequencesPrintUntilEscZ) {
    // In display functions mode a font change prints as its characters (ESC, '(', 's', '3', 'B'
    // in the Line Printer's PC-8 graphics) and does not act; ESC Z prints too and ends the mode,
    // after which the same sequence makes the text bold.
    const std::string pc8 = ESC + "(10U" + ESC + "(s0p10h0s0b4099T";
    std::vector<std::string> shown = masksOf(pc8 + ESC + "Y" + ESC + "(s3BA" + ESC + "Z" + "A");
    std::vector<std::string> plain = masksOf(pc8 + "A");
    std::vector<std::string> acting = masksOf(pc8 + ESC + "(s3BA");
    // ESC ( s 3 B A ESC Z A: ESC and the letters print; the A after the mode is Courier's.
    ASSERT_EQ(shown.size(), 9u);
    const auto glyph = [](const std::string& m) { return m.substr(0, m.find(" [")); };
    EXPECT_EQ(glyph(shown[5]), glyph(plain[0]));  // the A inside the mode: not bold
    EXPECT_EQ(glyph(shown[8]), glyph(plain[0]));  // the A after it: the font was never changed
    EXPECT_NE(glyph(acting[0]), glyph(plain[0])); // outside the mode the sequence makes it bold
}
