#pragma once
// Fonts that an EMF spool file carries for its pages, as its font definition records give them
// (at the spool level, or inside a page's metafile in an EMFSPOOL comment):
//
// - an engine font record holds whole TrueType files (the count, their sizes, padding to an
//   8-byte boundary, the files one after the other);
// - a subset font record holds a TrueType font with the glyphs the pages so far need, under
//   the glyph numbers of the full font, and names the font by its UniversalFontId (checksum and
//   index);
// - a delta font record, with the same UniversalFontId, holds the glyphs that later pages add:
//   each glyph it has replaces the empty slot of the subset before it, and from then on the
//   merged font stands for both;
// - Type 1 fonts and design vectors are read past (the former with a note: glyph numbers mean
//   nothing in them).
//
// Text names its font by the logical font's face name; the embedded font whose own family name
// is that face, with the same weight and slant if there is one, and the latest such record
// otherwise, draws it. Every length is checked; the data kept is bounded in all.

#include "emf/bytes.h"
#include "emf/file_face.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qx::emf {

// At most this many bytes of font data are kept, and at most kMaxFontMergeBytes made by merging
// deltas, over a whole job; fonts past either are left out with a note.
inline constexpr size_t kMaxFontBytes = size_t(256) << 20;
inline constexpr size_t kMaxFontMergeBytes = size_t(1) << 30;


class EmbeddedFonts {
public:
    EmbeddedFonts();
    ~EmbeddedFonts();

    // Takes one font definition record: its type and the data after the 8-byte record head.
    // Returns an empty string when the record was used (or taken before) or is of no
    // consequence, else a phrase that says why it is not used.
    std::string add(uint32_t type, Bytes body);
    // Font definition records one after another (the contents of an EMFSPOOL comment); the
    // phrases of those not used.
    std::vector<std::string> addRecords(Bytes records);

    // The face for a logical font's face name, weight and slant; null when none is embedded.
    const FileFace* find(const std::string& faceName, bool bold, bool italic) const;
    size_t count() const;

    // A subset font with a delta merged into it: the delta's non-empty glyphs take their slots.
    // Empty when either is not a TrueType font with glyph tables that can be read.
    static std::vector<uint8_t> mergeDelta(Bytes subset, Bytes delta);

private:
    struct Entry;
    std::string keep(std::vector<uint8_t> data, bool subset, uint64_t ufi);
    std::vector<std::unique_ptr<Entry>> m_entries;
    // The records taken, by where their data lies: a record reached both through a font offset
    // record and inside its page's EMFSPOOL comment is the same font once.
    std::set<const uint8_t*> m_seen;
    size_t m_bytes = 0;
    size_t m_mergeBytes = 0;
};

} // namespace qx::emf
