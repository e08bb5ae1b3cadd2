#pragma once
// PCL 5 (5e and 5c, with HP-GL/2): the job loop's entry point. See common/job.h.

#include "common/job.h"

namespace qx::pcl5 {

size_t run(const uint8_t* data, size_t size, JobContext& ctx);

} // namespace qx::pcl5
