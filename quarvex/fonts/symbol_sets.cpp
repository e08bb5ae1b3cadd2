// Symbol sets: PCL's character code tables, mapped to Unicode.

#include "fonts/font_library.h"

#include <cctype>
#include <cstring>

namespace qx {
namespace {

struct SymbolSetTable {
    uint16_t id;
    const char32_t* codes;
};

#include "fonts/symbol_set_tables.inc"

const SymbolSetTable* findTable(uint16_t id) {
    for (const SymbolSetTable& t : kTables)
        if (t.id == id)
            return &t;
    return nullptr;
}

struct NamedSet {
    const char* name;
    uint16_t id;
};

// The names PJL uses for SYMSET.
constexpr NamedSet kPjlNames[] = {
    {"ROMAN8", symbolSetId(8, 'U')},   {"PC8", symbolSetId(10, 'U')},
    {"PC850", symbolSetId(12, 'U')},   {"PC852", symbolSetId(17, 'U')},
    {"PC8DN", symbolSetId(11, 'U')},   {"PC8TK", symbolSetId(9, 'T')},
    {"ISOL1", symbolSetId(0, 'N')},    {"ISOL2", symbolSetId(2, 'N')},
    {"ISOL5", symbolSetId(5, 'N')},    {"ISOL9", symbolSetId(9, 'N')},
    {"WIN30", symbolSetId(9, 'U')},    {"WINL1", symbolSetId(19, 'U')},
    {"WINL2", symbolSetId(9, 'E')},    {"WINL5", symbolSetId(5, 'T')},
    {"ASCII", symbolSetId(0, 'U')},    {"USASCII", symbolSetId(0, 'U')},
    {"LEGAL", symbolSetId(1, 'U')},    {"DESKTOP", symbolSetId(7, 'J')},
    {"PSTEXT", symbolSetId(10, 'J')},  {"MATH8", symbolSetId(8, 'M')},
    {"PSMATH", symbolSetId(5, 'M')},   {"MSPUBL", symbolSetId(6, 'J')},
    {"PIFONT", symbolSetId(15, 'L')},  {"SYMBOL", symbolSetId(19, 'M')},
    {"WING", symbolSetId(579, 'L')},   {"UNICODE", symbolSetId(18, 'N')},
    {"ISOL4", symbolSetId(4, 'N')},    {"ISOL6", symbolSetId(6, 'N')},
    {"PC775", symbolSetId(26, 'U')},   {"WINBALT", symbolSetId(19, 'L')},
};

} // namespace

std::optional<uint16_t> parseSymbolSet(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    if (text.empty() || text.size() > 16)
        return std::nullopt;
    // Number and letter: "8U", "19U", "0N".
    size_t i = 0;
    int number = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && i < 5)
        number = number * 10 + (text[i++] - '0');
    if (i > 0 && i + 1 == text.size() && std::isalpha(static_cast<unsigned char>(text[i]))) {
        const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
        if (number <= 2047)
            return symbolSetId(number, letter);
        return std::nullopt;
    }
    std::string upper;
    for (char c : text)
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const NamedSet& n : kPjlNames)
        if (upper == n.name)
            return n.id;
    return std::nullopt;
}

std::string symbolSetName(uint16_t id) {
    const int number = id / 32;
    const int letter = id % 32 + 64;
    return std::to_string(number) + static_cast<char>(letter);
}

bool symbolSetKnown(uint16_t id) {
    return id == symsets::Unicode || id == symsets::Symbol || findTable(id) != nullptr;
}

char32_t symbolSetToUnicode(uint16_t id, uint32_t code) {
    if (id == symsets::Unicode)
        return code < 0x110000 ? static_cast<char32_t>(code) : 0;
    if (code > 255)
        return 0;
    // The Symbol face carries the Symbol font's own encoding in its character map: codes pass
    // through to it where the font's layout, the one PS Math shares, has a glyph (the radical
    // extender has no Unicode character but is one of them). The other codes print nothing.
    if (id == symsets::Symbol)
        return code == 0x60 || findTable(symbolSetId(5, 'M'))->codes[code] ? static_cast<char32_t>(code) : 0;
    const SymbolSetTable* t = findTable(id);
    if (!t)
        t = findTable(symsets::Roman8);
    return t->codes[code];
}

} // namespace qx
