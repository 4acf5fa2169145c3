// The process clock: every retry wait and fixed sleep of the system goes through it, so that tests
// of the retry rules (12 attempts 1 s apart, 31 attempts over 30 s, 300 s lock budgets) run in
// milliseconds while the product keeps the real waits.
#pragma once

#include <chrono>
#include <mutex>
#include <vector>

namespace kel {
namespace platform {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual void SleepFor(std::chrono::milliseconds duration) = 0;
  virtual std::chrono::steady_clock::time_point Now() = 0;
};

// The clock in use (the real one unless a test replaced it). Thread-safe.
Clock& GetClock();
inline void SleepMs(long ms) { GetClock().SleepFor(std::chrono::milliseconds(ms)); }

// Test-only: install `clock` (not owned) for the whole process; nullptr restores the real clock.
void SetClockForTest(Clock* clock);

// A clock whose sleeps return at once and advance its own time; it records every sleep.
class FakeClock : public Clock {
 public:
  void SleepFor(std::chrono::milliseconds duration) override;
  std::chrono::steady_clock::time_point Now() override;
  std::vector<std::chrono::milliseconds> Sleeps() const;
  std::chrono::milliseconds TotalSlept() const;

 private:
  mutable std::mutex mu_;
  std::chrono::steady_clock::duration elapsed_{0};     // guarded by mu_
  std::vector<std::chrono::milliseconds> sleeps_;      // guarded by mu_
};

// Installs a FakeClock for the life of the object (tests).
class ScopedFakeClock {
 public:
  ScopedFakeClock() { SetClockForTest(&clock_); }
  ~ScopedFakeClock() { SetClockForTest(nullptr); }
  FakeClock& clock() { return clock_; }

 private:
  FakeClock clock_;
};

}  // namespace platform
}  // namespace kel
