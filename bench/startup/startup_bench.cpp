// Measures how long the front end takes from process start until its main window is mapped on
// the X display, and how much memory the idle window holds.
//
// The program under test is started as a plain child process; nothing inside it is changed or
// hooked. The driver watches the root window for MapNotify events and takes the first top-level
// window whose _NET_WM_PID is the child's process id as "the window is shown". After a settling
// pause it reads the child's peak resident size (VmHWM) from /proc, ends the child and collects
// its getrusage maximum resident size as a second opinion.
//
//   quarvel_startup_bench [--runs N] [--settle-ms MS] [--warmup N] /path/to/stage/bin/quarvel
//
// Needs DISPLAY (run it under xvfb-run).
#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Sample {
    double startupMs = 0;   // fork to MapNotify of the main window
    long vmHwmKb = 0;       // peak resident set size while idle, from /proc
    long vmRssKb = 0;       // resident set size after settling
    long maxRssKb = 0;      // getrusage ru_maxrss after exit
    int width = 0, height = 0;
};

std::optional<long> windowPid(Display* dpy, Window w)
{
    static const Atom netWmPid = XInternAtom(dpy, "_NET_WM_PID", False);
    Atom type;
    int format;
    unsigned long items, after;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(dpy, w, netWmPid, 0, 1, False, XA_CARDINAL, &type, &format, &items,
                           &after, &data) != Success || !data)
        return std::nullopt;
    std::optional<long> pid;
    if (type == XA_CARDINAL && format == 32 && items == 1)
        pid = static_cast<long>(*reinterpret_cast<unsigned long*>(data));
    XFree(data);
    return pid;
}

long statusField(pid_t pid, const char* field)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const std::string key = std::string(field) + ":";
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0)
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
    return -1;
}

int ignoreXErrors(Display*, XErrorEvent*) { return 0; }

std::optional<Sample> runOnce(Display* dpy, const char* program, int settleMs, int timeoutMs)
{
    const Window root = DefaultRootWindow(dpy);
    XSelectInput(dpy, root, SubstructureNotifyMask);
    XSync(dpy, True);  // drop anything left from an earlier run

    const auto t0 = Clock::now();
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return std::nullopt;
    }
    if (pid == 0) {
        setenv("QT_QPA_PLATFORM", "xcb", 1);
        execl(program, program, static_cast<char*>(nullptr));
        std::perror("exec");
        _exit(127);
    }

    Sample s;
    bool shown = false;
    const int fd = ConnectionNumber(dpy);
    while (!shown) {
        while (!shown && XPending(dpy)) {
            XEvent ev;
            XNextEvent(dpy, &ev);
            if (ev.type != MapNotify)
                continue;
            const Window w = ev.xmap.window;
            if (windowPid(dpy, w) != static_cast<long>(pid))
                continue;
            const auto t1 = Clock::now();
            XWindowAttributes attrs;
            if (XGetWindowAttributes(dpy, w, &attrs)) {
                s.width = attrs.width;
                s.height = attrs.height;
            }
            s.startupMs = std::chrono::duration<double, std::milli>(t1 - t0).count();
            shown = true;
        }
        if (shown)
            break;
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            std::fprintf(stderr, "the program ended before showing a window\n");
            return std::nullopt;
        }
        const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                                Clock::now() - t0).count();
        if (waited > timeoutMs) {
            std::fprintf(stderr, "no window within %d ms\n", timeoutMs);
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            return std::nullopt;
        }
        pollfd pfd{fd, POLLIN, 0};
        poll(&pfd, 1, 50);
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
    s.vmHwmKb = statusField(pid, "VmHWM");
    s.vmRssKb = statusField(pid, "VmRSS");
    kill(pid, SIGTERM);
    int status;
    rusage ru{};
    wait4(pid, &status, 0, &ru);
    s.maxRssKb = ru.ru_maxrss;
    return s;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

void usage()
{
    std::fprintf(stderr,
                 "usage: quarvel_startup_bench [--runs N] [--warmup N] [--settle-ms MS] "
                 "[--timeout-ms MS] PROGRAM\n");
}

}  // namespace

int main(int argc, char** argv)
{
    int runs = 10, warmup = 1, settleMs = 1000, timeoutMs = 30000;
    const char* program = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> int {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return std::atoi(argv[++i]);
        };
        if (a == "--runs")
            runs = next();
        else if (a == "--warmup")
            warmup = next();
        else if (a == "--settle-ms")
            settleMs = next();
        else if (a == "--timeout-ms")
            timeoutMs = next();
        else if (!a.empty() && a[0] != '-' && !program)
            program = argv[i];
        else {
            usage();
            return 2;
        }
    }
    if (!program || runs < 1) {
        usage();
        return 2;
    }
    if (access(program, X_OK) != 0) {
        std::fprintf(stderr, "not executable: %s\n", program);
        return 2;
    }
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy) {
        std::fprintf(stderr, "cannot open the X display (run under xvfb-run)\n");
        return 2;
    }
    XSetErrorHandler(ignoreXErrors);  // a window may vanish while being inspected

    for (int i = 0; i < warmup; ++i)
        if (!runOnce(dpy, program, 200, timeoutMs))
            return 1;

    std::vector<double> times, hwm, rss, maxrss;
    std::printf("%-5s %12s %10s %10s %12s %10s\n", "run", "startup ms", "VmHWM KiB", "VmRSS KiB",
                "maxrss KiB", "window");
    for (int i = 0; i < runs; ++i) {
        const auto s = runOnce(dpy, program, settleMs, timeoutMs);
        if (!s)
            return 1;
        std::printf("%-5d %12.1f %10ld %10ld %12ld %5dx%d\n", i + 1, s->startupMs, s->vmHwmKb,
                    s->vmRssKb, s->maxRssKb, s->width, s->height);
        std::fflush(stdout);
        times.push_back(s->startupMs);
        hwm.push_back(double(s->vmHwmKb));
        rss.push_back(double(s->vmRssKb));
        maxrss.push_back(double(s->maxRssKb));
    }
    std::printf("\nstart-up to window shown: median %.1f ms, min %.1f ms, max %.1f ms (%d runs)\n",
                median(times), *std::min_element(times.begin(), times.end()),
                *std::max_element(times.begin(), times.end()), runs);
    std::printf("idle window peak memory:  VmHWM median %.1f MiB, VmRSS median %.1f MiB, "
                "ru_maxrss median %.1f MiB\n",
                median(hwm) / 1024, median(rss) / 1024, median(maxrss) / 1024);
    XCloseDisplay(dpy);
    return 0;
}
