#include "pclxl/pclxl.h"

#include "common/diagnostics.h"

namespace qx::pclxl {

size_t run(const uint8_t* data, size_t size, JobContext& ctx) {
    (void)data;
    ctx.diag.warning("PCL XL: not interpreted yet");
    return size;
}

} // namespace qx::pclxl
