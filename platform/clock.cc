#include "platform/clock.h"

#include <atomic>
#include <thread>

namespace kel {
namespace platform {
namespace {

class RealClock : public Clock {
 public:
  void SleepFor(std::chrono::milliseconds duration) override {
    std::this_thread::sleep_for(duration);
  }
  std::chrono::steady_clock::time_point Now() override { return std::chrono::steady_clock::now(); }
};

RealClock gRealClock;
std::atomic<Clock*> gClock{nullptr};

}  // namespace

Clock& GetClock() {
  Clock* clock = gClock.load();
  return clock != nullptr ? *clock : gRealClock;
}

void SetClockForTest(Clock* clock) { gClock.store(clock); }

void FakeClock::SleepFor(std::chrono::milliseconds duration) {
  std::lock_guard<std::mutex> lock(mu_);
  elapsed_ += duration;
  sleeps_.push_back(duration);
}

std::chrono::steady_clock::time_point FakeClock::Now() {
  std::lock_guard<std::mutex> lock(mu_);
  return std::chrono::steady_clock::time_point(elapsed_);
}

std::vector<std::chrono::milliseconds> FakeClock::Sleeps() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sleeps_;
}

std::chrono::milliseconds FakeClock::TotalSlept() const {
  std::lock_guard<std::mutex> lock(mu_);
  return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed_);
}

}  // namespace platform
}  // namespace kel
