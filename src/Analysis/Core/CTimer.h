#pragma once

#include <chrono>

namespace Quarn::Metrology::Analysis::Core {

// CTimer
//
// A stopwatch on the monotonic clock for stage timings. `GetElapsed()` is in microseconds, so a
// stage report divides by 1000.0 to print milliseconds.
class CTimer {
 public:
  CTimer() { Start(); }
  void Start() { start_ = std::chrono::steady_clock::now(); }
  double GetElapsed() const {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start_).count();
  }
  // Elapsed microseconds, and the timer starts again.
  double Restart() {
    const double elapsed = GetElapsed();
    Start();
    return elapsed;
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace Quarn::Metrology::Analysis::Core
