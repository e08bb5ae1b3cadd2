#include "common/stall_guard.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace qx::stall {

namespace {

using Clock = std::chrono::steady_clock;

// Everything below is guarded by pageLock(), except the wake-up condition's own use of it.
struct State {
    std::mutex lock;
    std::condition_variable wake;
    Handler handler;
    bool armed = false;
    bool threadStarted = false;
    std::string name;
    Clock::time_point last;
    std::chrono::duration<double> limit{60};
};

State& state() {
    static State* s = new State; // never destroyed: the watchdog may outlive static destruction
    return *s;
}

std::string seconds(double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, s == std::floor(s) ? "%.0f" : "%.1f", s);
    return buf;
}

[[noreturn]] void watch() {
    State& s = state();
    std::unique_lock<std::mutex> hold(s.lock);
    while (true) {
        if (!s.armed) {
            s.wake.wait(hold);
            continue;
        }
        const auto deadline = s.last + std::chrono::duration_cast<Clock::duration>(s.limit);
        if (Clock::now() < deadline) {
            s.wake.wait_until(hold, deadline);
            continue;
        }
        // Stalled, and the lock is ours: no page is being handed over.
        const std::string what = "the " + s.name + " finished no page in " + seconds(s.limit.count()) +
                                 " s (an endless loop?); it was stopped";
        if (s.handler)
            s.handler(what);
        std::fprintf(stderr, "quarvex: %s\n", what.c_str());
        ::_exit(1);
    }
}

} // namespace

void setHandler(Handler handler) {
    std::lock_guard<std::mutex> hold(state().lock);
    state().handler = std::move(handler);
}

double limitSeconds() {
    if (const char* text = std::getenv("QX_PAGE_TIMEOUT")) {
        char* end = nullptr;
        const double v = std::strtod(text, &end);
        if (end != text && *end == '\0' && v > 0 && v < 1e7)
            return v;
    }
    return 60;
}

std::mutex& pageLock() { return state().lock; }

Section::Section(std::string name) {
    State& s = state();
    const double limit = limitSeconds();
    std::lock_guard<std::mutex> hold(s.lock);
    s.name = std::move(name);
    s.limit = std::chrono::duration<double>(limit);
    s.last = Clock::now();
    s.armed = true;
    if (!s.threadStarted) {
        std::thread(watch).detach();
        s.threadStarted = true;
    }
    s.wake.notify_all();
}

Section::~Section() {
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    s.armed = false;
    s.wake.notify_all();
}

void progress() {
    state().last = Clock::now();
    state().wake.notify_all();
}

} // namespace qx::stall
