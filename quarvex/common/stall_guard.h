#pragma once
// A bound on work the engine cannot interrupt from inside: Ghostscript's library runs a
// PostScript program until it ends, and a program that loops forever ("{} loop") never does.
// Debian's libgs never calls the poll callback that could stop it, and a PostScript time limit
// set by the job runner would be the job's to undo, so the bound lives outside the interpreter.
//
// How: while a guarded section is open (Ghostscript running one job), a watchdog thread checks
// that a page is finished at least every limitSeconds(). When none is, the watchdog takes the
// page lock - which the page hand-over holds while it draws a page and passes it to the TIFF
// writer - so no page is half written, and calls the handler the command line installed. The
// handler finishes the output file with the pages already written (and commits it by rename,
// as every run does) or drops it, says why, and ends the process with _exit(): the interpreter
// is still inside the endless program and cannot be unwound.
//
// Why a thread and not a child process: the pages stay where they are drawn, the interpreter
// stays one instance for the whole run, normal jobs take exactly the path they took before
// (same bytes, no copies of page rasters through a pipe), and the thread only sleeps. The
// price is that the handler runs beside a main thread that is stuck in the interpreter; the
// page lock and the rule that only the page hand-over touches the output while a section is
// open make that safe.

#include <functional>
#include <mutex>
#include <string>

namespace qx::stall {

// Does not return. Called on the watchdog thread with the page lock held; what says what
// stalled ("the PostScript job finished no page in 60 s").
using Handler = std::function<void(const std::string& what)>;

// The handler for stalls; without one a stall prints what and exits with status 1.
void setHandler(Handler handler);

// Seconds without a finished page before a guarded section counts as stalled: the
// environment's QX_PAGE_TIMEOUT (seconds, fractions allowed), else 60.
double limitSeconds();

// Held while a page is handed over, and by the watchdog while it ends the run.
std::mutex& pageLock();

// A guarded section, open while it lives. name is the work ("PostScript job").
class Section {
public:
    explicit Section(std::string name);
    ~Section();
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
};

// A page was finished: the clock of the open section starts again. Call with pageLock() held.
void progress();

} // namespace qx::stall
