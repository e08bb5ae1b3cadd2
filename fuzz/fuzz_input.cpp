// Language recognition, PJL and the job loop over whole files, with both interpreters.
#include "fuzz_common.h"
#include "input/job_loop.h"
#include "input/pjl.h"
#include "input/recognise.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const qx::input::Kind kind = qx::input::recognise(data, size);
    (void)qx::input::describe(kind);
    (void)qx::input::findUel(data, size, 0);
    {
        qx::input::PjlState pjl;
        size_t pos = 0;
        for (int i = 0; i < 64 && pos < size; ++i) {
            const auto lines = pjl.parseLines(data, size, pos);
            if (lines.end <= pos)
                break;
            pos = lines.end;
        }
    }
    qxfuzz::withDevice([&](qx::Device& device) {
        qx::Diagnostics diag("fuzz", false);
        // PostScript and PDF jobs go to Ghostscript, which is not this program's code to fuzz
        // (and a PostScript program may loop for ever): they are skipped here.
        qx::input::Interpreters in = qx::input::Interpreters::builtIn();
        in.postscript = nullptr;
        in.pdf = nullptr;
        qx::input::JobLoop loop(device, diag, &qxfuzz::fonts(), in);
        (void)loop.run(data, size);
    });
    return 0;
}
