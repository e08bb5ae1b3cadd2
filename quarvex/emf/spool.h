#pragma once
// The Windows EMF spool container (the "EMF" data type of the print spooler, as Microsoft
// publishes it in the Enhanced Metafile Spool Format): a header record (version 0x00010000,
// its size, the offsets of the document and output names), then data records of an 8-byte
// head (record type, size of the data that follows) rounded up to 4 bytes. Page content records
// carry one whole EMF metafile each; devmode records carry the DEVMODEW that the pages after
// them print with; font definition records carry fonts the pages use; page and font offset
// records point back at records already read and add nothing new.

#include "emf/bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qx::emf {

// Record types of the spool format.
enum : uint32_t {
    EMRI_METAFILE = 1,
    EMRI_ENGINE_FONT = 2,
    EMRI_DEVMODE = 3,
    EMRI_TYPE1_FONT = 4,
    EMRI_PRESTARTPAGE = 5,
    EMRI_DESIGNVECTOR = 6,
    EMRI_SUBSET_FONT = 7,
    EMRI_DELTA_FONT = 8,
    EMRI_FORM_METAFILE = 9,
    EMRI_BW_METAFILE = 10,
    EMRI_BW_FORM_METAFILE = 11,
    EMRI_METAFILE_DATA = 12,
    EMRI_METAFILE_EXT = 13,
    EMRI_BW_METAFILE_EXT = 14,
    EMRI_ENGINE_FONT_EXT = 15,
    EMRI_TYPE1_FONT_EXT = 16,
    EMRI_DESIGNVECTOR_EXT = 17,
    EMRI_SUBSET_FONT_EXT = 18,
    EMRI_DELTA_FONT_EXT = 19,
    EMRI_PS_JOB_DATA = 20,
    EMRI_EMBED_FONT_EXT = 21,
};

// Whether a spool record type is that of a font definition record.
bool isFontDefinitionRecord(uint32_t type);

// What a DEVMODEW says about the sheet.
struct DevMode {
    double paperWidthMm = 0;  // 0 = not said
    double paperHeightMm = 0;
    bool landscape = false;
    int dpiX = 0;             // 0 = not said
    int dpiY = 0;
};

// Reads a DEVMODEW structure (the fields the sheet depends on).
DevMode parseDevMode(Bytes devmode);

struct SpoolPage {
    Bytes emf;               // the page's metafile
    bool hasDevMode = false; // a devmode record came before the page
    DevMode devMode;
    bool monochrome = false; // a black-and-white page content record
};

// A font definition record at the spool level, or one that a font offset record points back
// at (inside a page content record). It serves the page whose content record came before it
// and whose page offset record has not come yet, else the next page, and every page after that.
struct SpoolFont {
    uint32_t type = 0;
    Bytes body;
    size_t firstPage = 0; // index into SpoolContents::pages
};

struct SpoolContents {
    std::string documentName; // from the header, as UTF-8; may be empty
    std::vector<SpoolPage> pages;
    std::vector<SpoolFont> fonts;
    std::vector<std::string> problems; // damage found, one phrase each
    size_t used = 0;          // bytes of the input that belong to the spool file
};

// True when data starts with an EMF spool header.
bool isSpoolHeader(const uint8_t* data, size_t size);

// Splits a spool file into its pages. Never reads outside data; damage ends the walk with a
// problem noted and keeps the pages found before it.
SpoolContents readSpool(const uint8_t* data, size_t size);

} // namespace qx::emf
