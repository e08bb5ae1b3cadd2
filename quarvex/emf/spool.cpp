#include "emf/spool.h"

#include <algorithm>

namespace qx::emf {

namespace {

constexpr uint32_t kSpoolVersion = 0x00010000;

// A NUL-terminated UTF-16LE string at offset inside the header, as UTF-8 (ASCII kept, the rest
// as '?': it is only ever shown in messages).
std::string headerString(Bytes header, uint32_t offset) {
    std::string out;
    if (offset == 0)
        return out;
    for (size_t o = offset; header.has(o, 2) && out.size() < 256; o += 2) {
        const uint16_t c = header.u16(o);
        if (c == 0)
            break;
        out.push_back(c >= 0x20 && c < 0x7f ? char(c) : '?');
    }
    return out;
}

} // namespace

DevMode parseDevMode(Bytes dm) {
    // DEVMODEW: the 32-character device name, then dmSpecVersion, dmDriverVersion, dmSize,
    // dmDriverExtra, dmFields, and the printer fields at fixed offsets.
    DevMode out;
    if (!dm.has(0, 100))
        return out;
    const uint32_t fields = dm.u32(72);
    constexpr uint32_t DM_ORIENTATION = 0x1, DM_PAPERSIZE = 0x2, DM_PAPERLENGTH = 0x4, DM_PAPERWIDTH = 0x8,
                       DM_PRINTQUALITY = 0x400, DM_YRESOLUTION = 0x2000;
    if (fields & DM_ORIENTATION)
        out.landscape = dm.i16(76) == 2;
    if (fields & DM_PAPERSIZE) {
        // The common paper sizes by their DMPAPER number, portrait, in millimetres.
        struct Paper { int id; double w, h; };
        static constexpr Paper kPapers[] = {
            {1, 215.9, 279.4},  {2, 215.9, 279.4}, {3, 279.4, 431.8}, {4, 431.8, 279.4},
            {5, 215.9, 355.6},  {6, 139.7, 215.9}, {7, 184.15, 266.7}, {8, 297, 420},
            {9, 210, 297},      {10, 210, 297},    {11, 148, 210},     {12, 250, 354},
            {13, 182, 257},     {14, 215.9, 330.2}, {20, 104.8, 241.3}, {27, 110, 220},
            {28, 162, 229},     {34, 176, 250},    {37, 98.4, 190.5},  {70, 105, 148},
        };
        const int id = dm.i16(78);
        for (const Paper& p : kPapers)
            if (p.id == id) {
                out.paperWidthMm = p.w;
                out.paperHeightMm = p.h;
            }
    }
    // Explicit lengths (tenths of a millimetre) override the paper number.
    if ((fields & DM_PAPERLENGTH) && (fields & DM_PAPERWIDTH) && dm.i16(80) > 0 && dm.i16(82) > 0) {
        out.paperHeightMm = dm.i16(80) / 10.0;
        out.paperWidthMm = dm.i16(82) / 10.0;
    }
    if (fields & DM_PRINTQUALITY) {
        const int q = dm.i16(90);
        if (q > 0)
            out.dpiX = out.dpiY = q;
    }
    if ((fields & DM_YRESOLUTION) && out.dpiX > 0 && dm.i16(96) > 0)
        out.dpiY = dm.i16(96);
    return out;
}

bool isFontDefinitionRecord(uint32_t type) {
    return type == EMRI_ENGINE_FONT || type == EMRI_TYPE1_FONT || type == EMRI_DESIGNVECTOR ||
           type == EMRI_SUBSET_FONT || type == EMRI_DELTA_FONT;
}

bool isSpoolHeader(const uint8_t* data, size_t size) {
    const Bytes b{data, size};
    return size >= 16 && b.u32(0) == kSpoolVersion;
}

SpoolContents readSpool(const uint8_t* data, size_t size) {
    SpoolContents out;
    const Bytes file{data, size};
    if (!isSpoolHeader(data, size)) {
        out.problems.push_back("no spool header");
        return out;
    }
    const uint32_t headerSize = file.u32(4);
    if (headerSize < 16 || headerSize > size) {
        out.problems.push_back("the spool header's size " + std::to_string(headerSize) + " runs past the end of the file");
        out.used = size;
        return out;
    }
    const Bytes header = file.sub(0, headerSize);
    out.documentName = headerString(header, file.u32(8));

    bool haveDevMode = false;
    bool pageOpen = false; // a page content record waits for its page offset record
    DevMode devMode;
    // Records start on 4-byte boundaries.
    size_t pos = (size_t(headerSize) + 3) & ~size_t(3);
    while (pos < size) {
        if (size - pos < 8) {
            // Padding at the very end is harmless; anything else is a cut record.
            if (std::any_of(data + pos, data + size, [](uint8_t c) { return c != 0; }))
                out.problems.push_back("a spool record cut short at byte " + std::to_string(pos));
            pos = size;
            break;
        }
        const uint32_t type = file.u32(pos);
        const uint32_t length = file.u32(pos + 4);
        if (type == 0 && length == 0) {
            // Zero fill after the last record.
            pos += 8;
            continue;
        }
        if (length > size - pos - 8) {
            out.problems.push_back("spool record of type " + std::to_string(type) + " at byte " + std::to_string(pos) +
                                   " claims " + std::to_string(length) + " bytes, more than the file holds");
            pos = size;
            break;
        }
        const Bytes body = file.sub(pos + 8, length);
        switch (type) {
        case EMRI_METAFILE:
        case EMRI_FORM_METAFILE:
        case EMRI_METAFILE_DATA:
        case EMRI_BW_METAFILE:
        case EMRI_BW_FORM_METAFILE: {
            SpoolPage page;
            page.emf = body;
            page.hasDevMode = haveDevMode;
            page.devMode = devMode;
            page.monochrome = type == EMRI_BW_METAFILE || type == EMRI_BW_FORM_METAFILE;
            out.pages.push_back(page);
            pageOpen = true;
            break;
        }
        case EMRI_DEVMODE:
            haveDevMode = true;
            devMode = parseDevMode(body);
            break;
        case EMRI_METAFILE_EXT:
        case EMRI_BW_METAFILE_EXT:
            pageOpen = false;
            [[fallthrough]];
        case EMRI_ENGINE_FONT_EXT:
        case EMRI_TYPE1_FONT_EXT:
        case EMRI_DESIGNVECTOR_EXT:
        case EMRI_SUBSET_FONT_EXT:
        case EMRI_DELTA_FONT_EXT:
        case EMRI_EMBED_FONT_EXT: {
            // Offsets back to records already read. A font offset record may point at a font
            // definition inside a page content record: that font serves the page open now.
            const uint64_t back = body.u64(0);
            if (length < 8 || back > pos) {
                out.problems.push_back("an offset record at byte " + std::to_string(pos) + " points outside the file");
                break;
            }
            const size_t target = pos - size_t(back);
            const bool fontOffset = type != EMRI_METAFILE_EXT && type != EMRI_BW_METAFILE_EXT && type != EMRI_EMBED_FONT_EXT;
            if (fontOffset && file.has(target, 8) && isFontDefinitionRecord(file.u32(target)) &&
                file.u32(target + 4) <= size - target - 8)
                out.fonts.push_back({file.u32(target), file.sub(target + 8, file.u32(target + 4)),
                                     pageOpen ? out.pages.size() - 1 : out.pages.size()});
            break;
        }
        case EMRI_ENGINE_FONT:
        case EMRI_TYPE1_FONT:
        case EMRI_DESIGNVECTOR:
        case EMRI_SUBSET_FONT:
        case EMRI_DELTA_FONT:
            out.fonts.push_back({type, body, pageOpen ? out.pages.size() - 1 : out.pages.size()});
            break;
        case EMRI_PRESTARTPAGE:
        case EMRI_PS_JOB_DATA:
            break;
        default:
            out.problems.push_back("unknown spool record type " + std::to_string(type) + " at byte " +
                                   std::to_string(pos) + " skipped");
            break;
        }
        pos += 8 + ((size_t(length) + 3) & ~size_t(3));
    }
    out.used = std::min(pos, size);
    return out;
}

} // namespace qx::emf
