#pragma once
// Telling printer languages (and the things that are not printer languages) apart by content.

#include <cstddef>
#include <cstdint>
#include <string>

namespace qx::input {

enum class Kind : uint8_t {
    Empty,       // nothing but blanks, line ends and NULs
    Uel,         // the Universal Exit Language sequence ESC %-12345X
    Pjl,         // an @PJL command line
    Pcl5,        // PCL 5 escape sequences, or plain text (which a PCL printer prints as text)
    PclXl,       // a PCL XL stream header
    PostScript,
    Pdf,
    EmfSpool,    // a Windows spool file of EMF records
    Emf,         // a Windows EMF metafile on its own
    Xps,         // an XPS document (a ZIP package with a fixed document sequence)
    Image,       // an image file (TIFF, PNG, JPEG, GIF, BMP)
    Archive,     // a compressed or archive file
    Binary,      // other data
};

// What the data at the start of a job looks like.
Kind recognise(const uint8_t* data, size_t size);

// A phrase for messages: "PostScript", "a PDF document", ...
std::string describe(Kind kind);
// True for the kinds that are converted.
bool isConvertible(Kind kind);

// The 9-byte Universal Exit Language sequence.
inline constexpr char kUel[] = "\x1b%-12345X";
inline constexpr size_t kUelSize = 9;

bool startsWithUel(const uint8_t* data, size_t size);
// Offset of the next UEL at or after from, or size when there is none.
size_t findUel(const uint8_t* data, size_t size, size_t from);

} // namespace qx::input
