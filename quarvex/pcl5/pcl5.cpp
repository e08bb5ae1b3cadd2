#include "pcl5/pcl5.h"

#include "pcl5/interpreter.h"

namespace qx::pcl5 {

size_t run(const uint8_t* data, size_t size, JobContext& ctx) {
    Interpreter interpreter(ctx);
    return interpreter.run(data, size);
}

} // namespace qx::pcl5
