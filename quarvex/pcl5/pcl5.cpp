#include "pcl5/pcl5.h"

#include "common/diagnostics.h"

namespace qx::pcl5 {

size_t run(const uint8_t* data, size_t size, JobContext& ctx) {
    (void)data;
    ctx.diag.warning("PCL 5: not interpreted yet");
    return size;
}

} // namespace qx::pcl5
