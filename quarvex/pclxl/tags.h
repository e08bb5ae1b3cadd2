#pragma once
// Byte values of the PCL XL binary stream: data types, attribute identifiers, operators and the
// enumerations the interpreter understands.

#include <cstdint>

namespace qx::pclxl {

// Data type tags. Scalars, arrays, xy pairs and boxes exist for the same six base types.
enum class BaseType : uint8_t { UByte = 0, UInt16 = 1, UInt32 = 2, SInt16 = 3, SInt32 = 4, Real32 = 5 };

namespace tag {
constexpr uint8_t ScalarFirst = 0xC0; // ubyte .. real32: 0xC0 .. 0xC5
constexpr uint8_t ArrayFirst = 0xC8;  // ubyte_array .. real32_array: 0xC8 .. 0xCD
constexpr uint8_t XyFirst = 0xD0;     // ubyte_xy .. real32_xy: 0xD0 .. 0xD5
constexpr uint8_t BoxFirst = 0xE0;    // ubyte_box .. real32_box: 0xE0 .. 0xE5
constexpr uint8_t AttrUByte = 0xF8;
constexpr uint8_t AttrUInt16 = 0xF9;
constexpr uint8_t DataLength = 0xFA;     // embedded data, uint32 length
constexpr uint8_t DataLengthByte = 0xFB; // embedded data, ubyte length
constexpr uint8_t BindingAscii = 0x27;
constexpr uint8_t BindingBigEndian = 0x28;    // '('
constexpr uint8_t BindingLittleEndian = 0x29; // ')'
} // namespace tag

namespace op {
enum : uint8_t {
    BeginSession = 0x41, EndSession = 0x42, BeginPage = 0x43, EndPage = 0x44,
    VendorUnique = 0x46, Comment = 0x47, OpenDataSource = 0x48, CloseDataSource = 0x49,
    EchoComment = 0x4A, Query = 0x4B, Diagnostic3 = 0x4C,
    BeginFontHeader = 0x4F, ReadFontHeader = 0x50, EndFontHeader = 0x51,
    BeginChar = 0x52, ReadChar = 0x53, EndChar = 0x54, RemoveFont = 0x55,
    SetCharAttributes = 0x56, SetDefaultGS = 0x57, SetColorTreatment = 0x58,
    SetGlobalAttributes = 0x59, ClearGlobalAttributes = 0x5A,
    BeginStream = 0x5B, ReadStream = 0x5C, EndStream = 0x5D, ExecStream = 0x5E, RemoveStream = 0x5F,
    PopGS = 0x60, PushGS = 0x61, SetClipReplace = 0x62, SetBrushSource = 0x63,
    SetCharAngle = 0x64, SetCharScale = 0x65, SetCharShear = 0x66, SetClipIntersect = 0x67,
    SetClipRectangle = 0x68, SetClipToPage = 0x69, SetColorSpace = 0x6A, SetCursor = 0x6B,
    SetCursorRel = 0x6C, SetHalftoneMethod = 0x6D, SetFillMode = 0x6E, SetFont = 0x6F,
    SetLineDash = 0x70, SetLineCap = 0x71, SetLineJoin = 0x72, SetMiterLimit = 0x73,
    SetPageDefaultCTM = 0x74, SetPageOrigin = 0x75, SetPageRotation = 0x76, SetPageScale = 0x77,
    SetPaintTxMode = 0x78, SetPenSource = 0x79, SetPenWidth = 0x7A, SetROP = 0x7B,
    SetSourceTxMode = 0x7C, SetCharBoldValue = 0x7D, SetNeutralAxis = 0x7E, SetClipMode = 0x7F,
    SetPathToClip = 0x80, SetCharSubMode = 0x81, BeginUserDefinedLineCap = 0x82,
    EndUserDefinedLineCap = 0x83, CloseSubPath = 0x84, NewPath = 0x85, PaintPath = 0x86,
    ArcPath = 0x91, SetColorTrapping = 0x92, BezierPath = 0x93, SetAdaptiveHalftoning = 0x94,
    BezierRelPath = 0x95, Chord = 0x96, ChordPath = 0x97, Ellipse = 0x98, EllipsePath = 0x99,
    LinePath = 0x9B, LineRelPath = 0x9D, Pie = 0x9E, PiePath = 0x9F,
    Rectangle = 0xA0, RectanglePath = 0xA1, RoundRectangle = 0xA2, RoundRectanglePath = 0xA3,
    Text = 0xA8, TextPath = 0xA9, SystemText = 0xAA,
    BeginImage = 0xB0, ReadImage = 0xB1, EndImage = 0xB2,
    BeginRastPattern = 0xB3, ReadRastPattern = 0xB4, EndRastPattern = 0xB5,
    BeginScan = 0xB6, EndScan = 0xB8, ScanLineRel = 0xB9, PassThrough = 0xBF,
};
} // namespace op

namespace attr {
enum : uint16_t {
    PaletteDepth = 2, ColorSpace = 3, NullBrush = 4, NullPen = 5, PaletteData = 6,
    PaletteIndex = 7, PatternSelectID = 8, GrayLevel = 9, RGBColor = 11, PatternOrigin = 12,
    NewDestinationSize = 13, PrimaryArray = 14, PrimaryDepth = 15,
    AllObjectTypes = 29, TextObjects = 30, VectorObjects = 31, RasterObjects = 32,
    DeviceMatrix = 33, DitherMatrixDataType = 34, DitherOrigin = 35, MediaDestination = 36,
    MediaSize = 37, MediaSource = 38, MediaType = 39, Orientation = 40, PageAngle = 41,
    PageOrigin = 42, PageScale = 43, ROP3 = 44, TxMode = 45, CustomMediaSize = 47,
    CustomMediaSizeUnits = 48, PageCopies = 49, DitherMatrixSize = 50, DitherMatrixDepth = 51,
    SimplexPageMode = 52, DuplexPageMode = 53, DuplexPageSide = 54,
    ArcDirection = 65, BoundingBox = 66, DashOffset = 67, EllipseDimension = 68, EndPoint = 69,
    FillMode = 70, LineCapStyle = 71, LineJoinStyle = 72, MiterLength = 73, LineDashStyle = 74,
    PenWidth = 75, Point = 76, NumberOfPoints = 77, SolidLine = 78, StartPoint = 79,
    PointType = 80, ControlPoint1 = 81, ControlPoint2 = 82, ClipRegion = 83, ClipMode = 84,
    ColorDepthArray = 97, ColorDepth = 98, BlockHeight = 99, ColorMapping = 100,
    CompressMode = 101, DestinationBox = 102, DestinationSize = 103, PatternPersistence = 104,
    PatternDefineID = 105, SourceHeight = 107, SourceWidth = 108, StartLine = 109,
    PadBytesMultiple = 110, BlockByteLength = 111, NumberOfScanLines = 115,
    ColorTreatment = 120, CommentData = 129, DataOrg = 130, Measure = 134, SourceType = 136,
    UnitsPerMeasure = 137, QueryKey = 138, StreamName = 139, StreamDataLength = 140,
    PCLSelectFont = 141, ErrorReport = 143, IOReadTimeOut = 144,
    CharAngle = 161, CharCode = 162, CharDataSize = 163, CharScale = 164, CharShear = 165,
    CharSize = 166, FontHeaderLength = 167, FontName = 168, FontFormat = 169, SymbolSet = 170,
    TextData = 171, CharSubModeArray = 172, WritingMode = 173, BitmapCharScaling = 174,
    XSpacingData = 175, YSpacingData = 176, CharBoldValue = 177,
};
} // namespace attr

// Enumerated attribute values.
enum Measure : uint8_t { eInch = 0, eMillimeter = 1, eTenthsOfAMillimeter = 2 };
enum Orientation : uint8_t { ePortrait = 0, eLandscape = 1, eReversePortrait = 2, eReverseLandscape = 3 };
enum ColorSpaceEnum : uint8_t { eBiLevel = 0, eGray = 1, eRGB = 2, eCMY = 3, eCIELab = 4, eCRGB = 5, eSRGB = 6 };
enum ColorDepthEnum : uint8_t { e1Bit = 0, e4Bit = 1, e8Bit = 2 };
enum ColorMappingEnum : uint8_t { eDirectPixel = 0, eIndexedPixel = 1 };
enum CompressEnum : uint8_t { eNoCompression = 0, eRLECompression = 1, eJPEGCompression = 2, eDeltaRowCompression = 3 };
enum PointTypeEnum : uint8_t { eUByte = 0, eSByte = 1, eUInt16 = 2, eSInt16 = 3 };

const char* operatorName(uint8_t tag); // "BeginSession", or nullptr for an unknown tag
const char* attributeName(uint16_t id); // "MediaSize", or nullptr

} // namespace qx::pclxl
