#pragma once
// The PCL XL stream reader: turns the bytes of a binary-bound stream into operators, each with
// its attribute list and its embedded data, and reports malformed input with its byte offset.
// It knows nothing of what the operators mean.

#include "pclxl/tags.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qx::pclxl {

// One attribute value: a scalar, an xy pair, a box or an array of one base type.
class Value {
public:
    enum class Shape : uint8_t { Scalar, Xy, Box, Array };

    Shape shape = Shape::Scalar;
    BaseType type = BaseType::UByte;
    double v[4] = {0, 0, 0, 0}; // scalar: v[0]; xy: v[0], v[1]; box: x1, y1, x2, y2

    // Arrays keep their bytes as read; the byte order is the stream's.
    std::vector<uint8_t> raw;
    bool littleEndian = true;

    bool isArray() const { return shape == Shape::Array; }
    bool isReal() const { return type == BaseType::Real32; }
    size_t size() const; // array element count; 1, 2 or 4 for the other shapes
    double at(size_t i) const;
    double number() const { return shape == Shape::Array ? (size() ? at(0) : 0) : v[0]; }
    // The bytes of a ubyte array (or the low bytes of wider arrays), as a string.
    std::string text() const;

    static size_t baseSize(BaseType t);
};

struct Attribute {
    uint16_t id = 0;
    Value value;
};

struct Operator {
    uint8_t tag = 0;
    size_t offset = 0;  // byte offset of the operator tag
    size_t start = 0;   // byte offset of the first attribute (or of the tag when there is none)
    std::vector<Attribute> attrs;
    bool hasData = false;
    const uint8_t* data = nullptr; // embedded data following the operator, if any
    size_t dataSize = 0;

    const Value* find(uint16_t id) const;
    const char* name() const;
};

struct StreamHeader {
    bool littleEndian = true;
    std::string protocolClass; // "2.0" style: class and revision joined with a dot
    std::string comment;
};

class StreamReader {
public:
    enum class Status { Operator, End, Error };

    StreamReader(const uint8_t* data, size_t size);

    // Reads the stream header at the current position. false with error() set when it is not one.
    bool readHeader();
    const StreamHeader& header() const { return m_header; }

    // The next operator; End at the end of the data or in front of a Universal Exit Language
    // sequence (position() then points at it). A stream header met between operators is read
    // and takes effect for what follows.
    Status next(Operator& out);

    size_t position() const { return m_pos; }
    // What went wrong, as "<what> in <where> at byte <offset>".
    const std::string& error() const { return m_error; }
    size_t errorOffset() const { return m_errorOffset; }

private:
    bool fail(const std::string& what, const char* where, size_t offset);
    bool readValue(uint8_t tagByte, Value& out, size_t tagOffset);
    bool readNumber(BaseType t, double& out);
    bool atUel() const;
    bool atHeader() const;
    void skipWhitespace();

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    StreamHeader m_header;
    bool m_haveHeader = false;
    std::string m_error;
    size_t m_errorOffset = 0;
};

} // namespace qx::pclxl
