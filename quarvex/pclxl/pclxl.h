#pragma once
// PCL XL (protocol classes 1.x to 3.0, binary bindings of either byte order): the job loop's
// entry point. The data starts at the stream header (") HP-PCL XL..."). See common/job.h.
//
// Malformed or unsupported input is reported once through ctx.diag.warning() as
// "PCL XL: <what> in <operator> at byte <offset>" (offsets count from the stream header), and
// interpretation stops there: the pages already ejected stay, the page in progress is ejected
// when something was drawn on it, and the rest of the data up to the next Universal Exit
// Language sequence is consumed. Features that are skipped (PCL 5 passages, system text) are
// warned about once and the stream goes on.

#include "common/job.h"

namespace qx::pclxl {

size_t run(const uint8_t* data, size_t size, JobContext& ctx);

} // namespace qx::pclxl
