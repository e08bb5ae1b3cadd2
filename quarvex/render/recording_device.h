#pragma once
// A device that writes every call down as one line of text, so that tests can check what an
// interpreter draws without comparing pixels. Coordinates are page space, rounded to 0.01 pt.

#include "render/device.h"

#include <string>
#include <vector>

namespace qx {

class RecordingDevice : public Device {
public:
    void beginPage(const PageSpec& page) override;
    void endPage() override;
    void discardPage() override;
    Matrix pageToDevice() const override;

    void fillPath(const Path& path, FillRule rule, const Paint& paint, const RenderState& rs) override;
    void strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                    const RenderState& rs) override;
    void drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                   const RenderState& rs) override;
    void fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                  const RenderState& rs) override;

    // The resolution pageToDevice() reports; 300 dpi unless a test sets another.
    double dpi = 300;

    const std::vector<std::string>& calls() const { return m_calls; }
    int pageCount() const { return m_pages; }
    std::string joined() const;

    static std::string describe(const Path& path);
    static std::string describe(const Paint& paint);
    static std::string describe(const RenderState& rs);
    static std::string describe(const Matrix& m);

private:
    std::vector<std::string> m_calls;
    int m_pages = 0;
    bool m_inPage = false;
};

} // namespace qx
