// Plays an EMF (or EMF spool file) into the recording device, for the EMF player tests.
#pragma once

#include "emf_writer.h"

#include "common/diagnostics.h"
#include "common/job.h"
#include "emf/emf.h"
#include "fonts/font_library.h"
#include "render/recording_device.h"

#include <algorithm>
#include <string>

namespace qx::emf::test {

struct Played {
    RecordingDevice device;
    Diagnostics diag{"test", false};
    std::string calls;

    explicit Played(const Buffer& data, const FontLibrary* fonts = nullptr) {
        JobContext ctx{device, diag, fonts, {}};
        run(data.data(), data.size(), ctx);
        calls = device.joined();
    }
    size_t count(const std::string& prefix) const {
        return size_t(std::count_if(device.calls().begin(), device.calls().end(),
                                    [&](const std::string& c) { return c.rfind(prefix, 0) == 0; }));
    }
    bool has(const std::string& part) const { return calls.find(part) != std::string::npos; }
    bool warned(const std::string& part) const {
        return std::any_of(diag.lines().begin(), diag.lines().end(),
                           [&](const std::string& l) { return l.find(part) != std::string::npos; });
    }
};

} // namespace qx::emf::test
