#include "fonts/font_library.h"

#include <gtest/gtest.h>

using namespace qx;

TEST(SymbolSets, IdentifiersFollowNumberAndLetter) {
    EXPECT_EQ(symbolSetId(8, 'U'), 277);
    EXPECT_EQ(symbolSetId(0, 'N'), 14);
    EXPECT_EQ(symbolSetId(10, 'U'), 341);
    EXPECT_EQ(symbolSetId(19, 'U'), 629);
    EXPECT_EQ(symbolSetName(277), "8U");
    EXPECT_EQ(symbolSetName(symbolSetId(19, 'U')), "19U");
}

TEST(SymbolSets, ParsesPclAndPjlNames) {
    EXPECT_EQ(parseSymbolSet("8U"), symsets::Roman8);
    EXPECT_EQ(parseSymbolSet("10u"), symsets::PC8);
    EXPECT_EQ(parseSymbolSet("ROMAN8"), symsets::Roman8);
    EXPECT_EQ(parseSymbolSet("pc8"), symsets::PC8);
    EXPECT_EQ(parseSymbolSet("ISOL1"), symsets::Latin1);
    EXPECT_EQ(parseSymbolSet("WINL1"), symsets::Win31Latin1);
    EXPECT_EQ(parseSymbolSet("WIN30"), symsets::Win30Latin1);
    EXPECT_EQ(parseSymbolSet(" 0N "), symsets::Latin1);
    EXPECT_FALSE(parseSymbolSet("").has_value());
    EXPECT_FALSE(parseSymbolSet("NOSUCHSET").has_value());
    EXPECT_FALSE(parseSymbolSet("99999U").has_value());
}

TEST(SymbolSets, Roman8) {
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 'A'), U'A');
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xA1), U'\u00C0'); // A grave
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xAF), U'\u20A4'); // lira
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xC5), U'\u00E9'); // e acute
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xDE), U'\u00DF'); // sharp s
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xFC), U'\u25A0'); // black square
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0x05), 0U);
}

TEST(SymbolSets, Pc8HasLineDrawingAndLowGraphics) {
    EXPECT_EQ(symbolSetToUnicode(symsets::PC8, 0x82), U'\u00E9');
    EXPECT_EQ(symbolSetToUnicode(symsets::PC8, 0xC4), U'\u2500');
    EXPECT_EQ(symbolSetToUnicode(symsets::PC8, 0xDB), U'\u2588');
    EXPECT_EQ(symbolSetToUnicode(symsets::PC8, 0x01), U'\u263A');
    EXPECT_EQ(symbolSetToUnicode(symsets::PC8, 0xE1), U'\u00DF');
}

TEST(SymbolSets, LatinAndWindows) {
    EXPECT_EQ(symbolSetToUnicode(symsets::Latin1, 0xE9), U'\u00E9');
    EXPECT_EQ(symbolSetToUnicode(symsets::Latin1, 0x80), 0U);
    EXPECT_EQ(symbolSetToUnicode(symsets::Win31Latin1, 0x80), U'\u20AC');
    EXPECT_EQ(symbolSetToUnicode(symsets::Win31Latin1, 0x93), U'\u201C');
    EXPECT_EQ(symbolSetToUnicode(symsets::Ascii, 0xE9), 0U);
    EXPECT_EQ(symbolSetToUnicode(symsets::Ascii, 'z'), U'z');
}

TEST(SymbolSets, UnknownSetsReadAsRoman8AndUnicodePassesThrough) {
    EXPECT_FALSE(symbolSetKnown(symbolSetId(31, 'Q')));
    EXPECT_EQ(symbolSetToUnicode(symbolSetId(31, 'Q'), 0xC5), U'\u00E9');
    EXPECT_EQ(symbolSetToUnicode(symsets::Unicode, 0x20AC), U'\u20AC');
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 300), 0U);
}

TEST(SymbolSets, SymbolFaceUsesItsOwnCodesAndWingdingsPrintsThroughUnicode) {
    EXPECT_TRUE(symbolSetKnown(symsets::Symbol));
    EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, 'a'), U'a');
    EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, 0x10), 0U);
    EXPECT_TRUE(symbolSetKnown(symsets::Wingdings));
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x21), U'\u270F'); // pencil
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x22), U'\u2702'); // scissors
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x41), U'\u270C'); // victory hand
}
