#pragma once
// PostScript and PDF jobs: the job loop's entry points (see common/job.h). Both hand the job to
// Ghostscript's library (postscript/ghostscript.h) and draw the pages it renders on ctx.device.
//
// A job runs up to the next Universal Exit Language sequence or the end of the data. A
// PostScript error ends the job: the pages printed before it stay, and the error is reported
// through ctx.diag.warning() as "PostScript error /name in command after N page(s)".

#include "common/job.h"

namespace qx::postscript {

// PostScript (also an EPS file, and the PostScript part of a DOS EPS binary file).
size_t runPostScript(const uint8_t* data, size_t size, JobContext& ctx);
// A PDF document; the data starts at "%PDF-".
size_t runPdf(const uint8_t* data, size_t size, JobContext& ctx);

} // namespace qx::postscript
