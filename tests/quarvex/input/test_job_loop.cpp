// The job loop over whole files, with stand-in interpreters that write down what they were
// given: which language, which bytes and which PJL values. Each '#' in a job prints a page.

#include "input/job_loop.h"

#include "common/diagnostics.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qx::JobContext;
using qx::input::Interpreters;
using qx::input::JobLoop;
using qx::input::Kind;

namespace {

struct Call {
    std::string language;
    std::string data;
    qx::PjlDefaults pjl;
};

std::vector<Call> g_calls;

size_t fakeRun(const char* language, const uint8_t* d, size_t n, JobContext& ctx) {
    const size_t end = qx::input::findUel(d, n, 0);
    g_calls.push_back({language, std::string(reinterpret_cast<const char*>(d), end), ctx.pjl});
    for (size_t i = 0; i < end; ++i) {
        if (d[i] == '#') {
            ctx.device.beginPage(qx::PageSpec{});
            ctx.device.endPage();
        }
    }
    return end;
}

size_t fakePcl5(const uint8_t* d, size_t n, JobContext& ctx) { return fakeRun("pcl5", d, n, ctx); }
size_t fakePclxl(const uint8_t* d, size_t n, JobContext& ctx) { return fakeRun("pclxl", d, n, ctx); }
size_t stuck(const uint8_t*, size_t, JobContext&) { return 0; }
size_t greedy(const uint8_t*, size_t n, JobContext&) { return n + 1000; }

struct LoopRun {
    qx::input::JobLoopResult result;
    std::vector<std::string> messages;
    int devicePages = 0;
};

LoopRun runLoop(const std::string& file, Interpreters in = {fakePcl5, fakePclxl}) {
    g_calls.clear();
    qx::RecordingDevice device;
    qx::Diagnostics diag("test.prn", false);
    JobLoop loop(device, diag, nullptr, in);
    LoopRun r;
    r.result = loop.run(reinterpret_cast<const uint8_t*>(file.data()), file.size());
    r.messages = diag.lines();
    r.devicePages = device.pageCount();
    return r;
}

const std::string UEL = "\x1b%-12345X";

} // namespace

TEST(JobLoop, BarePclFile) {
    const LoopRun r = runLoop("\x1b" "E page one #\f page two #\x1b" "E");
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].language, "pcl5");
    EXPECT_EQ(r.result.pages, 2);
    EXPECT_EQ(r.devicePages, 2);
    EXPECT_EQ(r.result.jobs, 1);
    EXPECT_TRUE(r.messages.empty());
}

TEST(JobLoop, SeveralJobsAndLanguageSwitches) {
    const std::string file = UEL + "@PJL JOB\r\n@PJL SET RESOLUTION=600\r\n@PJL ENTER LANGUAGE=PCL\r\n\x1b" "E#" +
                             UEL + "@PJL ENTER LANGUAGE=PCLXL\r\n) HP-PCL XL;2;0\n##" +
                             UEL + "@PJL EOJ\r\n" + UEL;
    const LoopRun r = runLoop(file);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].language, "pcl5");
    EXPECT_EQ(g_calls[0].data, "\x1b" "E#");
    EXPECT_EQ(g_calls[0].pjl.resolution, 600);
    EXPECT_EQ(g_calls[1].language, "pclxl");
    EXPECT_EQ(g_calls[1].data, ") HP-PCL XL;2;0\n##");
    EXPECT_EQ(g_calls[1].pjl.resolution, 600) << "SET lasts until the end of the PJL job";
    EXPECT_EQ(r.result.pages, 3);
    EXPECT_EQ(r.result.jobs, 2);
    EXPECT_EQ(r.result.skippedJobs, 0);
}

TEST(JobLoop, LanguageRecognisedWithoutEnterLanguage) {
    const LoopRun r = runLoop(UEL + "@PJL JOB\r\n) HP-PCL XL;3;0\n#" + UEL + "\x1b" "E#" + UEL);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].language, "pclxl");
    EXPECT_EQ(g_calls[1].language, "pcl5");
    EXPECT_EQ(r.result.pages, 2);
}

TEST(JobLoop, SetValuesEndWithTheJobDefaultsStay) {
    const std::string file = UEL + "@PJL DEFAULT FORMLINES=50\n@PJL SET PAPER=A4\n@PJL ENTER LANGUAGE=PCL\n#" + UEL +
                             "@PJL EOJ\n" + UEL + "@PJL ENTER LANGUAGE=PCL\n#" + UEL;
    runLoop(file);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].pjl.paper, "A4");
    EXPECT_EQ(g_calls[0].pjl.formLines, 50);
    EXPECT_EQ(g_calls[1].pjl.paper, "");
    EXPECT_EQ(g_calls[1].pjl.formLines, 50);
}

TEST(JobLoop, PostScriptJobsAreSkippedAndCounted) {
    const std::string file = UEL + "@PJL ENTER LANGUAGE=POSTSCRIPT\n%!PS\nshowpage # #\n" + UEL +
                             "@PJL ENTER LANGUAGE=PCL\n#" + UEL;
    const LoopRun r = runLoop(file);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].language, "pcl5");
    EXPECT_EQ(r.result.pages, 1);
    EXPECT_EQ(r.result.skippedJobs, 1);
    EXPECT_EQ(r.result.firstSkipped, Kind::PostScript);
    EXPECT_EQ(r.result.firstSkippedWhat, "PostScript");
}

TEST(JobLoop, PostScriptRecognisedByContentIsSkipped) {
    const LoopRun r = runLoop(UEL + "@PJL JOB\n%!PS-Adobe-3.0\n#" + UEL + "%PDF-1.4 #" + UEL);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(r.result.pages, 0);
    EXPECT_EQ(r.result.skippedJobs, 2);
    EXPECT_EQ(r.result.firstSkipped, Kind::PostScript);
}

size_t fakePostScript(const uint8_t* d, size_t n, JobContext& ctx) { return fakeRun("postscript", d, n, ctx); }
size_t fakePdf(const uint8_t* d, size_t n, JobContext& ctx) { return fakeRun("pdf", d, n, ctx); }

TEST(JobLoop, PostScriptAndPdfJobsGoToTheirInterpreters) {
    const std::string file = UEL + "@PJL SET PAPER=A4\n@PJL ENTER LANGUAGE=POSTSCRIPT\n%!PS\n#\n" + UEL +
                             "\n%PDF-1.4 # #" + UEL + "@PJL ENTER LANGUAGE=PCL\n#" + UEL;
    Interpreters in{fakePcl5, fakePclxl};
    in.postscript = fakePostScript;
    in.pdf = fakePdf;
    const LoopRun r = runLoop(file, in);
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[0].language, "postscript");
    EXPECT_EQ(g_calls[0].data, "%!PS\n#\n");
    EXPECT_EQ(g_calls[0].pjl.paper, "A4");
    EXPECT_EQ(g_calls[1].language, "pdf");
    EXPECT_EQ(g_calls[1].data, "%PDF-1.4 # #"); // from the signature on, blanks before it left out
    EXPECT_EQ(g_calls[2].language, "pcl5");
    EXPECT_EQ(r.result.pages, 4);
    EXPECT_EQ(r.result.skippedJobs, 0);
}

TEST(JobLoop, UnknownLanguageIsNamed) {
    const LoopRun r = runLoop(UEL + "@PJL ENTER LANGUAGE=ZJS\n#\x01\x02#" + UEL);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(r.result.skippedJobs, 1);
    EXPECT_NE(r.result.firstSkippedWhat.find("ZJS"), std::string::npos);
}

TEST(JobLoop, AnInterpreterThatMakesNoProgressDoesNotHang) {
    const std::string file = "\x1b" "E#" + UEL + "\x1b" "E#" + UEL;
    const LoopRun r = runLoop(file, {stuck, fakePclxl});
    EXPECT_EQ(r.result.jobs, 2);
    EXPECT_EQ(r.result.pages, 0);
    ASSERT_FALSE(r.messages.empty());
    EXPECT_NE(r.messages[0].find("quarvex: test.prn: "), std::string::npos);
}

TEST(JobLoop, AnInterpreterThatClaimsTooMuchEndsTheFile) {
    const LoopRun r = runLoop("\x1b" "E#" + UEL + "\x1b" "E#", {greedy, fakePclxl});
    EXPECT_EQ(r.result.jobs, 1);
}

TEST(JobLoop, MissingInterpreterSkipsWithAWarning) {
    const LoopRun r = runLoop("\x1b" "E#" + UEL + ") HP-PCL XL;2;0\n#", {nullptr, fakePclxl});
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].language, "pclxl");
    EXPECT_EQ(r.result.pages, 1);
    EXPECT_EQ(r.messages.size(), 1u);
}

TEST(JobLoop, PjlOnlyAndBlankFilesRunNoJob) {
    EXPECT_EQ(runLoop(UEL + "@PJL INFO STATUS\r\n" + UEL).result.jobs, 0);
    EXPECT_EQ(runLoop("\r\n\r\n" + UEL + "\r\n" + UEL + "\r\n").result.jobs, 0);
    EXPECT_EQ(runLoop("").result.jobs, 0);
    EXPECT_EQ(runLoop(UEL.substr(0, 5)).result.jobs, 1) << "half a UEL is data";
}

TEST(JobLoop, TextJobsGoToPcl) {
    const LoopRun r = runLoop(UEL + "@PJL JOB\r\nPlain text #\r\n" + UEL);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].language, "pcl5");
    EXPECT_EQ(g_calls[0].data, "Plain text #\r\n");
}

TEST(JobLoop, ManyJobsInOneFile) {
    std::string file;
    for (int i = 0; i < 500; ++i)
        file += UEL + "@PJL ENTER LANGUAGE=PCL\n\x1b" "E#";
    const LoopRun r = runLoop(file + UEL);
    EXPECT_EQ(r.result.jobs, 500);
    EXPECT_EQ(r.result.pages, 500);
}
