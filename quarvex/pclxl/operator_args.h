#pragma once
// What the PCL XL interpreter's operator code shares: reading attributes (numbers converted
// without overflow, required attributes and their shapes), the error that stops an operator,
// and units of measure.

#include "pclxl/interpreter.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace qx::pclxl {

constexpr double kPi = 3.14159265358979323846;

// A problem with one operator; reported with the operator's name and offset.
struct XlError {
    std::string what;
};

[[noreturn]] inline void failOp(const std::string& what) { throw XlError{what}; }

// Numbers from the stream may be anything a real32 holds; these convert without overflow.
inline int asInt(double v) {
    if (!(v == v))
        return 0;
    return int(std::clamp(v, -2147483648.0, 2147483647.0));
}
inline size_t asSize(double v) {
    if (!(v > 0))
        return 0;
    return v >= 9.0e15 ? size_t(9.0e15) : size_t(v);
}
inline uint8_t asUByte(double v) { return uint8_t(std::clamp(asInt(v), 0, 255)); }
inline uint16_t asUInt16(double v) { return uint16_t(std::clamp(asInt(v), 0, 65535)); }

inline const Value& need(const Operator& op, uint16_t id) {
    const Value* v = op.find(id);
    if (!v) {
        const char* n = attributeName(id);
        failOp(std::string("missing attribute ") + (n ? n : std::to_string(id).c_str()));
    }
    return *v;
}

inline double number(const Operator& op, uint16_t id, double fallback) {
    const Value* v = op.find(id);
    return v ? v->number() : fallback;
}

inline Point xy(const Value& v) {
    if (v.shape == Value::Shape::Xy || v.shape == Value::Shape::Box)
        return {v.v[0], v.v[1]};
    if (v.isArray() && v.size() >= 2)
        return {v.at(0), v.at(1)};
    return {v.number(), v.number()};
}

inline const Value& needXy(const Operator& op, uint16_t id) {
    const Value& v = need(op, id);
    if (v.shape != Value::Shape::Xy) {
        const char* n = attributeName(id);
        failOp(std::string("attribute ") + (n ? n : "?") + " is not an xy pair");
    }
    return v;
}

struct Box {
    double x1, y1, x2, y2;
};

inline Box needBox(const Operator& op, uint16_t id) {
    const Value& v = need(op, id);
    if (v.shape != Value::Shape::Box) {
        const char* n = attributeName(id);
        failOp(std::string("attribute ") + (n ? n : "?") + " is not a box");
    }
    Box b{v.v[0], v.v[1], v.v[2], v.v[3]};
    if (b.x1 > b.x2)
        std::swap(b.x1, b.x2);
    if (b.y1 > b.y2)
        std::swap(b.y1, b.y2);
    return b;
}

inline bool finite(Point p) { return std::isfinite(p.x) && std::isfinite(p.y); }

inline uint8_t clampByte(double v) {
    if (!(v > 0))
        return 0;
    if (v >= 255)
        return 255;
    return uint8_t(std::lround(v));
}

inline double measureToInch(int measure) {
    switch (measure) {
    case eMillimeter: return 25.4;
    case eTenthsOfAMillimeter: return 254.0;
    default: return 1.0;
    }
}

} // namespace qx::pclxl
