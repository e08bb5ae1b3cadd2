// The EMF spool container reader and the EMF record player, on metafiles built record by
// record (emf_writer.h), drawn into the recording device.

#include "emf_writer.h"

#include "common/diagnostics.h"
#include "common/job.h"
#include "emf/dib.h"
#include "emf/emf.h"
#include "emf/spool.h"
#include "fonts/font_library.h"
#include "input/recognise.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>

namespace qx::emf {
namespace {

using test::Buffer;
using test::EmfWriter;

const std::string kStageFonts = std::string(QX_STAGE_DIR) + "/fonts";

struct Played {
    RecordingDevice device;
    Diagnostics diag{"test", false};
    std::string calls;
    size_t used = 0;

    explicit Played(const Buffer& data, const FontLibrary* fonts = nullptr) {
        JobContext ctx{device, diag, fonts, {}};
        used = run(data.data(), data.size(), ctx);
        calls = device.joined();
    }
    size_t count(const std::string& prefix) const {
        size_t n = 0;
        for (const std::string& c : device.calls())
            n += c.rfind(prefix, 0) == 0;
        return n;
    }
    bool warned(const std::string& part) const {
        return std::any_of(diag.lines().begin(), diag.lines().end(),
                           [&](const std::string& l) { return l.find(part) != std::string::npos; });
    }
};

// EMR types used below.
enum : uint32_t {
    POLYGON16 = 86, RECTANGLE = 43, ELLIPSE = 42, SAVEDC = 33, RESTOREDC = 34, SELECTOBJECT = 37,
    CREATEBRUSH = 39, CREATEPEN = 38, INTERSECTCLIP = 30, SETWORLD = 35, SETMAPMODE = 17,
    SETWINDOWEXT = 9, SETVIEWPORTEXT = 11, STRETCHDIBITS = 81, BEGINPATH = 59, ENDPATH = 60,
    FILLPATH = 62, SELECTCLIPPATH = 67, MOVETO = 27, LINETO = 54, SETROP2 = 20, EXTSELECTCLIPRGN = 75,
};

int32_t f32bits(float f) {
    int32_t v;
    std::memcpy(&v, &f, 4);
    return v;
}

// The body of an EMR_STRETCHDIBITS record (after type and size) with a 24-bit w x h
// BITMAPINFOHEADER at offset 80 and the pixels to follow at offset 120 (16 bytes declared).
Buffer stretchDibits(int x, int y, int w, int h, int cx, int cy) {
    Buffer rec;
    for (int v : {0, 0, 0, 0, x, y, /*xSrc*/ 0, 0, w, h, /*offBmi*/ 80, 40, /*offBits*/ 120, 16, /*usage*/ 0,
                  /*rop*/ 0x00CC0020, cx, cy})
        test::put32(rec, uint32_t(v));
    for (int v : {40, w, h})
        test::put32(rec, uint32_t(v));
    test::put16(rec, 1);
    test::put16(rec, 24);
    for (int i = 0; i < 6; ++i)
        test::put32(rec, 0);
    return rec;
}

TEST(EmfRecognise, TellsSpoolEmfAndXpsApart) {
    const Buffer emf = EmfWriter().finish();
    const Buffer spool = test::makeSpool({emf});
    EXPECT_EQ(input::recognise(emf.data(), emf.size()), input::Kind::Emf);
    EXPECT_EQ(input::recognise(spool.data(), spool.size()), input::Kind::EmfSpool);
    EXPECT_TRUE(input::isConvertible(input::Kind::Emf));
    EXPECT_TRUE(input::isConvertible(input::Kind::EmfSpool));
    std::string xps = std::string("PK\x03\x04", 4) + std::string(26, '\0') + "FixedDocumentSequence.fdseq";
    EXPECT_EQ(input::recognise(reinterpret_cast<const uint8_t*>(xps.data()), xps.size()), input::Kind::Xps);
    EXPECT_FALSE(input::isConvertible(input::Kind::Xps));
    EXPECT_NE(input::describe(input::Kind::Xps).find("XPS"), std::string::npos);
    std::string zip = std::string("PK\x03\x04", 4) + std::string(26, '\0') + "word/document.xml";
    EXPECT_EQ(input::recognise(reinterpret_cast<const uint8_t*>(zip.data()), zip.size()), input::Kind::Archive);
}

TEST(EmfSpool, FindsEveryPageAndTheDevmode) {
    const Buffer page = EmfWriter().rec(RECTANGLE, {10, 10, 100, 100}).finish();
    const Buffer dm = test::makeDevMode(9, 2); // A4 landscape
    const Buffer spool = test::makeSpool({page, page, page}, &dm);
    const SpoolContents s = readSpool(spool.data(), spool.size());
    ASSERT_EQ(s.pages.size(), 3u);
    EXPECT_TRUE(s.problems.empty());
    EXPECT_EQ(s.documentName, "D");
    EXPECT_TRUE(s.pages[2].hasDevMode);
    EXPECT_DOUBLE_EQ(s.pages[0].devMode.paperWidthMm, 210);
    EXPECT_TRUE(s.pages[0].devMode.landscape);
    EXPECT_EQ(s.pages[1].emf.size, page.size());

    Played r(spool);
    EXPECT_EQ(r.device.pageCount(), 3);
    // A4 turned: 297 x 210 mm.
    EXPECT_NE(r.calls.find("beginPage 841.89x595.28"), std::string::npos) << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings());
}

TEST(EmfSpool, ARecordLongerThanTheFileIsReportedAndEarlierPagesKept) {
    const Buffer page = EmfWriter().rec(RECTANGLE, {10, 10, 100, 100}).finish();
    Buffer spool = test::makeSpool({page, page});
    // The second page's record claims far more than there is.
    const size_t second = 20 + 8 + page.size() + 16;
    test::set32(spool, second + 4, 0x7fffffff);
    const SpoolContents s = readSpool(spool.data(), spool.size());
    EXPECT_EQ(s.pages.size(), 1u);
    ASSERT_FALSE(s.problems.empty());
    EXPECT_NE(s.problems[0].find("more than the file holds"), std::string::npos);
    Played r(spool);
    EXPECT_EQ(r.device.pageCount(), 1);
    EXPECT_TRUE(r.diag.hasWarnings());
}

TEST(EmfSpool, HeaderSizePastTheEndAndCutRecords) {
    Buffer spool = test::makeSpool({EmfWriter().finish()});
    Buffer bad = spool;
    test::set32(bad, 4, 1u << 30);
    EXPECT_TRUE(readSpool(bad.data(), bad.size()).pages.empty());
    for (size_t cut = 1; cut < spool.size(); cut += 3) {
        const SpoolContents s = readSpool(spool.data(), cut);
        EXPECT_LE(s.used, cut);
        Played r(Buffer(spool.begin(), spool.begin() + long(cut)));
        EXPECT_LE(r.device.pageCount(), 1);
    }
}

TEST(EmfSpool, OffsetRecordsAreCheckedNeverFollowed) {
    // Page offset records that point at themselves, before the file or far back are only
    // checked: reading goes forward record by record, so they cannot make it loop.
    const Buffer page = EmfWriter().rec(RECTANGLE, {10, 10, 100, 100}).finish();
    Buffer spool = test::makeSpool({page});
    for (uint64_t back : {uint64_t(0), uint64_t(1) << 40, uint64_t(8)}) {
        Buffer s = spool;
        const size_t ext = s.size() - 16;
        test::set32(s, ext + 8, uint32_t(back));
        test::set32(s, ext + 12, uint32_t(back >> 32));
        // Many more of them after it.
        for (int i = 0; i < 1000; ++i)
            s.insert(s.end(), s.begin() + long(ext), s.begin() + long(ext) + 16);
        const SpoolContents c = readSpool(s.data(), s.size());
        EXPECT_EQ(c.pages.size(), 1u);
        EXPECT_EQ(c.used, s.size());
        Played r(s);
        EXPECT_EQ(r.device.pageCount(), 1);
    }
}

TEST(EmfPlayer, PlainEmfPageFromItsFrame) {
    const Buffer emf = EmfWriter(100, 50, 4).rec(RECTANGLE, {0, 0, 200, 100}).finish();
    Played r(emf);
    EXPECT_EQ(r.device.pageCount(), 1);
    // 100 x 50 mm; 4 pixels a mm: the rectangle covers half the page each way.
    EXPECT_NE(r.calls.find("beginPage 283.46x141.73"), std::string::npos) << r.calls;
    EXPECT_NE(r.calls.find("fill eo #ffffff rop=252 srcO patO M0,0 L141.73,0 L141.73,70.87 L0,70.87 Z"),
              std::string::npos)
        << r.calls;
    EXPECT_NE(r.calls.find("stroke w=0 #000000"), std::string::npos) << r.calls;
    EXPECT_EQ(r.used, emf.size());
}

TEST(EmfPlayer, BrushesPensAndStockObjects) {
    const Buffer emf = EmfWriter()
                          .rec(CREATEBRUSH, {1, 0, 0x0000ff, 0})  // red brush
                          .rec(SELECTOBJECT, {1})
                          .rec(SELECTOBJECT, {0x80000008})         // NULL_PEN
                          .rec(RECTANGLE, {0, 0, 40, 40})
                          .rec(CREATEPEN, {2, 0, 8, 0, 0x00ff00}) // green, 8 units wide
                          .rec(SELECTOBJECT, {2})
                          .rec(SELECTOBJECT, {0x80000005})         // NULL_BRUSH
                          .rec(ELLIPSE, {0, 0, 40, 40})
                          .finish();
    Played r(emf);
    EXPECT_NE(r.calls.find("fill eo #ff0000"), std::string::npos) << r.calls;
    EXPECT_EQ(r.count("fill"), 1u) << r.calls;
    // 8 pixels at 4 a millimetre are 2 mm = 5.67 pt.
    EXPECT_NE(r.calls.find("stroke w=5.67 #00ff00"), std::string::npos) << r.calls;
}

TEST(EmfPlayer, SaveAndRestoreBringBackTheClip) {
    const Buffer emf = EmfWriter()
                          .rec(SAVEDC, {})
                          .rec(INTERSECTCLIP, {0, 0, 50, 50})
                          .rec(RECTANGLE, {0, 0, 100, 100})
                          .rec(RESTOREDC, {-1})
                          .rec(RECTANGLE, {0, 0, 100, 100})
                          .finish();
    Played r(emf);
    ASSERT_EQ(r.count("fill"), 2u);
    const auto& calls = r.device.calls();
    std::vector<std::string> fills;
    for (const auto& c : calls)
        if (c.rfind("fill", 0) == 0)
            fills.push_back(c);
    EXPECT_NE(fills[0].find("clip=1"), std::string::npos);
    EXPECT_EQ(fills[1].find("clip="), std::string::npos);
}

TEST(EmfPlayer, WorldTransformAndAnisotropicMapping) {
    const Buffer emf = EmfWriter()
                          .rec(SETMAPMODE, {8})
                          .rec(SETWINDOWEXT, {1000, 1000})
                          .rec(SETVIEWPORTEXT, {100, 100}) // ten logical units a pixel
                          .rec(SETWORLD, {f32bits(2), 0, 0, f32bits(2), f32bits(40), 0})
                          .rec(SELECTOBJECT, {0x80000008})
                          .rec(RECTANGLE, {0, 0, 100, 100})
                          .finish();
    Played r(emf);
    // World: 0..100 -> 40..240; mapping: /10 -> 4..24 pixels; 4 px a mm -> 1..6 mm.
    EXPECT_NE(r.calls.find("M2.83,0 L17.01,0 L17.01,14.17 L2.83,14.17 Z"), std::string::npos) << r.calls;
}

TEST(EmfPlayer, PathBracketsFillAndClip) {
    const Buffer emf = EmfWriter()
                          .rec(BEGINPATH, {})
                          .rec(MOVETO, {0, 0})
                          .rec(LINETO, {40, 0})
                          .rec(LINETO, {40, 40})
                          .rec(ENDPATH, {})
                          .rec(FILLPATH, {0, 0, 0, 0})
                          .rec(BEGINPATH, {})
                          .rec(RECTANGLE, {0, 0, 20, 20})
                          .rec(ENDPATH, {})
                          .rec(SELECTCLIPPATH, {5})
                          .rec(RECTANGLE, {0, 0, 100, 100})
                          .finish();
    Played r(emf);
    EXPECT_NE(r.calls.find("fill eo #ffffff rop=252 srcO patO M0,0 L28.35,0 L28.35,28.35"), std::string::npos)
        << r.calls;
    EXPECT_NE(r.calls.find("clip=1"), std::string::npos) << r.calls;
}

TEST(EmfPlayer, BinaryRasterOperationsBecomeRop3) {
    const Buffer emf = EmfWriter().rec(SETROP2, {7}).rec(RECTANGLE, {0, 0, 10, 10}).finish(); // R2_XORPEN
    Played r(emf);
    // Pen XOR destination, with the pen as texture: T ^ D over all S = 0x5a.
    EXPECT_NE(r.calls.find("rop=90"), std::string::npos) << r.calls;
}

TEST(EmfPlayer, StretchDibitsDrawsTheBitmapWithItsRop) {
    // A 2x2 24-bit bottom-up DIB: bottom row blue, red; top row green, white.
    Buffer rec = stretchDibits(10, 20, 2, 2, 40, 40);
    const uint8_t bits[16] = {255, 0, 0, 0, 0, 255, 0, 0, 0, 255, 0, 255, 255, 255, 0, 0};
    rec.insert(rec.end(), bits, bits + 16);
    const Buffer emf = EmfWriter().raw(STRETCHDIBITS, rec).finish();
    Played r(emf);
    EXPECT_NE(r.calls.find("image 2x2 rgb [14.17 0 0 14.17 7.09 14.17]"), std::string::npos) << r.calls;
    EXPECT_NE(r.calls.find("rop=204"), std::string::npos) << r.calls;

    const DibResult d = decodeDib(Bytes{rec.data() + 72, 40}, Bytes{rec.data() + 112, 16});
    ASSERT_TRUE(d.image);
    // Top-left (first row out) is the stored top row's first pixel: green.
    EXPECT_EQ(d.image->data[0], 0);
    EXPECT_EQ(d.image->data[1], 255);
    EXPECT_EQ(d.image->data[2], 0);
    // Bottom-right: red.
    EXPECT_EQ(d.image->data[9], 255);
    EXPECT_EQ(d.image->data[10], 0);
}

TEST(EmfPlayer, TextIsDrawnWithTheResidentStandIn) {
    FontLibrary fonts({kStageFonts}, true);
    const Buffer emf = EmfWriter()
                          .font(1, -40, u"Arial")
                          .rec(SELECTOBJECT, {1})
                          .rec(18, {1}) // SETBKMODE TRANSPARENT
                          .text(40, 100, u"Hello")
                          .finish();
    Played r(emf, &fonts);
    EXPECT_EQ(r.count("mask"), 5u) << r.calls;
    EXPECT_FALSE(r.diag.hasWarnings()) << r.calls;
}

TEST(EmfPlayer, DejaVuAndVerdanaLikeFacesUseTheDejaVuFiles) {
    FontLibrary fonts({kStageFonts}, false);
    for (const std::u16string face : {u"DejaVu Sans", u"DejaVu Serif", u"Verdana", u"Tahoma"}) {
        const Buffer emf = EmfWriter().font(1, -40, face, 700).rec(SELECTOBJECT, {1}).text(40, 100, u"Hi!").finish();
        Played r(emf, &fonts);
        EXPECT_EQ(r.count("mask"), 3u) << r.calls;
        EXPECT_FALSE(r.diag.hasWarnings());
    }
    // The same text in DejaVu Sans and in Arial (Liberation Sans) advances differently when the
    // record gives no advances: DejaVu is wider.
    auto lastMaskX = [&](const std::u16string& face) {
        Played r(EmfWriter().font(1, -40, face).rec(SELECTOBJECT, {1}).text(0, 100, u"mmmm").finish(), &fonts);
        const std::string& last = r.device.calls()[r.device.calls().size() - 2];
        std::istringstream m(last.substr(last.find('[') + 1));
        double a, b, c, d, e;
        m >> a >> b >> c >> d >> e;
        return e; // where the mask's left edge lands
    };
    EXPECT_GT(lastMaskX(u"DejaVu Sans"), lastMaskX(u"Arial"));
}

// Hostile input: every one of these finishes with a warning or quietly, draws a bounded amount
// and never reads past the data (the fuzz targets check the reading under ASan).
TEST(EmfHostile, DeepSaveAndClipStacksAreBounded) {
    EmfWriter w;
    for (int i = 0; i < 20000; ++i) {
        w.rec(SAVEDC, {});
        w.rec(INTERSECTCLIP, {0, 0, 1000 - i % 500, 1000});
    }
    w.rec(RECTANGLE, {0, 0, 100, 100});
    for (int i = 0; i < 20000; ++i)
        w.rec(RESTOREDC, {-1});
    Played r(w.finish());
    EXPECT_TRUE(r.warned("saved more than")) << r.diag.lines().size();
    EXPECT_TRUE(r.warned("too many clipping paths"));
    ASSERT_EQ(r.count("fill"), 1u);
}

TEST(EmfHostile, BadRecordSizesEndThePage) {
    for (uint32_t size : {0u, 4u, 6u, 0x7ffffff0u}) {
        // The second record is broken: the first one's drawing stays on its page.
        Buffer emf = EmfWriter().rec(RECTANGLE, {0, 0, 10, 10}).rec(RECTANGLE, {0, 0, 10, 10}).finish();
        test::set32(emf, 108 + 24 + 4, size);
        Played r(emf);
        EXPECT_EQ(r.device.pageCount(), 1);
        EXPECT_EQ(r.count("fill"), 1u);
        EXPECT_TRUE(r.warned("bad size")) << size;
        // Broken right after the header: no page at all.
        test::set32(emf, 108 + 4, size);
        Played none(emf);
        EXPECT_EQ(none.device.pageCount(), 0);
        EXPECT_TRUE(none.warned("damaged before anything is drawn")) << size;
    }
}

TEST(EmfHostile, HugeBitmapsAndCountsAreRefused) {
    Buffer rec = stretchDibits(0, 0, 60000, 60000, 100, 100);
    rec.resize(rec.size() + 16, 0);
    Played r(EmfWriter().raw(STRETCHDIBITS, rec).finish());
    EXPECT_TRUE(r.warned("too large to draw"));
    EXPECT_EQ(r.count("image"), 0u);

    // A polygon that claims a billion points in a short record draws nothing.
    Played p(EmfWriter().rec(POLYGON16, {0, 0, 0, 0, 1000000000, 0, 0}).finish());
    EXPECT_EQ(p.count("fill"), 0u);
    // A region that claims more rectangles than it has is ignored.
    Played g(EmfWriter().rec(EXTSELECTCLIPRGN, {48, 1, 32, 1, 0x7fffffff, 0, 0, 0, 0, 0}).finish());
    EXPECT_TRUE(g.warned("clipping region"));
}

TEST(EmfHostile, AFrameLargerThanAnySheetIsDrawnOnLetter) {
    Buffer emf = EmfWriter().rec(RECTANGLE, {0, 0, 10, 10}).finish();
    test::set32(emf, 32, 499999); // 5 m square
    test::set32(emf, 36, 499999);
    Played r(emf);
    EXPECT_NE(r.calls.find("beginPage 612x792"), std::string::npos) << r.calls;
    EXPECT_TRUE(r.warned("is no sheet"));
}

TEST(EmfHostile, MissingEndOfFileIsAWarning) {
    Buffer emf = EmfWriter().rec(RECTANGLE, {0, 0, 10, 10}).finish();
    emf.resize(emf.size() - 20);
    Played r(emf);
    EXPECT_EQ(r.device.pageCount(), 1);
    EXPECT_TRUE(r.warned("without its end-of-file"));
}

} // namespace
} // namespace qx::emf
