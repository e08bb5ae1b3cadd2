#include "pclxl/stream.h"

#include <cstdio>
#include <cstring>

namespace qx::pclxl {

namespace {

struct Named {
    uint16_t value;
    const char* name;
};

constexpr Named kOperators[] = {
    {op::BeginSession, "BeginSession"}, {op::EndSession, "EndSession"},
    {op::BeginPage, "BeginPage"}, {op::EndPage, "EndPage"},
    {op::VendorUnique, "VendorUnique"}, {op::Comment, "Comment"},
    {op::OpenDataSource, "OpenDataSource"}, {op::CloseDataSource, "CloseDataSource"},
    {op::EchoComment, "EchoComment"}, {op::Query, "Query"}, {op::Diagnostic3, "Diagnostic3"},
    {op::BeginFontHeader, "BeginFontHeader"}, {op::ReadFontHeader, "ReadFontHeader"},
    {op::EndFontHeader, "EndFontHeader"}, {op::BeginChar, "BeginChar"},
    {op::ReadChar, "ReadChar"}, {op::EndChar, "EndChar"}, {op::RemoveFont, "RemoveFont"},
    {op::SetCharAttributes, "SetCharAttributes"}, {op::SetDefaultGS, "SetDefaultGS"},
    {op::SetColorTreatment, "SetColorTreatment"},
    {op::SetGlobalAttributes, "SetGlobalAttributes"},
    {op::ClearGlobalAttributes, "ClearGlobalAttributes"},
    {op::BeginStream, "BeginStream"}, {op::ReadStream, "ReadStream"},
    {op::EndStream, "EndStream"}, {op::ExecStream, "ExecStream"},
    {op::RemoveStream, "RemoveStream"}, {op::PopGS, "PopGS"}, {op::PushGS, "PushGS"},
    {op::SetClipReplace, "SetClipReplace"}, {op::SetBrushSource, "SetBrushSource"},
    {op::SetCharAngle, "SetCharAngle"}, {op::SetCharScale, "SetCharScale"},
    {op::SetCharShear, "SetCharShear"}, {op::SetClipIntersect, "SetClipIntersect"},
    {op::SetClipRectangle, "SetClipRectangle"}, {op::SetClipToPage, "SetClipToPage"},
    {op::SetColorSpace, "SetColorSpace"}, {op::SetCursor, "SetCursor"},
    {op::SetCursorRel, "SetCursorRel"}, {op::SetHalftoneMethod, "SetHalftoneMethod"},
    {op::SetFillMode, "SetFillMode"}, {op::SetFont, "SetFont"},
    {op::SetLineDash, "SetLineDash"}, {op::SetLineCap, "SetLineCap"},
    {op::SetLineJoin, "SetLineJoin"}, {op::SetMiterLimit, "SetMiterLimit"},
    {op::SetPageDefaultCTM, "SetPageDefaultCTM"}, {op::SetPageOrigin, "SetPageOrigin"},
    {op::SetPageRotation, "SetPageRotation"}, {op::SetPageScale, "SetPageScale"},
    {op::SetPaintTxMode, "SetPaintTxMode"}, {op::SetPenSource, "SetPenSource"},
    {op::SetPenWidth, "SetPenWidth"}, {op::SetROP, "SetROP"},
    {op::SetSourceTxMode, "SetSourceTxMode"}, {op::SetCharBoldValue, "SetCharBoldValue"},
    {op::SetNeutralAxis, "SetNeutralAxis"}, {op::SetClipMode, "SetClipMode"},
    {op::SetPathToClip, "SetPathToClip"}, {op::SetCharSubMode, "SetCharSubMode"},
    {op::BeginUserDefinedLineCap, "BeginUserDefinedLineCap"},
    {op::EndUserDefinedLineCap, "EndUserDefinedLineCap"},
    {op::CloseSubPath, "CloseSubPath"}, {op::NewPath, "NewPath"}, {op::PaintPath, "PaintPath"},
    {op::ArcPath, "ArcPath"}, {op::SetColorTrapping, "SetColorTrapping"},
    {op::BezierPath, "BezierPath"}, {op::SetAdaptiveHalftoning, "SetAdaptiveHalftoning"},
    {op::BezierRelPath, "BezierRelPath"}, {op::Chord, "Chord"}, {op::ChordPath, "ChordPath"},
    {op::Ellipse, "Ellipse"}, {op::EllipsePath, "EllipsePath"}, {op::LinePath, "LinePath"},
    {op::LineRelPath, "LineRelPath"}, {op::Pie, "Pie"}, {op::PiePath, "PiePath"},
    {op::Rectangle, "Rectangle"}, {op::RectanglePath, "RectanglePath"},
    {op::RoundRectangle, "RoundRectangle"}, {op::RoundRectanglePath, "RoundRectanglePath"},
    {op::Text, "Text"}, {op::TextPath, "TextPath"}, {op::SystemText, "SystemText"},
    {op::BeginImage, "BeginImage"}, {op::ReadImage, "ReadImage"}, {op::EndImage, "EndImage"},
    {op::BeginRastPattern, "BeginRastPattern"}, {op::ReadRastPattern, "ReadRastPattern"},
    {op::EndRastPattern, "EndRastPattern"}, {op::BeginScan, "BeginScan"},
    {op::EndScan, "EndScan"}, {op::ScanLineRel, "ScanLineRel"},
    {op::PassThrough, "PassThrough"},
};

constexpr Named kAttributes[] = {
    {attr::PaletteDepth, "PaletteDepth"}, {attr::ColorSpace, "ColorSpace"},
    {attr::NullBrush, "NullBrush"}, {attr::NullPen, "NullPen"},
    {attr::PaletteData, "PaletteData"}, {attr::PaletteIndex, "PaletteIndex"},
    {attr::PatternSelectID, "PatternSelectID"}, {attr::GrayLevel, "GrayLevel"},
    {attr::RGBColor, "RGBColor"}, {attr::PatternOrigin, "PatternOrigin"},
    {attr::NewDestinationSize, "NewDestinationSize"}, {attr::PrimaryArray, "PrimaryArray"},
    {attr::PrimaryDepth, "PrimaryDepth"}, {attr::AllObjectTypes, "AllObjectTypes"},
    {attr::TextObjects, "TextObjects"}, {attr::VectorObjects, "VectorObjects"},
    {attr::RasterObjects, "RasterObjects"}, {attr::DeviceMatrix, "DeviceMatrix"},
    {attr::DitherMatrixDataType, "DitherMatrixDataType"}, {attr::DitherOrigin, "DitherOrigin"},
    {attr::MediaDestination, "MediaDestination"}, {attr::MediaSize, "MediaSize"},
    {attr::MediaSource, "MediaSource"}, {attr::MediaType, "MediaType"},
    {attr::Orientation, "Orientation"}, {attr::PageAngle, "PageAngle"},
    {attr::PageOrigin, "PageOrigin"}, {attr::PageScale, "PageScale"}, {attr::ROP3, "ROP3"},
    {attr::TxMode, "TxMode"}, {attr::CustomMediaSize, "CustomMediaSize"},
    {attr::CustomMediaSizeUnits, "CustomMediaSizeUnits"}, {attr::PageCopies, "PageCopies"},
    {attr::DitherMatrixSize, "DitherMatrixSize"}, {attr::DitherMatrixDepth, "DitherMatrixDepth"},
    {attr::SimplexPageMode, "SimplexPageMode"}, {attr::DuplexPageMode, "DuplexPageMode"},
    {attr::DuplexPageSide, "DuplexPageSide"}, {attr::ArcDirection, "ArcDirection"},
    {attr::BoundingBox, "BoundingBox"}, {attr::DashOffset, "DashOffset"},
    {attr::EllipseDimension, "EllipseDimension"}, {attr::EndPoint, "EndPoint"},
    {attr::FillMode, "FillMode"}, {attr::LineCapStyle, "LineCapStyle"},
    {attr::LineJoinStyle, "LineJoinStyle"}, {attr::MiterLength, "MiterLength"},
    {attr::LineDashStyle, "LineDashStyle"}, {attr::PenWidth, "PenWidth"},
    {attr::Point, "Point"}, {attr::NumberOfPoints, "NumberOfPoints"},
    {attr::SolidLine, "SolidLine"}, {attr::StartPoint, "StartPoint"},
    {attr::PointType, "PointType"}, {attr::ControlPoint1, "ControlPoint1"},
    {attr::ControlPoint2, "ControlPoint2"}, {attr::ClipRegion, "ClipRegion"},
    {attr::ClipMode, "ClipMode"}, {attr::ColorDepthArray, "ColorDepthArray"},
    {attr::ColorDepth, "ColorDepth"}, {attr::BlockHeight, "BlockHeight"},
    {attr::ColorMapping, "ColorMapping"}, {attr::CompressMode, "CompressMode"},
    {attr::DestinationBox, "DestinationBox"}, {attr::DestinationSize, "DestinationSize"},
    {attr::PatternPersistence, "PatternPersistence"}, {attr::PatternDefineID, "PatternDefineID"},
    {attr::SourceHeight, "SourceHeight"}, {attr::SourceWidth, "SourceWidth"},
    {attr::StartLine, "StartLine"}, {attr::PadBytesMultiple, "PadBytesMultiple"},
    {attr::BlockByteLength, "BlockByteLength"}, {attr::NumberOfScanLines, "NumberOfScanLines"},
    {attr::ColorTreatment, "ColorTreatment"}, {attr::CommentData, "CommentData"},
    {attr::DataOrg, "DataOrg"}, {attr::Measure, "Measure"}, {attr::SourceType, "SourceType"},
    {attr::UnitsPerMeasure, "UnitsPerMeasure"}, {attr::QueryKey, "QueryKey"},
    {attr::StreamName, "StreamName"}, {attr::StreamDataLength, "StreamDataLength"},
    {attr::PCLSelectFont, "PCLSelectFont"}, {attr::ErrorReport, "ErrorReport"}, {attr::IOReadTimeOut, "IOReadTimeOut"},
    {attr::CharAngle, "CharAngle"}, {attr::CharCode, "CharCode"},
    {attr::CharDataSize, "CharDataSize"}, {attr::CharScale, "CharScale"},
    {attr::CharShear, "CharShear"}, {attr::CharSize, "CharSize"},
    {attr::FontHeaderLength, "FontHeaderLength"}, {attr::FontName, "FontName"},
    {attr::FontFormat, "FontFormat"}, {attr::SymbolSet, "SymbolSet"},
    {attr::TextData, "TextData"}, {attr::CharSubModeArray, "CharSubModeArray"},
    {attr::WritingMode, "WritingMode"}, {attr::BitmapCharScaling, "BitmapCharScaling"},
    {attr::XSpacingData, "XSpacingData"}, {attr::YSpacingData, "YSpacingData"},
    {attr::CharBoldValue, "CharBoldValue"},
};

const char* kTypeNames[] = {"ubyte", "uint16", "uint32", "sint16", "sint32", "real32"};

bool isWhitespace(uint8_t b) { return b == 0x00 || (b >= 0x09 && b <= 0x0D) || b == 0x20; }

double decode(const uint8_t* p, BaseType t, bool little) {
    auto u16 = [&] { return little ? uint16_t(p[0] | p[1] << 8) : uint16_t(p[0] << 8 | p[1]); };
    auto u32 = [&] {
        return little ? (uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24)
                      : (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]));
    };
    switch (t) {
    case BaseType::UByte: return p[0];
    case BaseType::UInt16: return u16();
    case BaseType::UInt32: return u32();
    case BaseType::SInt16: return int16_t(u16());
    case BaseType::SInt32: return int32_t(u32());
    case BaseType::Real32: {
        uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    }
    return 0;
}

std::string hexByte(unsigned b) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02X", b & 0xFF);
    return buf;
}

} // namespace

const char* operatorName(uint8_t t) {
    for (const Named& n : kOperators)
        if (n.value == t)
            return n.name;
    return nullptr;
}

const char* attributeName(uint16_t id) {
    for (const Named& n : kAttributes)
        if (n.value == id)
            return n.name;
    return nullptr;
}

size_t Value::baseSize(BaseType t) {
    switch (t) {
    case BaseType::UByte: return 1;
    case BaseType::UInt16:
    case BaseType::SInt16: return 2;
    default: return 4;
    }
}

size_t Value::size() const {
    switch (shape) {
    case Shape::Scalar: return 1;
    case Shape::Xy: return 2;
    case Shape::Box: return 4;
    case Shape::Array: return raw.size() / baseSize(type);
    }
    return 0;
}

double Value::at(size_t i) const {
    if (shape != Shape::Array)
        return i < 4 ? v[i] : 0;
    const size_t n = baseSize(type);
    if ((i + 1) * n > raw.size())
        return 0;
    return decode(raw.data() + i * n, type, littleEndian);
}

std::string Value::text() const {
    if (shape != Shape::Array)
        return {};
    if (type == BaseType::UByte)
        return std::string(raw.begin(), raw.end());
    // Wider elements keep their low byte; real numbers are truncated first.
    std::string out;
    for (size_t i = 0; i < size(); ++i) {
        const double v = at(i);
        const int64_t whole = v == v && v > -1e18 && v < 1e18 ? int64_t(v) : 0;
        out += char(uint8_t(whole & 0xFF));
    }
    return out;
}

const Value* Operator::find(uint16_t id) const {
    for (const Attribute& a : attrs)
        if (a.id == id)
            return &a.value;
    return nullptr;
}

const char* Operator::name() const {
    const char* n = operatorName(tag);
    return n ? n : "unknown operator";
}

StreamReader::StreamReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

bool StreamReader::fail(const std::string& what, const char* where, size_t offset) {
    m_error = what + " in " + where + " at byte " + std::to_string(offset);
    m_errorOffset = offset;
    return false;
}

bool StreamReader::atUel() const {
    static const char kUel[] = "\x1b%-12345X";
    const size_t n = sizeof kUel - 1;
    return m_size - m_pos >= n && std::memcmp(m_data + m_pos, kUel, n) == 0;
}

bool StreamReader::atHeader() const {
    // A binding byte followed by the protocol name. PopGS shares its byte with the grave accent,
    // so the name has to be there too.
    if (m_pos >= m_size)
        return false;
    const uint8_t b = m_data[m_pos];
    if (b != tag::BindingAscii && b != tag::BindingBigEndian && b != tag::BindingLittleEndian && b != '`')
        return false;
    size_t i = m_pos + 1;
    while (i < m_size && m_data[i] == ' ')
        ++i;
    return m_size - i >= 9 && std::memcmp(m_data + i, "HP-PCL XL", 9) == 0;
}

void StreamReader::skipWhitespace() {
    while (m_pos < m_size && isWhitespace(m_data[m_pos]))
        ++m_pos;
}

bool StreamReader::readHeader() {
    const size_t start = m_pos;
    if (m_pos >= m_size)
        return fail("missing stream header", "stream header", start);
    const uint8_t binding = m_data[m_pos];
    // The header is one text line; a sane one is short.
    size_t end = m_pos;
    const size_t limit = std::min(m_size, m_pos + 4096);
    while (end < limit && m_data[end] != '\n')
        ++end;
    if (end >= limit)
        return fail(end >= m_size ? "truncated stream header" : "stream header line too long",
                    "stream header", start);
    if (end == m_pos)
        return fail("not a PCL XL stream header", "stream header", start);
    std::string line(reinterpret_cast<const char*>(m_data + m_pos + 1), end - m_pos - 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\0'))
        line.pop_back();
    size_t i = 0;
    while (i < line.size() && line[i] == ' ')
        ++i;
    if (line.compare(i, 9, "HP-PCL XL") != 0)
        return fail("not a PCL XL stream header", "stream header", start);
    if (binding == tag::BindingAscii || binding == '`')
        return fail("ASCII binding is not supported (only the binary bindings are)",
                    "stream header", start);
    if (binding != tag::BindingBigEndian && binding != tag::BindingLittleEndian)
        return fail("unknown binding " + hexByte(binding), "stream header", start);
    StreamHeader h;
    h.littleEndian = binding == tag::BindingLittleEndian;
    // HP-PCL XL;<class>;<revision>;<comment>
    std::vector<std::string> fields;
    size_t p = i;
    for (int k = 0; k < 3 && p <= line.size(); ++k) {
        size_t semi = line.find(';', p);
        if (semi == std::string::npos) {
            fields.push_back(line.substr(p));
            p = line.size() + 1;
            break;
        }
        fields.push_back(line.substr(p, semi - p));
        p = semi + 1;
    }
    if (fields.size() >= 3)
        h.protocolClass = fields[1] + "." + fields[2];
    else if (fields.size() == 2)
        h.protocolClass = fields[1];
    if (p <= line.size())
        h.comment = line.substr(p);
    m_header = h;
    m_haveHeader = true;
    m_pos = end + 1;
    return true;
}

bool StreamReader::readNumber(BaseType t, double& out) {
    const size_t n = Value::baseSize(t);
    if (m_size - m_pos < n)
        return false;
    out = decode(m_data + m_pos, t, m_header.littleEndian);
    m_pos += n;
    return true;
}

bool StreamReader::readValue(uint8_t t, Value& out, size_t tagOffset) {
    out = Value{};
    out.littleEndian = m_header.littleEndian;
    uint8_t base;
    if (t >= tag::ScalarFirst && t <= tag::ScalarFirst + 5) {
        out.shape = Value::Shape::Scalar;
        base = t - tag::ScalarFirst;
    } else if (t >= tag::XyFirst && t <= tag::XyFirst + 5) {
        out.shape = Value::Shape::Xy;
        base = t - tag::XyFirst;
    } else if (t >= tag::BoxFirst && t <= tag::BoxFirst + 5) {
        out.shape = Value::Shape::Box;
        base = t - tag::BoxFirst;
    } else {
        out.shape = Value::Shape::Array;
        base = t - tag::ArrayFirst;
    }
    out.type = static_cast<BaseType>(base);
    const std::string typeName = kTypeNames[base];
    if (out.shape != Value::Shape::Array) {
        const char* shapeName = out.shape == Value::Shape::Scalar ? ""
                                : out.shape == Value::Shape::Xy   ? "_xy"
                                                                  : "_box";
        for (size_t k = 0; k < out.size(); ++k)
            if (!readNumber(out.type, out.v[k]))
                return fail("truncated " + typeName + shapeName + " value", "attribute list",
                            tagOffset);
        return true;
    }
    // Array: the element count is a ubyte or uint16 (or uint32) scalar of its own.
    if (m_pos >= m_size)
        return fail("truncated " + typeName + "_array length", "attribute list", tagOffset);
    const uint8_t lenTag = m_data[m_pos++];
    double count = 0;
    if (lenTag < tag::ScalarFirst || lenTag > tag::ScalarFirst + 2)
        return fail("bad " + typeName + "_array length type " + hexByte(lenTag), "attribute list",
                    tagOffset);
    if (!readNumber(static_cast<BaseType>(lenTag - tag::ScalarFirst), count))
        return fail("truncated " + typeName + "_array length", "attribute list", tagOffset);
    const size_t bytes = size_t(count) * Value::baseSize(out.type);
    if (bytes > m_size - m_pos)
        return fail(typeName + "_array of " + std::to_string(size_t(count)) +
                        " elements runs past the end of the data",
                    "attribute list", tagOffset);
    out.raw.assign(m_data + m_pos, m_data + m_pos + bytes);
    m_pos += bytes;
    return true;
}

StreamReader::Status StreamReader::next(Operator& out) {
    out.attrs.clear();
    out.hasData = false;
    out.data = nullptr;
    out.dataSize = 0;
    out.tag = 0;
    bool started = false;
    for (;;) {
        skipWhitespace();
        if (m_pos >= m_size || atUel()) {
            if (started) {
                fail(m_pos >= m_size ? "truncated attribute list" : "attribute list cut by a UEL",
                     "attribute list", out.start);
                return Status::Error;
            }
            return Status::End;
        }
        const size_t here = m_pos;
        const uint8_t b = m_data[m_pos];
        if (!started) {
            out.start = here;
            if (atHeader()) {
                if (!readHeader())
                    return Status::Error;
                continue;
            }
        }
        if (!m_haveHeader) {
            fail("missing stream header", "stream header", here);
            return Status::Error;
        }
        const bool isValue = (b >= 0xC0 && b <= 0xC5) || (b >= 0xC8 && b <= 0xCD) ||
                             (b >= 0xD0 && b <= 0xD5) || (b >= 0xE0 && b <= 0xE5);
        if (isValue) {
            started = true;
            ++m_pos;
            Attribute a;
            if (!readValue(b, a.value, here))
                return Status::Error;
            skipWhitespace();
            if (m_pos >= m_size) {
                fail("value without an attribute id", "attribute list", here);
                return Status::Error;
            }
            const size_t idAt = m_pos;
            const uint8_t idTag = m_data[m_pos++];
            double id = 0;
            if (idTag == tag::AttrUByte) {
                if (!readNumber(BaseType::UByte, id)) {
                    fail("truncated attribute id", "attribute list", idAt);
                    return Status::Error;
                }
            } else if (idTag == tag::AttrUInt16) {
                if (!readNumber(BaseType::UInt16, id)) {
                    fail("truncated attribute id", "attribute list", idAt);
                    return Status::Error;
                }
            } else {
                fail("value without an attribute id (found " + hexByte(idTag) + ")",
                     "attribute list", idAt);
                return Status::Error;
            }
            a.id = uint16_t(id);
            // Attribute lists are small; a stream that piles up thousands is broken.
            if (out.attrs.size() >= 64) {
                fail("too many attributes", "attribute list", here);
                return Status::Error;
            }
            out.attrs.push_back(std::move(a));
            continue;
        }
        if (b == tag::AttrUByte || b == tag::AttrUInt16) {
            fail("attribute id without a value", "attribute list", here);
            return Status::Error;
        }
        if (b == tag::DataLength || b == tag::DataLengthByte) {
            fail("embedded data without an operator", "attribute list", here);
            return Status::Error;
        }
        if (b >= 0x41 && b <= 0xBF && operatorName(b)) {
            out.tag = b;
            out.offset = here;
            if (!started)
                out.start = here;
            ++m_pos;
            if (m_pos < m_size && (m_data[m_pos] == tag::DataLength || m_data[m_pos] == tag::DataLengthByte)) {
                const size_t dataAt = m_pos;
                const BaseType lt = m_data[m_pos] == tag::DataLength ? BaseType::UInt32 : BaseType::UByte;
                ++m_pos;
                double len = 0;
                if (!readNumber(lt, len)) {
                    fail("truncated embedded data length", out.name(), dataAt);
                    return Status::Error;
                }
                if (size_t(len) > m_size - m_pos) {
                    fail("embedded data of " + std::to_string(size_t(len)) + " bytes runs past the end of the data (" +
                             std::to_string(m_size - m_pos) + " left)",
                         out.name(), dataAt);
                    return Status::Error;
                }
                out.hasData = true;
                out.data = m_data + m_pos;
                out.dataSize = size_t(len);
                m_pos += size_t(len);
            }
            return Status::Operator;
        }
        if (b >= 0x41 && b <= 0xBF) {
            fail("unknown operator " + hexByte(b), "stream", here);
            return Status::Error;
        }
        fail("unexpected byte " + hexByte(b), started ? "attribute list" : "stream", here);
        return Status::Error;
    }
}

} // namespace qx::pclxl
