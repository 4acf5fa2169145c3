// A CommandRunner for tests: records every command instead of running it and answers with exit
// codes the test chose. Installs itself for the whole process while alive.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/exec.h"

namespace kel {
namespace platform {

class FakeCommandRunner : public CommandRunner {
 public:
  FakeCommandRunner();  // installs itself with SetCommandRunnerForTest
  ~FakeCommandRunner() override;
  FakeCommandRunner(const FakeCommandRunner&) = delete;
  FakeCommandRunner& operator=(const FakeCommandRunner&) = delete;

  int Run(const std::vector<std::string>& argv) override;
  int RunShell(const std::string& command_line) override;

  // Commands whose text (argv joined with single blanks, or the shell line) starts with `prefix`
  // exit with `code`; the longest matching prefix wins; everything else exits 0.
  void SetExitCode(const std::string& prefix, int code);
  // Commands whose text starts with `prefix` throw OrsaCtlException(message), as a program that
  // cannot be started does.
  void SetThrow(const std::string& prefix, const std::string& message);

  // Every command so far, as text, in order.
  std::vector<std::string> Commands() const;
  void Clear();

 private:
  int Answer(const std::string& text);

  mutable std::mutex mu_;
  std::vector<std::string> commands_;          // guarded by mu_
  std::map<std::string, int> codes_;           // guarded by mu_
  std::map<std::string, std::string> throws_;  // guarded by mu_
};

}  // namespace platform
}  // namespace kel
