#pragma once
// Assembles small PCL XL streams byte by byte for the tests, in either binding.

#include "pclxl/tags.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace qx::pclxl::test {

class XlWriter {
public:
    explicit XlWriter(bool little = true, const std::string& classRev = "2;0", bool header = true)
        : m_little(little) {
        if (header) {
            const std::string h = std::string(little ? ")" : "(") + " HP-PCL XL;" + classRev + ";Test stream\n";
            raw(h);
        }
    }

    std::vector<uint8_t> bytes;
    size_t offset() const { return bytes.size(); }

    XlWriter& raw(const std::string& s) {
        bytes.insert(bytes.end(), s.begin(), s.end());
        return *this;
    }
    XlWriter& raw(std::initializer_list<uint8_t> b) {
        bytes.insert(bytes.end(), b.begin(), b.end());
        return *this;
    }

    // Scalars.
    XlWriter& ub(uint8_t v) { return tag(0xC0).n(v, 1); }
    XlWriter& u16(uint16_t v) { return tag(0xC1).n(v, 2); }
    XlWriter& u32(uint32_t v) { return tag(0xC2).n(v, 4); }
    XlWriter& s16(int16_t v) { return tag(0xC3).n(uint16_t(v), 2); }
    XlWriter& s32(int32_t v) { return tag(0xC4).n(uint32_t(v), 4); }
    XlWriter& r32(float v) { return tag(0xC5).f(v); }
    // xy pairs.
    XlWriter& ubXy(uint8_t x, uint8_t y) { return tag(0xD0).n(x, 1).n(y, 1); }
    XlWriter& u16Xy(uint16_t x, uint16_t y) { return tag(0xD1).n(x, 2).n(y, 2); }
    XlWriter& u32Xy(uint32_t x, uint32_t y) { return tag(0xD2).n(x, 4).n(y, 4); }
    XlWriter& s16Xy(int16_t x, int16_t y) { return tag(0xD3).n(uint16_t(x), 2).n(uint16_t(y), 2); }
    XlWriter& s32Xy(int32_t x, int32_t y) { return tag(0xD4).n(uint32_t(x), 4).n(uint32_t(y), 4); }
    XlWriter& r32Xy(float x, float y) { return tag(0xD5).f(x).f(y); }
    // Boxes.
    XlWriter& ubBox(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return tag(0xE0).n(a, 1).n(b, 1).n(c, 1).n(d, 1); }
    XlWriter& u16Box(uint16_t a, uint16_t b, uint16_t c, uint16_t d) {
        return tag(0xE1).n(a, 2).n(b, 2).n(c, 2).n(d, 2);
    }
    XlWriter& u32Box(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
        return tag(0xE2).n(a, 4).n(b, 4).n(c, 4).n(d, 4);
    }
    XlWriter& s16Box(int16_t a, int16_t b, int16_t c, int16_t d) {
        return tag(0xE3).n(uint16_t(a), 2).n(uint16_t(b), 2).n(uint16_t(c), 2).n(uint16_t(d), 2);
    }
    XlWriter& s32Box(int32_t a, int32_t b, int32_t c, int32_t d) {
        return tag(0xE4).n(uint32_t(a), 4).n(uint32_t(b), 4).n(uint32_t(c), 4).n(uint32_t(d), 4);
    }
    XlWriter& r32Box(float a, float b, float c, float d) { return tag(0xE5).f(a).f(b).f(c).f(d); }
    // Arrays (the length as a uint16 scalar).
    XlWriter& ubArray(const std::vector<uint8_t>& v) {
        tag(0xC8).tag(0xC1).n(uint16_t(v.size()), 2);
        for (uint8_t x : v)
            n(x, 1);
        return *this;
    }
    XlWriter& str(const std::string& s) { return ubArray(std::vector<uint8_t>(s.begin(), s.end())); }
    XlWriter& u16Array(const std::vector<uint16_t>& v) {
        tag(0xC9).tag(0xC0).n(uint8_t(v.size()), 1);
        for (uint16_t x : v)
            n(x, 2);
        return *this;
    }
    XlWriter& u32Array(const std::vector<uint32_t>& v) {
        tag(0xCA).tag(0xC1).n(uint16_t(v.size()), 2);
        for (uint32_t x : v)
            n(x, 4);
        return *this;
    }
    XlWriter& s16Array(const std::vector<int16_t>& v) {
        tag(0xCB).tag(0xC1).n(uint16_t(v.size()), 2);
        for (int16_t x : v)
            n(uint16_t(x), 2);
        return *this;
    }
    XlWriter& s32Array(const std::vector<int32_t>& v) {
        tag(0xCC).tag(0xC1).n(uint16_t(v.size()), 2);
        for (int32_t x : v)
            n(uint32_t(x), 4);
        return *this;
    }
    XlWriter& r32Array(const std::vector<float>& v) {
        tag(0xCD).tag(0xC1).n(uint16_t(v.size()), 2);
        for (float x : v)
            f(x);
        return *this;
    }

    // Attribute id: one byte when it fits, else the two-byte form.
    XlWriter& a(uint16_t id) {
        if (id < 256)
            return tag(0xF8).n(id, 1);
        return tag(0xF9).n(id, 2);
    }
    XlWriter& a16(uint16_t id) { return tag(0xF9).n(id, 2); }
    XlWriter& op(uint8_t t) { return tag(t); }
    // Embedded data after an operator.
    XlWriter& data(const std::vector<uint8_t>& d, bool forceLong = false) {
        if (d.size() < 256 && !forceLong)
            tag(0xFB).n(uint8_t(d.size()), 1);
        else
            tag(0xFA).n(uint32_t(d.size()), 4);
        bytes.insert(bytes.end(), d.begin(), d.end());
        return *this;
    }

    // A session in 300 units per inch (or the given units), and a page on it.
    XlWriter& beginSession(uint16_t units = 300) {
        return u16Xy(units, units).a(attr::UnitsPerMeasure).ub(eInch).a(attr::Measure).op(op::BeginSession);
    }
    XlWriter& openData() { return ub(0).a(attr::SourceType).ub(m_little ? 1 : 0).a(attr::DataOrg).op(op::OpenDataSource); }
    XlWriter& beginPage(uint8_t media = 0, uint8_t orientation = 0) {
        return ub(orientation).a(attr::Orientation).ub(media).a(attr::MediaSize).op(op::BeginPage);
    }
    XlWriter& endPage() { return op(op::EndPage); }
    XlWriter& endSession() { return op(op::CloseDataSource).op(op::EndSession); }
    XlWriter& start(uint8_t media = 0) { return beginSession().openData().beginPage(media); }

    // Multi-byte numbers in the stream's byte order (also for embedded data built by hand).
    std::vector<uint8_t> word(uint16_t v) const {
        return m_little ? std::vector<uint8_t>{uint8_t(v), uint8_t(v >> 8)} : std::vector<uint8_t>{uint8_t(v >> 8), uint8_t(v)};
    }

private:
    XlWriter& tag(uint8_t t) {
        bytes.push_back(t);
        return *this;
    }
    XlWriter& n(uint32_t v, int size) {
        for (int i = 0; i < size; ++i) {
            const int shift = m_little ? 8 * i : 8 * (size - 1 - i);
            bytes.push_back(uint8_t(v >> shift));
        }
        return *this;
    }
    XlWriter& f(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        return n(bits, 4);
    }

    bool m_little;
};

} // namespace qx::pclxl::test
