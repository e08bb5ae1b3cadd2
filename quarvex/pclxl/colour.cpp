// PCL XL colour: colour spaces and palettes, and the pen and brush paints (grey, RGB, palette
// index, pattern or null) that operators select.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

namespace qx::pclxl {

void Interpreter::setColorSpace(const Operator& op) {
    ColorState cs;
    int space = asInt(number(op, attr::ColorSpace, eGray));
    if (space == eSRGB || space == eCRGB)
        space = eRGB;
    if (space != eGray && space != eRGB && space != eBiLevel)
        failOp("unsupported ColorSpace " + std::to_string(space));
    cs.space = uint8_t(space);
    if (const Value* data = op.find(attr::PaletteData)) {
        const int depth = asInt(number(op, attr::PaletteDepth, e8Bit));
        if (depth != e8Bit)
            failOp("PaletteDepth must be 8 bits");
        const size_t comps = space == eRGB ? 3 : 1;
        const size_t n = data->size() / comps;
        if (n == 0 || n * comps != data->size() || n > 256)
            failOp("PaletteData does not match the colour space");
        cs.palette.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            if (comps == 3)
                cs.palette.push_back({clampByte(data->at(i * 3)), clampByte(data->at(i * 3 + 1)),
                                      clampByte(data->at(i * 3 + 2))});
            else {
                const uint8_t g = clampByte(data->at(i));
                cs.palette.push_back({g, g, g});
            }
        }
    }
    m_gs.color = cs;
}

Rgb Interpreter::grayColor(const Value& v) const {
    double g = v.number();
    if (v.isReal())
        g *= 255.0;
    else if (m_gs.color.space == eBiLevel && g <= 1)
        g *= 255.0;
    const uint8_t b = clampByte(g);
    return {b, b, b};
}

Rgb Interpreter::colorFromSpace(const Value& v, uint8_t space, int depthBits) const {
    const double maxv = v.isReal() ? 1.0 : double((1 << depthBits) - 1);
    auto chan = [&](size_t i) { return clampByte(v.at(i) / maxv * 255.0); };
    if (space == eRGB) {
        if (v.size() >= 3)
            return {chan(0), chan(1), chan(2)};
        if (v.size() == 1)
            return {chan(0), chan(0), chan(0)};
        failOp("colour needs three components");
    }
    if (v.size() == 3) {
        const Rgb c{chan(0), chan(1), chan(2)};
        return c;
    }
    if (v.size() >= 1)
        return {chan(0), chan(0), chan(0)};
    failOp("empty colour");
}

Paint Interpreter::paintFrom(const Operator& op, bool& isNull) {
    isNull = false;
    if (op.find(attr::NullBrush) || op.find(attr::NullPen)) {
        isNull = true;
        return Paint::none();
    }
    if (const Value* v = op.find(attr::RGBColor))
        return Paint::solid(colorFromSpace(*v, eRGB));
    if (const Value* v = op.find(attr::GrayLevel)) {
        // With a palette, an integer grey level picks a palette entry.
        if (!m_gs.color.palette.empty() && !v->isReal() && !v->isArray()) {
            const size_t i = asSize(v->number());
            return Paint::solid(i < m_gs.color.palette.size() ? m_gs.color.palette[i] : Rgb::black());
        }
        return Paint::solid(grayColor(*v));
    }
    if (const Value* v = op.find(attr::PaletteIndex)) {
        const size_t i = asSize(v->number());
        if (i >= m_gs.color.palette.size())
            failOp("PaletteIndex outside the palette");
        return Paint::solid(m_gs.color.palette[i]);
    }
    if (const Value* v = op.find(attr::PrimaryArray)) {
        const int depth = asInt(number(op, attr::PrimaryDepth, e8Bit));
        const int bits = depth == e1Bit ? 1 : depth == e4Bit ? 4 : 8;
        if (!m_gs.color.palette.empty() && v->size() == 1 && !v->isReal()) {
            const size_t i = asSize(v->at(0));
            return Paint::solid(i < m_gs.color.palette.size() ? m_gs.color.palette[i] : Rgb::black());
        }
        return Paint::solid(colorFromSpace(*v, m_gs.color.space, bits));
    }
    if (op.find(attr::PatternSelectID))
        return Paint::solid(Rgb::black()); // replaced by the pattern
    failOp("no colour given");
}

} // namespace qx::pclxl
