#include "fonts/font_library.h"

#include <gtest/gtest.h>

#include <iconv.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

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
    EXPECT_EQ(parseSymbolSet("ISOL9"), symbolSetId(9, 'N'));
    EXPECT_EQ(parseSymbolSet("PC8TK"), symbolSetId(9, 'T'));
    EXPECT_EQ(parseSymbolSet("PC775"), symbolSetId(26, 'U'));
    EXPECT_EQ(parseSymbolSet("WINBALT"), symbolSetId(19, 'L'));
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
    EXPECT_EQ(symbolSetToUnicode(symsets::Roman8, 0xF6), U'\u2212'); // the dash producers print minus signs with
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
    // Codes the Symbol font's layout leaves empty print nothing; the others pass through.
    const uint16_t psMath = symbolSetId(5, 'M');
    for (int code = 0; code < 256; ++code) {
        const bool filled = code == 0x60 || symbolSetToUnicode(psMath, code) != 0;
        EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, code), filled ? static_cast<char32_t>(code) : 0U) << code;
    }
    EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, 0x80), 0U);
    EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, 0xF0), 0U);
    EXPECT_EQ(symbolSetToUnicode(symsets::Symbol, 0xE6), 0xE6U);
    EXPECT_TRUE(symbolSetKnown(symsets::Wingdings));
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x21), U'\u270F'); // pencil
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x22), U'\u2702'); // scissors
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x41), U'\u270C'); // victory hand
}

namespace {

// The character of one byte in a code page, by the C library's converter; 0 when it has none.
char32_t fromCodePage(const char* codePage, int code) {
    iconv_t cd = iconv_open("UTF-32LE", codePage);
    if (cd == reinterpret_cast<iconv_t>(-1))
        return 0xFFFFFFFF;
    char in[1] = {static_cast<char>(code)};
    char out[8] = {};
    char* ip = in;
    char* op = out;
    size_t il = 1, ol = sizeof out;
    const size_t r = iconv(cd, &ip, &il, &op, &ol);
    iconv_close(cd);
    if (r == static_cast<size_t>(-1) || ol != 4)
        return 0;
    return static_cast<char32_t>(static_cast<uint8_t>(out[0]) | static_cast<uint8_t>(out[1]) << 8 |
                                 static_cast<uint8_t>(out[2]) << 16 | static_cast<uint8_t>(out[3]) << 24);
}

} // namespace

TEST(SymbolSets, EveryPrintableCodeMatchesThePublishedCodePage) {
    // Sets that are a code page: every code from 32 up prints the code page's character, except
    // where the code page has a control (C1) or a vendor's private character, which print nothing.
    struct Pair {
        uint16_t set;
        const char* codePage;
    };
    const Pair pairs[] = {
        {symbolSetId(8, 'U'), "HP-ROMAN8"}, {symbolSetId(10, 'U'), "CP437"},    {symbolSetId(12, 'U'), "CP850"},
        {symbolSetId(17, 'U'), "CP852"},    {symbolSetId(0, 'N'), "ISO-8859-1"}, {symbolSetId(2, 'N'), "ISO-8859-2"},
        {symbolSetId(5, 'N'), "ISO-8859-9"}, {symbolSetId(19, 'U'), "CP1252"},  {symbolSetId(9, 'E'), "CP1250"},
        {symbolSetId(5, 'T'), "CP1254"},     {symbolSetId(0, 'U'), "ASCII"},   {symbolSetId(12, 'J'), "MACINTOSH"},
        {symbolSetId(9, 'N'), "ISO-8859-15"}, {symbolSetId(4, 'N'), "ISO-8859-4"}, {symbolSetId(6, 'N'), "ISO-8859-10"},
        {symbolSetId(9, 'T'), "CP857"},      {symbolSetId(26, 'U'), "CP775"},  {symbolSetId(19, 'L'), "CP1257"},
    };
    for (const Pair& p : pairs) {
        ASSERT_NE(fromCodePage(p.codePage, 'A'), 0xFFFFFFFFu) << p.codePage;
        for (int code = 0x20; code < 256; ++code) {
            char32_t want = fromCodePage(p.codePage, code);
            if ((want >= 0x7F && want < 0xA0) || (want >= 0xE000 && want <= 0xF8FF))
                want = 0;
            if (p.set == symbolSetId(10, 'U') || p.set == symbolSetId(12, 'U') || p.set == symbolSetId(17, 'U') ||
                p.set == symbolSetId(9, 'T') || p.set == symbolSetId(26, 'U'))
                if (code == 0x7F)
                    want = U'\u2302'; // the PC sets print a house at 127
            if (p.set == symsets::Roman8 && code == 0x27)
                want = U'\u2019'; // HP's Roman-8 table: the right single quotation mark (MSL 8)
            if (p.set == symsets::Roman8 && code == 0xF6)
                want = U'\u2212'; // the minus-wide dash of LaserJet fonts, drawn as the minus sign
            if (p.set == symbolSetId(12, 'J') && code == 0xC6 && want == U'\u0394')
                want = U'\u2206'; // the C library keeps the Macintosh table's old Delta for the increment
            EXPECT_EQ(symbolSetToUnicode(p.set, code), want) << symbolSetName(p.set) << " code " << code;
        }
    }
}

TEST(SymbolSets, WindowsThreeAndPc8DanishNorwegianDifferWhereHpsTablesSay) {
    // Windows 3.0 Latin 1 has only the two single quotation marks between 128 and 159.
    for (int code = 0x80; code < 0xA0; ++code) {
        const char32_t u = symbolSetToUnicode(symsets::Win30Latin1, code);
        if (code == 0x91)
            EXPECT_EQ(u, U'\u2018');
        else if (code == 0x92)
            EXPECT_EQ(u, U'\u2019');
        else
            EXPECT_EQ(u, 0U) << code;
    }
    for (int code = 0xA0; code < 256; ++code)
        EXPECT_EQ(symbolSetToUnicode(symsets::Win30Latin1, code), fromCodePage("ISO-8859-1", code)) << code;
    // PC-8 D/N is the Nordic PC code page with L-middle-dot and n-apostrophe.
    const uint16_t dn = symbolSetId(11, 'U');
    for (int code = 0x20; code < 0x7F; ++code)
        EXPECT_EQ(symbolSetToUnicode(dn, code), static_cast<char32_t>(code));
    EXPECT_EQ(symbolSetToUnicode(dn, 0x9B), U'\u00F8');
    EXPECT_EQ(symbolSetToUnicode(dn, 0x9D), U'\u00D8');
    EXPECT_EQ(symbolSetToUnicode(dn, 0x9E), U'\u013F');
    EXPECT_EQ(symbolSetToUnicode(dn, 0x9F), U'\u0140');
    EXPECT_EQ(symbolSetToUnicode(dn, 0xAC), U'\u0149');
}

TEST(SymbolSets, PostScriptSetsFollowAdobesEncodings) {
    struct Code {
        uint16_t set;
        int code;
        char32_t want;
    };
    const uint16_t psText = symbolSetId(10, 'J'), psMath = symbolSetId(5, 'M');
    // The characters of Adobe's glyph names (quoteright, quoteleft, fi, emdash, AE; universal,
    // minus, alpha, infinity, integral) and, for the Symbol font's pieces that the glyph list
    // leaves private, the characters made for them (registerserif, trademarksans, arrowvertex,
    // parenlefttp, braceleftmid, integralex, bracerightbt); the radical extender and the Apple
    // logo have none.
    const Code codes[] = {
        {psText, 0x27, U'\u2019'}, {psText, 0x60, U'\u2018'}, {psText, 0xAE, U'\uFB01'}, {psText, 0xD0, U'\u2014'},
        {psText, 0xE1, U'\u00C6'}, {psText, 0xA0, 0},         {psMath, 0x22, U'\u2200'}, {psMath, 0x2D, U'\u2212'},
        {psMath, 0x61, U'\u03B1'}, {psMath, 0xA5, U'\u221E'}, {psMath, 0xF2, U'\u222B'}, {psMath, 0xD2, U'\u00AE'},
        {psMath, 0xE4, U'\u2122'}, {psMath, 0xBD, U'\u23D0'}, {psMath, 0xE6, U'\u239B'}, {psMath, 0xED, U'\u23A8'},
        {psMath, 0xF4, U'\u23AE'}, {psMath, 0xFE, U'\u23AD'}, {psMath, 0x60, 0},         {psMath, 0xF0, 0},
        {psMath, 0xFF, 0}};
    for (const Code& c : codes)
        EXPECT_EQ(symbolSetToUnicode(c.set, c.code), c.want) << symbolSetName(c.set) << " code " << c.code;
}

namespace {

// The 256 characters of one of Ghostscript's encodings, through its Adobe Glyph List (0 for a
// code without a glyph or a glyph without a character); empty when Ghostscript does not run.
std::vector<char32_t> ghostscriptEncoding(const std::string& encoding) {
    const std::string cmd = "gs -q -dNODISPLAY -dNOSAFER -c '/" + encoding +
                            " findencoding 0 1 255 { 1 index exch get dup AdobeGlyphList exch known "
                            "{ AdobeGlyphList exch get } { pop 0 } ifelse = } for pop quit' 2>/dev/null";
    std::vector<char32_t> out;
    FILE* f = popen(cmd.c_str(), "r");
    if (!f)
        return out;
    unsigned long u = 0;
    while (out.size() < 256 && std::fscanf(f, "%lu", &u) == 1)
        out.push_back(static_cast<char32_t>(u));
    pclose(f);
    return out;
}

bool privateUse(char32_t u) { return u >= 0xE000 && u <= 0xF8FF; }

} // namespace

TEST(SymbolSets, EveryCodeOfThePostScriptSetsIsAdobesGlyph) {
    // Every code of PS Text and PS Math against Adobe's StandardEncoding and Symbol encoding as
    // Ghostscript carries them. The Symbol font's private-use pieces print the bracket, brace,
    // integral and arrow pieces or the registered, copyright and trademark signs Unicode has,
    // except the radical extender and the Apple logo, which print nothing.
    const std::vector<char32_t> standard = ghostscriptEncoding("StandardEncoding");
    const std::vector<char32_t> symbol = ghostscriptEncoding("SymbolEncoding");
    ASSERT_EQ(standard.size(), 256u);
    ASSERT_EQ(symbol.size(), 256u);
    const uint16_t psText = symbolSetId(10, 'J'), psMath = symbolSetId(5, 'M');
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(symbolSetToUnicode(psText, code), privateUse(standard[code]) ? 0 : standard[code]) << code;
        const char32_t got = symbolSetToUnicode(psMath, code);
        if (!privateUse(symbol[code])) {
            EXPECT_EQ(got, symbol[code]) << code;
            continue;
        }
        const bool piece = (got >= 0x239B && got <= 0x23AE) || got == 0x23AF || got == 0x23D0 || got == 0xAE ||
                           got == 0xA9 || got == 0x2122;
        if (code == 0x60 || code == 0xF0)
            EXPECT_EQ(got, 0U) << code;
        else
            EXPECT_TRUE(piece) << code << " prints U+" << std::hex << static_cast<unsigned>(got);
    }
}

TEST(SymbolSets, GroffsLaserJetCharactersAreWhereHpPutsThem) {
    // Codes that groff's LaserJet driver sends, with the characters HP's metrics give them.
    const uint16_t desktop = symbolSetId(7, 'J'), math8 = symbolSetId(8, 'M');
    EXPECT_EQ(symbolSetToUnicode(desktop, 0xC0), U'\u2212'); // minus
    EXPECT_EQ(symbolSetToUnicode(desktop, 0xAD), U'\uFB01'); // fi
    EXPECT_EQ(symbolSetToUnicode(desktop, 0xAE), U'\uFB02'); // fl
    EXPECT_EQ(symbolSetToUnicode(desktop, 'A'), U'A');
    EXPECT_EQ(symbolSetToUnicode(math8, 0x2D), U'\u2212');
    EXPECT_EQ(symbolSetToUnicode(math8, ' '), U' ');
    // A code the set leaves empty prints nothing rather than Roman-8's letter.
    EXPECT_EQ(symbolSetToUnicode(desktop, 0xA0), 0U);
    EXPECT_TRUE(symbolSetKnown(desktop));
    EXPECT_TRUE(symbolSetKnown(math8));
}

TEST(SymbolSets, EveryWingdingsCodeIsTheFontsSymbolAsHpOrUnicodeNamesIt) {
    // HP's LaserJet metrics give these codes the nearest character that Unicode had before it
    // encoded the Wingdings symbols; every other code takes the character Unicode 7.0 gave the
    // font's symbol (the Om at 0x5C too, whose Devanagari letter no symbol face draws). 0xFF (the
    // Windows logo) and the control codes have no character.
    const std::map<int, char32_t> hp = {
        {0x21, 0x270F}, {0x28, 0x260E}, {0x2A, 0x2709}, {0x37, 0x2328}, {0x4E, 0x2620},
        {0x6A, 0x0026}, {0x6B, 0x0026}, {0x6C, 0x25CF}, {0x6D, 0x274D}, {0x6E, 0x25A0}, {0x6F, 0x25A1},
        {0x74, 0x2666}, {0x79, 0x2353}, {0x7B, 0x2740}, {0x7C, 0x273F}, {0x7D, 0x275D}, {0x7E, 0x275E},
        {0x80, 0x24EA}, {0x81, 0x2460}, {0x82, 0x2461}, {0x83, 0x2462}, {0x84, 0x2463}, {0x85, 0x2464},
        {0x86, 0x2465}, {0x87, 0x2466}, {0x88, 0x2467}, {0x89, 0x2468}, {0x8A, 0x2469}, {0x8B, 0x24FF},
        {0x8C, 0x2776}, {0x8D, 0x2777}, {0x8E, 0x2778}, {0x8F, 0x2779}, {0x90, 0x277A}, {0x91, 0x277B},
        {0x92, 0x277C}, {0x93, 0x277D}, {0x94, 0x277E}, {0x95, 0x277F}, {0x9E, 0x00B7}, {0xA0, 0x25AA},
        {0xA1, 0x25CB}, {0xA4, 0x25C9}, {0xA5, 0x25CE}, {0xA8, 0x25FB}, {0xAA, 0x2726}, {0xAC, 0x2736},
        {0xAD, 0x2734}, {0xAE, 0x2739}, {0xAF, 0x2735}, {0xB2, 0x2727}, {0xB3, 0x2311}, {0xD8, 0x27A2},
        {0xDC, 0x27B2}, {0xE8, 0x2794}, {0xF5, 0x2B00}, {0xF6, 0x2B01}, {0xF9, 0x25AD}, {0xFA, 0x25AB},
        {0xFB, 0x2717}, {0xFD, 0x2612}, {0xFE, 0x2611}};
    std::map<int, char32_t> unicode;
    std::ifstream in(QX_WINGDINGS_TABLE);
    ASSERT_TRUE(in.good()) << QX_WINGDINGS_TABLE;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        unsigned code = 0, u = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%x %x", &code, &u), 2) << line;
        unicode[static_cast<int>(code)] = u;
    }
    ASSERT_EQ(unicode.size(), 223u);
    for (int code = 0; code < 256; ++code) {
        char32_t want = 0;
        if (auto h = hp.find(code); h != hp.end())
            want = h->second;
        else if (auto u = unicode.find(code); u != unicode.end())
            want = u->second;
        EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, code), want) << "code " << code;
    }
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0x22), U'\u2702'); // scissors
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0xB7), U'\U0001F550'); // clock face one o'clock
    EXPECT_EQ(symbolSetToUnicode(symsets::Wingdings, 0xFF), 0U);
}
