#pragma once
// Plays the EMF+ records that GDI+ writes into EMR_COMMENT records, for pages drawn in EMF+
// only (the EMF+ header's dual flag clear: there are no GDI records that draw the same things).
//
// EMF+ coordinates go world space (the world transform) to page space (the page unit and
// scale) to device pixels, whose density the EMF+ header gives; those pixels are the reference
// device's pixels of the metafile, which the GDI player maps onto our page. Objects (brushes,
// pens, paths, fonts, images, string formats) live in a table of 64 entries; an object may come
// in several records, which are joined before it is read. The clip is the GDI player's clip
// (in page points), so both kinds of record see the same one.
//
// Every record's size is checked against its comment, every field against its record; object
// numbers out of range, unknown records and objects are warned about once and skipped.

#include "emf/player.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qx::emf {

struct PlusObjects; // plus_objects.h
struct PlusBrush;

// How many saved graphics states (Save and BeginContainer) are kept at most.
inline constexpr size_t kMaxPlusSaves = 256;
// The most bands of colour that gradient fills may draw on one page; later gradients are
// drawn in their middle colour, so that a page of many costs no more than its size.
inline constexpr size_t kMaxGradientBands = size_t(1) << 15;
// The most bytes one object spread over several records may gather.
inline constexpr size_t kMaxPlusObjectBytes = size_t(64) << 20;

class PlusPlayer {
public:
    // The GDI player lends its device, diagnostics, clip and text drawing.
    explicit PlusPlayer(Player::Impl& gdi);
    ~PlusPlayer();

    // Plays the EMF+ records of one EMR_COMMENT record (the whole EMF record, header included).
    void playComment(Bytes rec);
    // True once an EMF+ header says the page is drawn in EMF+ records only.
    bool plusOnly() const { return m_plusOnly; }

    // Public for the helpers in plus_*.cpp.
    struct State {
        Matrix world;
        int pageUnit = 2;      // UnitPixel
        double pageScale = 1;
        std::shared_ptr<const ClipRegion> clip; // page points
        uint32_t stackIndex = 0;
    };

    Player::Impl& gdi;
    std::unique_ptr<PlusObjects> objects;
    State state;
    std::vector<State> saved;
    double dpiX = 96, dpiY = 96;
    bool videoReference = false; // the reference device is a display (its Display unit is a pixel)
    bool ended = false;
    size_t gradientBands = 0; // drawn on this page so far
    bool m_plusOnly = false;

    // --- coordinates (plus_player.cpp)
    double unitToPixelsX(int unit) const;
    double unitToPixelsY(int unit) const;
    Matrix worldToDevice() const; // world units to reference device pixels
    Matrix worldToPage() const;   // world units to our page points

    void playRecord(uint16_t type, uint16_t flags, Bytes data);
    bool playStateRecord(uint16_t type, uint16_t flags, Bytes data);
    bool playDrawRecord(uint16_t type, uint16_t flags, Bytes data); // plus_draw.cpp
    void drawStringRecord(bool driverString, uint16_t flags, Bytes data); // plus_text.cpp
    // Fills a page-space shape with a linear gradient brush (plus_draw.cpp).
    void fillGradient(const Path& shape, FillRule rule, const PlusBrush& brush, const RenderState& rs);
    void warn(const std::string& message);
};

} // namespace qx::emf
