#pragma once
// PCL 5 escape-sequence parser. It only splits the byte stream into commands and text; what the
// commands mean is the interpreter's business.
//
//   ESC x                two-character escape (x in 0x30..0x7E): ESC E, ESC 9, ESC =
//   ESC p g #v ... #V    parameterised escape: parameter character p (0x21..0x2F), an optional
//                        group character g (0x60..0x7E), then one or more value fields, each a
//                        signed decimal number followed by a parameter character; lower case
//                        (0x60..0x7E) continues the sequence, upper case (0x40..0x5E) ends it.
//                        ESC&l0o2A is ESC&l0O followed by ESC&l2A.
//
// Commands that carry data (ESC*b#W, ESC)s#W, ...) take their bytes with takeData() right after
// next() returned them; a combined sequence then goes on after the data.

#include <cstddef>
#include <cstdint>
#include <span>

namespace qx::pcl5 {

struct Command {
    enum class Kind : uint8_t {
        Text,      // printable bytes and control codes, [text, text + textLength)
        Escape2,   // ESC + final
        Param,     // ESC parameter group value final
        End,       // no more data
    };
    Kind kind = Kind::End;
    uint8_t parameter = 0; // 0x21..0x2F, for Param
    uint8_t group = 0;     // 0x60..0x7E or 0 when the sequence has none
    uint8_t final = 0;     // the command letter, always upper case (0x40..0x5E), or the Escape2 byte
    double value = 0;      // the value field, 0 when absent
    bool hasValue = false; // digits were given
    char sign = 0;         // '+', '-' or 0: relative moves depend on an explicit sign
    const uint8_t* text = nullptr;
    size_t textLength = 0;
    size_t offset = 0;     // where the escape sequence (or text) starts in the data

    // The value as an integer, rounded toward zero and clamped into int range.
    int intValue() const;
    bool is(uint8_t p, uint8_t g, uint8_t f) const {
        return kind == Kind::Param && parameter == p && group == g && final == f;
    }
};

class Parser {
public:
    Parser(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    // The next command. Text runs stop at every ESC and are at most maxText bytes long.
    Command next(size_t maxText = 4096);

    // Takes up to n bytes of data that belong to the command just returned. Fewer come back when
    // the data ends early (truncated input).
    std::span<const uint8_t> takeData(size_t n);

    size_t position() const { return m_pos; }
    // Moves to a position (used by modes with a syntax of their own, such as HP-GL/2). Leaves any
    // combined sequence.
    void setPosition(size_t pos);
    size_t size() const { return m_size; }
    const uint8_t* data() const { return m_data; }
    bool atEnd() const { return m_pos >= m_size && !m_inCombined; }
    // Whether the last escape sequence was cut short by the end of the data.
    bool truncated() const { return m_truncated; }
    // Malformed sequences skipped so far.
    int malformed() const { return m_malformed; }

private:
    bool parseValueField(Command& cmd);

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_inCombined = false;
    uint8_t m_parameter = 0;
    uint8_t m_group = 0;
    size_t m_seqStart = 0;
    bool m_truncated = false;
    int m_malformed = 0;
};

} // namespace qx::pcl5
