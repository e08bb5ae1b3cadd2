#include "input/recognise.h"

#include <algorithm>
#include <cstring>

namespace qx::input {

namespace {

bool startsWith(const uint8_t* d, size_t n, const char* prefix) {
    const size_t len = std::strlen(prefix);
    return n >= len && std::memcmp(d, prefix, len) == 0;
}

bool startsWithNoCase(const uint8_t* d, size_t n, const char* prefix) {
    const size_t len = std::strlen(prefix);
    if (n < len)
        return false;
    for (size_t i = 0; i < len; ++i) {
        uint8_t c = d[i];
        if (c >= 'a' && c <= 'z')
            c = static_cast<uint8_t>(c - 'a' + 'A');
        if (c != static_cast<uint8_t>(prefix[i]))
            return false;
    }
    return true;
}

bool isBlank(uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == 0; }

// Bytes that show up in printable text: printing ASCII, the usual layout controls, ESC for
// PCL, SI/SO for the secondary font, and 8-bit characters of the symbol sets.
bool isTextByte(uint8_t c) {
    if (c >= 0x20 && c != 0x7f)
        return true;
    switch (c) {
    case '\t': case '\n': case '\r': case '\f': case '\b': case 0x0b: case 0x0e: case 0x0f: case 0x1b:
        return true;
    default:
        return false;
    }
}

// An escape sequence as PCL 5 writes them: ESC then either a two-character command (ESC E,
// ESC 9, ESC =, ...) or a parameterised one (ESC & l 1 O, ESC * r B, ESC ( s 0 P, ESC % 1 B).
bool looksLikePclEscape(const uint8_t* d, size_t n) {
    if (n < 2 || d[0] != 0x1b)
        return false;
    const uint8_t c = d[1];
    if (c >= 0x21 && c <= 0x2f)          // parameterised: a group character must follow
        return n < 3 || (d[2] >= 0x20 && d[2] <= 0x7e);
    return c >= 0x30 && c <= 0x7e;       // two-character
}

// An XPS package names its parts in the ZIP's local headers and central directory: the fixed
// document sequence (or its relationship) shows among the first or last part names.
bool looksLikeXps(const uint8_t* d, size_t n) {
    static constexpr char kNeedle[] = "FixedDocument";
    const size_t len = sizeof kNeedle - 1;
    auto found = [&](const uint8_t* b, const uint8_t* e) { return std::search(b, e, kNeedle, kNeedle + len) != e; };
    const size_t head = std::min<size_t>(n, 1 << 20);
    const size_t tail = std::min<size_t>(n, 1 << 16);
    return found(d, d + head) || found(d + n - tail, d + n);
}

} // namespace

bool startsWithUel(const uint8_t* data, size_t size) {
    return size >= kUelSize && std::memcmp(data, kUel, kUelSize) == 0;
}

size_t findUel(const uint8_t* data, size_t size, size_t from) {
    if (from >= size)
        return size;
    const uint8_t* begin = data + from;
    const uint8_t* end = data + size;
    const uint8_t* hit = std::search(begin, end, kUel, kUel + kUelSize);
    return static_cast<size_t>(hit - data);
}

Kind recognise(const uint8_t* data, size_t size) {
    // Windows spool files: an SPL header (version 0x00010000, little-endian) or an EMF
    // header record (type 1) with the " EMF" signature at offset 40. Both begin with NULs,
    // so they are looked for before blanks are skipped.
    if (size >= 44 && data[0] == 1 && data[1] == 0 && data[2] == 0 && data[3] == 0 &&
        std::memcmp(data + 40, " EMF", 4) == 0)
        return Kind::Emf;
    if (size >= 8 && data[0] == 0 && data[1] == 0 && data[2] == 1 && data[3] == 0)
        return Kind::EmfSpool;

    size_t i = 0;
    while (i < size && isBlank(data[i]))
        ++i;
    if (i == size)
        return Kind::Empty;
    const uint8_t* d = data + i;
    const size_t n = size - i;

    if (startsWithUel(d, n))
        return Kind::Uel;
    if (startsWithNoCase(d, n, "@PJL"))
        return Kind::Pjl;
    // The PCL XL stream header: the binding byte (')' low byte first, '(' high byte first,
    // '\'' ASCII), a blank, then the stream class.
    if (n >= 2 && (d[0] == ')' || d[0] == '(' || d[0] == '\'') && d[1] == ' ' &&
        (startsWith(d + 2, n - 2, "HP-PCL XL") || startsWith(d + 2, n - 2, "BROADCAST")))
        return Kind::PclXl;
    if (startsWith(d, n, "%!") || startsWith(d, n, "\x04%!") || startsWith(d, n, "\xc5\xd0\xd3\xc6"))
        return Kind::PostScript;
    if (startsWith(d, n, "%PDF-"))
        return Kind::Pdf;

    if (startsWith(d, n, "II*\0") || startsWith(d, n, "MM\0*") || startsWith(d, n, "\x89PNG") ||
        startsWith(d, n, "\xff\xd8\xff") || startsWith(d, n, "GIF87a") || startsWith(d, n, "GIF89a") ||
        (startsWith(d, n, "BM") && n >= 26 && d[14] >= 12 && d[15] == 0 && d[16] == 0 && d[17] == 0))
        return Kind::Image;
    if (startsWith(d, n, "PK\x03\x04") && looksLikeXps(d, n))
        return Kind::Xps;
    if (startsWith(d, n, "PK\x03\x04") || startsWith(d, n, "\x1f\x8b") || startsWith(d, n, "BZh") ||
        startsWith(d, n, "\xfd" "7zXZ") || startsWith(d, n, "7z\xbc\xaf"))
        return Kind::Archive;

    if (looksLikePclEscape(d, n))
        return Kind::Pcl5;

    // Plain text prints as a PCL 5 text job, and so does text that leads into PCL escape
    // sequences. Judge the text by the first few kilobytes, or by what comes before the first
    // escape sequence: a little noise is tolerated, binary data is not.
    const size_t window = std::min<size_t>(n, 4096);
    size_t bad = 0;
    size_t looked = 0;
    for (; looked < window; ++looked) {
        const uint8_t c = d[looked];
        if (c == 0x1b && looksLikePclEscape(d + looked, n - looked))
            break;
        if (!isTextByte(c) && c != 0)
            ++bad;
    }
    if (looked == 0 || bad * 100 <= looked * 2)
        return Kind::Pcl5;
    return Kind::Binary;
}

std::string describe(Kind kind) {
    switch (kind) {
    case Kind::Empty: return "empty";
    case Kind::Uel: return "a PJL job";
    case Kind::Pjl: return "PJL";
    case Kind::Pcl5: return "PCL 5";
    case Kind::PclXl: return "PCL XL";
    case Kind::PostScript: return "PostScript";
    case Kind::Pdf: return "a PDF document";
    case Kind::EmfSpool: return "a Windows EMF spool file";
    case Kind::Emf: return "a Windows EMF metafile";
    case Kind::Xps: return "an XPS document (XPS spool file)";
    case Kind::Image: return "an image file";
    case Kind::Archive: return "a compressed archive";
    case Kind::Binary: return "binary data of no known printer language";
    }
    return "unknown data";
}

bool isConvertible(Kind kind) {
    return kind == Kind::Uel || kind == Kind::Pjl || kind == Kind::Pcl5 || kind == Kind::PclXl ||
           kind == Kind::PostScript || kind == Kind::Pdf || kind == Kind::EmfSpool || kind == Kind::Emf;
}

} // namespace qx::input
