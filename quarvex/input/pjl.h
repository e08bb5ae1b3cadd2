#pragma once
// Printer Job Language: the @PJL command lines that wrap print jobs. The job loop hands every
// run of @PJL lines to a PjlState, which keeps the DEFAULT and SET values and tells which
// language the next job is in (ENTER LANGUAGE).

#include "common/job.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx {
class Diagnostics;
}

namespace qx::input {

class PjlState {
public:
    struct Lines {
        size_t end = 0;        // offset just past the last @PJL line consumed
        std::string language;  // ENTER LANGUAGE value, upper case; empty = none
        int commands = 0;      // how many @PJL lines were read
    };

    // Reads the @PJL lines that start at pos (blank lines between them are skipped) up to the
    // first line that is not PJL, up to ENTER LANGUAGE (whose line end is consumed too), or the
    // end of the data.
    Lines parseLines(const uint8_t* data, size_t size, size_t pos);

    // Applies one command line ("@PJL SET PAPER=A4"); returns the ENTER LANGUAGE value or "".
    std::string apply(std::string_view line);

    // The values in force for the next job: the DEFAULT values overlaid with the SET ones.
    const PjlDefaults& current() const { return m_current; }
    const PjlDefaults& defaults() const { return m_defaults; }

    // The end of a PJL job (@PJL EOJ): SET values fall back to the DEFAULT ones.
    void endJob() { m_current = m_defaults; }

private:
    void setVariable(PjlDefaults& target, const std::string& name, const std::string& value);

    PjlDefaults m_defaults;
    PjlDefaults m_current;
};

} // namespace qx::input
