#include "pclxl/pclxl.h"

#include "pclxl/interpreter.h"

namespace qx::pclxl {

size_t run(const uint8_t* data, size_t size, JobContext& ctx) {
    Interpreter interpreter(ctx);
    return interpreter.run(data, size);
}

} // namespace qx::pclxl
