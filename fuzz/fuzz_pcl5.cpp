// The PCL 5 parser and interpreter (with HP-GL/2), fed raw bytes as a job after ENTER LANGUAGE.
#include "fuzz_common.h"
#include "pcl5/pcl5.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qxfuzz::withDevice([&](qx::Device& device) {
        qx::Diagnostics diag("fuzz", false);
        qx::JobContext ctx{device, diag, &qxfuzz::fonts(), {}};
        size_t pos = 0;
        // The interpreter stops in front of a UEL; go on after it as the job loop would.
        while (pos < size) {
            const size_t used = qx::pcl5::run(data + pos, size - pos, ctx);
            if (used == 0 || used > size - pos)
                break;
            pos += used;
        }
    });
    return 0;
}
