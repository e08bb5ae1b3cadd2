// The EMF spool container reader, and each page it finds played through the EMF reader.
#include "emf/emf.h"
#include "emf/spool.h"
#include "fuzz_common.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The job loop hands over data that starts with the spool version; give every input one.
    std::vector<uint8_t> spool(data, data + size);
    if (spool.size() < 4)
        spool.resize(4, 0);
    spool[0] = 0x00, spool[1] = 0x00, spool[2] = 0x01, spool[3] = 0x00;

    const qx::emf::SpoolContents contents = qx::emf::readSpool(spool.data(), spool.size());
    unsigned sum = 0;
    for (const qx::emf::SpoolPage& page : contents.pages)
        if (page.emf.size > 0)
            sum += page.emf.data[0] + page.emf.data[page.emf.size - 1];
    (void)sum;
    if (contents.used > spool.size())
        __builtin_trap();

    qxfuzz::withDevice([&](qx::Device& device) {
        qx::Diagnostics diag("fuzz", false);
        qx::JobContext ctx{device, diag, &qxfuzz::fonts(), {}};
        (void)qx::emf::run(spool.data(), spool.size(), ctx);
    });
    return 0;
}
