#include "platform/testing/fake_command_runner.h"

#include "platform/exception.h"

namespace kel {
namespace platform {
namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

FakeCommandRunner::FakeCommandRunner() { SetCommandRunnerForTest(this); }

FakeCommandRunner::~FakeCommandRunner() { SetCommandRunnerForTest(nullptr); }

int FakeCommandRunner::Run(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& a : argv) text += (text.empty() ? "" : " ") + a;
  return Answer(text);
}

int FakeCommandRunner::RunShell(const std::string& command_line) { return Answer(command_line); }

int FakeCommandRunner::Answer(const std::string& text) {
  std::lock_guard<std::mutex> guard(mu_);
  commands_.push_back(text);
  std::string best_throw;
  bool do_throw = false;
  for (const auto& t : throws_) {
    if (StartsWith(text, t.first)) {
      do_throw = true;
      best_throw = t.second;
    }
  }
  if (do_throw) throw HostCtl::Lib::Orsa::OrsaCtlException(best_throw);
  int code = 0;
  size_t best = 0;
  for (const auto& c : codes_) {
    if (StartsWith(text, c.first) && c.first.size() >= best) {
      best = c.first.size();
      code = c.second;
    }
  }
  return code;
}

void FakeCommandRunner::SetExitCode(const std::string& prefix, int code) {
  std::lock_guard<std::mutex> guard(mu_);
  codes_[prefix] = code;
}

void FakeCommandRunner::SetThrow(const std::string& prefix, const std::string& message) {
  std::lock_guard<std::mutex> guard(mu_);
  throws_[prefix] = message;
}

std::vector<std::string> FakeCommandRunner::Commands() const {
  std::lock_guard<std::mutex> guard(mu_);
  return commands_;
}

void FakeCommandRunner::Clear() {
  std::lock_guard<std::mutex> guard(mu_);
  commands_.clear();
}

}  // namespace platform
}  // namespace kel
