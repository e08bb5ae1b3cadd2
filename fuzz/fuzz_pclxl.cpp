// The PCL XL stream reader and interpreter, fed raw bytes from the stream header on.
#include "fuzz_common.h"
#include "pclxl/pclxl.h"
#if QX_FUZZ_STREAM
#include "pclxl/stream.h"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The job loop hands over data that starts with a stream header's binding byte.
    if (size == 0 || (data[0] != ')' && data[0] != '(' && data[0] != '`'))
        return -1; // not kept in the corpus
#if QX_FUZZ_STREAM
    // The reader on its own: every operator and attribute it can find.
    {
        qx::pclxl::StreamReader reader(data, size);
        if (reader.readHeader()) {
            qx::pclxl::Operator op;
            size_t count = 0;
            while (reader.next(op) == qx::pclxl::StreamReader::Status::Operator && ++count < 1000000) {
                for (const auto& a : op.attrs) {
                    const size_t n = a.value.size();
                    for (size_t i = 0; i < n && i < 64; ++i)
                        (void)a.value.at(i);
                    (void)a.value.text();
                }
                if (op.hasData && op.dataSize > 0)
                    (void)op.data[op.dataSize - 1];
            }
        }
    }
#endif
    // The interpreter.
    qxfuzz::withDevice([&](qx::Device& device) {
        qx::Diagnostics diag("fuzz", false);
        qx::JobContext ctx{device, diag, &qxfuzz::fonts(), {}};
        (void)qx::pclxl::run(data, size, ctx);
    });
    return 0;
}
