// The EMF record player: the input is the records that follow a fixed, valid EMR_HEADER (a
// 50 x 40 mm page whose reference device has 4 pixels a millimetre), so that every run reaches
// the records themselves; bitmaps, regions, paths, text and the graphics state all come from
// the input.
#include "emf/emf.h"
#include "fuzz_common.h"

#include <cstring>
#include <vector>

namespace {

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + size_t(i)] = uint8_t(v >> (8 * i));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> emf(108, 0);
    put32(emf, 0, 1);            // EMR_HEADER
    put32(emf, 4, 108);
    put32(emf, 16, 199);         // bounds
    put32(emf, 20, 159);
    put32(emf, 32, 4999);        // frame, 0.01 mm
    put32(emf, 36, 3999);
    put32(emf, 40, 0x464D4520);  // " EMF"
    put32(emf, 44, 0x10000);
    put32(emf, 72, 200);         // device pixels
    put32(emf, 76, 160);
    put32(emf, 80, 50);          // device millimetres
    put32(emf, 84, 40);
    put32(emf, 100, 50000);      // micrometres
    put32(emf, 104, 40000);
    emf.insert(emf.end(), data, data + size);
    put32(emf, 48, uint32_t(emf.size()));

    qxfuzz::withDevice([&](qx::Device& device) {
        qx::Diagnostics diag("fuzz", false);
        qx::JobContext ctx{device, diag, &qxfuzz::fonts(), {}};
        (void)qx::emf::run(emf.data(), emf.size(), ctx);
    });
    return 0;
}
