#pragma once
// The resident font table: which PCL typefaces the engine carries and which font files stand in
// for them. One entry per face (family x weight x posture).

#include <cstdint>
#include <span>

namespace qx::fonts {

// One font file that can supply a face: the file name looked for in the font folders, and the
// fontconfig family / style used when no folder has the file.
struct FaceFile {
    const char* fileName;
    const char* fcFamily;
    const char* fcStyle;
};

struct FaceEntry {
    const char* family;     // the PCL family name
    const char* pclxlName;  // the PCL XL resident font name, 16 characters with padding
    int typeface;           // PCL typeface family number
    bool proportional;
    bool bold;
    bool italic;
    int pjlFontNumber;      // internal font list number; -1 = not listed
    bool symbolic;          // a symbol/dingbat face: uses its own symbol set
    const FaceFile* files;  // in order of preference, terminated by a null fileName
};

std::span<const FaceEntry> residentFaces();


} // namespace qx::fonts
