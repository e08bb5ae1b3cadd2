#include "emf/emf.h"

#include "common/diagnostics.h"
#include "emf/player.h"
#include "emf/spool.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPtPerMm = 72.0 / 25.4;
// Sheets are kept between 1 mm and 1.2 m a side (A0 is 841 x 1189 mm): a frame beyond that is
// damage, not paper, and would only ask for memory.
constexpr double kMinSideMm = 1, kMaxSideMm = 1200;

// Where the page goes: the devmode's sheet with the device's origin at its corner, or the
// metafile's frame as the whole sheet.
PagePlacement placePage(const EmfHeader& h, const SpoolPage* spooled, Diagnostics& diag) {
    PagePlacement p;
    // The frame is inclusive-inclusive, in hundredths of a millimetre.
    double wMm = (double(h.frameRight) - h.frameLeft + 1) / 100.0;
    double hMm = (double(h.frameBottom) - h.frameTop + 1) / 100.0;
    p.originXMm = h.frameLeft / 100.0;
    p.originYMm = h.frameTop / 100.0;
    if (spooled && spooled->hasDevMode && spooled->devMode.paperWidthMm > 0) {
        wMm = spooled->devMode.paperWidthMm;
        hMm = spooled->devMode.paperHeightMm;
        if (spooled->devMode.landscape)
            std::swap(wMm, hMm);
        p.originXMm = p.originYMm = 0;
        p.page.declaredDpiX = spooled->devMode.dpiX;
        p.page.declaredDpiY = spooled->devMode.dpiY;
    }
    if (!(wMm >= kMinSideMm && hMm >= kMinSideMm && wMm <= kMaxSideMm && hMm <= kMaxSideMm)) {
        // No usable frame: Letter.
        diag.warning("EMF: a page of " + std::to_string(long(wMm)) + " x " + std::to_string(long(hMm)) +
                     " mm is no sheet; drawn on Letter");
        wMm = 215.9;
        hMm = 279.4;
        p.originXMm = p.originYMm = 0;
    }
    p.page.widthPt = wMm * kPtPerMm;
    p.page.heightPt = hMm * kPtPerMm;
    return p;
}

void playPage(Bytes emf, const SpoolPage* spooled, JobContext& ctx, Player& player, int pageNumber) {
    EmfHeader header;
    if (!readHeader(emf, header)) {
        ctx.diag.warning("EMF: page " + std::to_string(pageNumber) + " does not start with an EMF header; skipped");
        return;
    }
    // A metafile broken before it draws anything is no page at all.
    const MetafileWalk walk = walkRecords(emf);
    if (!walk.intact && walk.records <= 1) {
        ctx.diag.warning("EMF: page " + std::to_string(pageNumber) + " is damaged before anything is drawn; skipped");
        return;
    }
    const PagePlacement placement = placePage(header, spooled, ctx.diag);
    ctx.device.beginPage(placement.page);
    player.play(emf, header, placement);
    ctx.device.endPage();
}

} // namespace

size_t run(const uint8_t* data, size_t size, JobContext& ctx) {
    Player player(ctx.device, ctx.diag, ctx.fonts);
    if (isEmf(data, size)) {
        playPage(Bytes{data, size}, nullptr, ctx, player, 1);
        return size;
    }
    if (!isSpoolHeader(data, size)) {
        ctx.diag.warning("EMF: neither an EMF spool header nor an EMF header");
        return size;
    }
    const SpoolContents spool = readSpool(data, size);
    for (const std::string& problem : spool.problems)
        ctx.diag.warning("EMF spool: " + problem);
    // Fonts join as the pages they serve come up, in the order of their records.
    size_t nextFont = 0;
    for (size_t i = 0; i < spool.pages.size(); ++i) {
        for (; nextFont < spool.fonts.size() && spool.fonts[nextFont].firstPage <= i; ++nextFont)
            player.addFont(spool.fonts[nextFont].type, spool.fonts[nextFont].body);
        playPage(spool.pages[i].emf, &spool.pages[i], ctx, player, int(i) + 1);
    }
    return size;
}

} // namespace qx::emf
