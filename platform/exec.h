// Running host commands: the daemon's control program, the firewall tool.
//
// Commands run synchronously behind the small CommandRunner interface; the Linux runner starts
// them with posix_spawn. The child gets /dev/null as stdin, and one pipe as stdout and stderr whose
// lines go to the service log (info level, warning level when the command failed). Only
// descriptors 0-2 reach the child: every other descriptor is closed in it, so no lock on kel.conf
// or on a LUN disk can leak into a daemon that the command leaves running. The wait ends when the
// command itself exits, even when a daemon it started keeps the output pipe open.
//
// Thread-safety: the runners are thread-safe; the runner in use is swapped only by tests.
#pragma once

#include <string>
#include <vector>

namespace kel {
namespace platform {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs argv[0] (looked up on PATH when it has no "/") with the arguments argv[1..]. Returns the
  // exit code, or 128 + the signal number when it was killed. Throws OrsaCtlException when the
  // program cannot be started at all (not found, not executable).
  virtual int Run(const std::vector<std::string>& argv) = 0;
  // Runs `command_line` with /bin/sh -c; the same result rules as Run (a missing program inside the
  // line is the shell's exit code 127, not an exception).
  virtual int RunShell(const std::string& command_line) = 0;
};

class LinuxCommandRunner : public CommandRunner {
 public:
  int Run(const std::vector<std::string>& argv) override;
  int RunShell(const std::string& command_line) override;
};

// The runner in use (the Linux one unless a test replaced it).
CommandRunner& GetCommandRunner();
// Test-only: install `runner` (not owned) for the whole process; nullptr restores the Linux runner.
void SetCommandRunnerForTest(CommandRunner* runner);

// Splits an argument string at runs of blanks (no quoting: the callers pass plain words).
std::vector<std::string> SplitArguments(const std::string& arguments);

// `text` quoted for /bin/sh when it holds anything but plain path characters.
std::string ShellQuote(const std::string& text);

}  // namespace platform
}  // namespace kel

namespace NukCtl {
namespace Util {
// Runs a shell command line through the runner in use and returns its exit code.
int NukCtl_Exec(const std::string& commandLine);
}  // namespace Util

namespace Orsa {
namespace OrsaUtil {
// Runs `program` with the blank-separated words of `arguments`; returns its exit code. Throws
// OrsaCtlException when the program cannot be started.
int OrsaExec(const std::string& program, const std::string& arguments);
}  // namespace OrsaUtil
}  // namespace Orsa
}  // namespace NukCtl
