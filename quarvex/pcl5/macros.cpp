// PCL 5 macros: command sequences stored under an ID (ESC&f#Y) between ESC&f0X and ESC&f1X, then
// executed (ESC&f2X: what they change stays changed), called (ESC&f3X: the print environment
// is put back afterwards) or enabled as an overlay (ESC&f4X: run over every page as it is
// printed, from the user default environment). Macros run at most two deep, and the bytes they
// may store and run are bounded (what they run to a small multiple of the job's own size), so
// that a job cannot make them loop or grow without end.
#include "pcl5/interpreter.h"

#include <utility>

namespace qx::pcl5 {

namespace {

constexpr int kMaxMacroDepth = 2;
constexpr size_t kMacroStoreBudget = 64u * 1024 * 1024;

} // namespace

struct Interpreter::Environment {
    double x = 0, y = 0;
    double leftMargin = 0, rightMargin = 0, topMargin = 0;
    int textLength = 0;
    double vmi = 0, hmi = 0;
    bool perfSkip = true, wrap = false;
    int lineTermination = 0;
    int textPath = 0;
    bool underline = false;
    double underlineStart = 0, underlineY = 0;
    FontState primary, secondary;
    bool secondaryActive = false;
    double unitsPerInch = 300;
    int direction = 0;
    double rectWidth = 0, rectHeight = 0;
    int patternId = 0, currentPatternType = 0, currentPatternId = 0;
    uint8_t rop = 252;
    bool sourceTransparent = true, patternTransparent = true;
    double patternRefX = 0, patternRefY = 0;
    bool patternRotates = true;
    std::vector<Rgb> palette;
    int foreground = 1;
    Rgb foregroundRgb;
    int pixelEncoding = 0, bitsPerIndex = 1;
    bool colourSpaceCmy = false;
    int simpleColour = 0;
    std::array<double, 3> componentValues{};
    int rasterResolution = 75, compression = 0, presentation = 0;
    double destWidth = 0, destHeight = 0;
    double frameWidth = 0, frameHeight = 0, plotWidth = 0, plotHeight = 0;
    double frameAnchorX = 0, frameAnchorY = -1;
};

// Pairs every field of the environment with the interpreter's own: f(current, saved).
template <class F>
void Interpreter::environmentFields(Environment& e, F&& f) {
    f(m_x, e.x);
    f(m_y, e.y);
    f(m_leftMargin, e.leftMargin);
    f(m_rightMargin, e.rightMargin);
    f(m_topMargin, e.topMargin);
    f(m_textLength, e.textLength);
    f(m_vmi, e.vmi);
    f(m_hmi, e.hmi);
    f(m_perfSkip, e.perfSkip);
    f(m_wrap, e.wrap);
    f(m_lineTermination, e.lineTermination);
    f(m_textPath, e.textPath);
    f(m_underline, e.underline);
    f(m_underlineStart, e.underlineStart);
    f(m_underlineY, e.underlineY);
    f(m_primary, e.primary);
    f(m_secondary, e.secondary);
    f(m_secondaryActive, e.secondaryActive);
    f(m_unitsPerInch, e.unitsPerInch);
    f(m_direction, e.direction);
    f(m_rectWidth, e.rectWidth);
    f(m_rectHeight, e.rectHeight);
    f(m_patternId, e.patternId);
    f(m_currentPatternType, e.currentPatternType);
    f(m_currentPatternId, e.currentPatternId);
    f(m_rop, e.rop);
    f(m_sourceTransparent, e.sourceTransparent);
    f(m_patternTransparent, e.patternTransparent);
    f(m_patternRefX, e.patternRefX);
    f(m_patternRefY, e.patternRefY);
    f(m_patternRotates, e.patternRotates);
    f(m_palette, e.palette);
    f(m_foreground, e.foreground);
    f(m_foregroundRgb, e.foregroundRgb);
    f(m_pixelEncoding, e.pixelEncoding);
    f(m_bitsPerIndex, e.bitsPerIndex);
    f(m_colourSpaceCmy, e.colourSpaceCmy);
    f(m_simpleColour, e.simpleColour);
    f(m_componentValues, e.componentValues);
    f(m_rasterResolution, e.rasterResolution);
    f(m_compression, e.compression);
    f(m_presentation, e.presentation);
    f(m_destWidth, e.destWidth);
    f(m_destHeight, e.destHeight);
    f(m_frameWidth, e.frameWidth);
    f(m_frameHeight, e.frameHeight);
    f(m_plotWidth, e.plotWidth);
    f(m_plotHeight, e.plotHeight);
    f(m_frameAnchorX, e.frameAnchorX);
    f(m_frameAnchorY, e.frameAnchorY);
}

Interpreter::Environment Interpreter::saveEnvironment() {
    Environment e;
    environmentFields(e, [](auto& current, auto& saved) { saved = current; });
    return e;
}

void Interpreter::restoreEnvironment(Environment& e) {
    if (m_raster.active)
        endRaster();
    if (m_underline)
        drawUnderline();
    environmentFields(e, [](auto& current, auto& saved) { current = std::move(saved); });
    updatePictureFrame();
}

void Interpreter::defineMacro(std::vector<uint8_t> body) {
    const int id = m_macroId;
    size_t kept = body.size(); // what the store holds once this definition replaces any other
    for (const auto& [other, macro] : m_macros)
        if (other != id)
            kept += macro.body.size();
    if (kept > kMacroStoreBudget) {
        warnOnce("PCL 5: macros exceed the memory budget; further definitions skipped");
        return;
    }
    Macro& m = m_macros[id];
    m.body = std::move(body);
    m.permanent = false; // a new definition starts temporary
}

void Interpreter::macroControl(int operation) {
    switch (operation) {
    case 2: runMacro(m_macroId, true); break;
    case 3: runMacro(m_macroId, false); break;
    case 4:
        if (m_macros.count(m_macroId))
            m_overlayId = m_macroId;
        break;
    case 5: m_overlayId = -1; break;
    case 6: // delete every macro
        m_macros.clear();
        m_overlayId = -1;
        break;
    case 7: // delete the temporary ones
    case 8: // delete this one
        for (auto it = m_macros.begin(); it != m_macros.end();) {
            const bool gone = operation == 7 ? !it->second.permanent : it->first == m_macroId;
            if (gone) {
                if (m_overlayId == it->first)
                    m_overlayId = -1;
                it = m_macros.erase(it);
            } else {
                ++it;
            }
        }
        break;
    case 9:
    case 10:
        if (auto it = m_macros.find(m_macroId); it != m_macros.end())
            it->second.permanent = operation == 10;
        break;
    default: break; // 0 and 1 frame a definition and are taken by the command loop
    }
}

void Interpreter::runMacro(int id, bool keepChanges) {
    auto it = m_macros.find(id);
    if (it == m_macros.end())
        return;
    if (m_macroDepth >= kMaxMacroDepth) {
        warnOnce("PCL 5: macros nested more than two deep; the inner ones skipped");
        return;
    }
    if (m_macroWork + it->second.body.size() > m_macroWorkBudget) {
        warnOnce("PCL 5: macros run too often; further runs skipped");
        return;
    }
    m_macroWork += it->second.body.size();
    // A copy: the macro may redefine or delete itself while it runs.
    const std::vector<uint8_t> body = it->second.body;
    std::optional<Environment> saved;
    if (!keepChanges)
        saved = saveEnvironment();
    ++m_macroDepth;
    interpret(body.data(), body.size());
    --m_macroDepth;
    if (saved)
        restoreEnvironment(*saved);
}

void Interpreter::runOverlay() {
    if (m_inOverlay)
        return;
    m_inOverlay = true;
    Environment saved = saveEnvironment();
    // The user default environment, on the page as it is set up now.
    defaultEnvironment();
    m_direction = 0;
    defaultTextArea();
    updatePictureFrame();
    runMacro(m_overlayId, true);
    restoreEnvironment(saved);
    m_inOverlay = false;
}

void Interpreter::resetMacros() {
    m_overlayId = -1;
    macroControl(7);
}

} // namespace qx::pcl5
