// Runs one step function on eight threads at once, each in the multithreaded
// apartment with its own fixed seed, a fixed number of times, and counts the
// steps that failed. The threads meet at a start line so that they really
// overlap; every wait has a limit, and a run that overstays it ends the
// process with a failure report rather than hanging the suite.
#pragma once

#include <objbase.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

namespace xktest {

constexpr int kStressThreads = 8;
constexpr DWORD kStressLimitMs = 20000;

// One thread of a run: its index, its own deterministic random numbers
// (xorshift), and the steps it saw fail.
struct StressThread {
  int index;
  unsigned state;
  long failures = 0;

  unsigned Next(unsigned bound) {
    state ^= state << 13, state ^= state >> 17, state ^= state << 5;
    return state % bound;
  }
  void Check(bool ok) { failures += !ok; }
};

// The process ends here, reported, when a run overstays its limit: its threads
// still use the caller's frame, so there is no way back to the test.
[[noreturn]] inline void StressOverrun(const char* what) {
  std::printf("[  FAILED  ] stress run: %s\n", what);
  std::fflush(stdout);
  std::_Exit(3);
}

// step(thread, n) for n in [0, steps) on every thread; the failures of all threads.
inline long RunStress(int steps, const std::function<void(StressThread&, int)>& step) {
  struct Run {
    const std::function<void(StressThread&, int)>& step;
    int steps;
    ULONGLONG deadline;
    volatile LONG arrived = 0;
    StressThread threads[kStressThreads] = {};
  } run{step, steps, GetTickCount64() + kStressLimitMs};
  struct Start {
    Run* run;
    StressThread* self;
  } starts[kStressThreads];
  auto body = [](void* context) -> DWORD {
    auto [run, self] = *static_cast<Start*>(context);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    InterlockedIncrement(&run->arrived);
    while (run->arrived < kStressThreads && GetTickCount64() < run->deadline) SwitchToThread();
    for (int n = 0; n < run->steps; ++n) run->step(*self, n);
    CoUninitialize();
    return 0;
  };
  HANDLE handles[kStressThreads];
  for (int t = 0; t < kStressThreads; ++t) {
    run.threads[t].index = t;
    run.threads[t].state = 2654435761u * unsigned(t + 1);
    starts[t] = {&run, &run.threads[t]};
    handles[t] = CreateThread(nullptr, 0, body, &starts[t], 0, nullptr);
    if (!handles[t]) StressOverrun("a thread could not start");
  }
  if (WaitForMultipleObjects(kStressThreads, handles, TRUE, kStressLimitMs + 5000) != WAIT_OBJECT_0)
    StressOverrun("threads still going past the limit");
  long failures = 0;
  for (int t = 0; t < kStressThreads; ++t) {
    CloseHandle(handles[t]);
    failures += run.threads[t].failures;
  }
  return failures;
}

}  // namespace xktest
