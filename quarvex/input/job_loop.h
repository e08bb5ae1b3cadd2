#pragma once
// The job loop: walks a whole input file job by job. Universal Exit Language sequences and
// @PJL lines belong to the loop; each stretch of printer language in between goes to its
// interpreter with a JobContext that carries the PJL settings in force. Jobs in languages
// that are not converted (PostScript, PDF, ...) are skipped up to the next UEL and counted in
// the result; the caller reports them.

#include "common/job.h"
#include "input/pjl.h"
#include "input/recognise.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace qx::input {

// The signature every interpreter shares.
using Interpreter = size_t (*)(const uint8_t* data, size_t size, JobContext& ctx);

struct Interpreters {
    Interpreter pcl5 = nullptr;  // null: jobs in that language are skipped with a warning
    Interpreter pclxl = nullptr;
    Interpreter postscript = nullptr;
    Interpreter pdf = nullptr;
    Interpreter emf = nullptr;   // EMF spool files and EMF metafiles

    // The interpreters built into this program.
    static Interpreters builtIn();
};

struct JobLoopResult {
    int pages = 0;               // pages ended on the device
    int jobs = 0;                // language jobs handed to an interpreter
    int skippedJobs = 0;         // jobs in a language that is not converted
    Kind firstSkipped = Kind::Empty;
    std::string firstSkippedWhat; // what the first skipped job looked like, for messages
};

class JobLoop {
public:
    JobLoop(Device& device, Diagnostics& diag, const FontLibrary* fonts,
            Interpreters interpreters = Interpreters::builtIn());

    // Runs every job in data.
    JobLoopResult run(const uint8_t* data, size_t size);

    const PjlState& pjl() const { return m_pjl; }
    // The output's pixel rules, for interpreters that render at the output's pixel grid.
    void setRasterOptions(const RasterOptions* options) { m_raster = options; }

private:
    Device& m_device;
    Diagnostics& m_diag;
    const FontLibrary* m_fonts;
    Interpreters m_interpreters;
    PjlState m_pjl;
    const RasterOptions* m_raster = nullptr;
};

} // namespace qx::input
