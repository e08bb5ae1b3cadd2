#pragma once
// PCL XL (protocol classes 1.x to 3.0, binary bindings of either byte order): the job loop's
// entry point. The data starts at the stream header (") HP-PCL XL;..."). See common/job.h.

#include "common/job.h"

namespace qx::pclxl {

size_t run(const uint8_t* data, size_t size, JobContext& ctx);

} // namespace qx::pclxl
