// Running tgtd's programs: argument vectors only (never a shell), output captured.
//
// This is where errno from fork/exec/pipe/wait becomes a message for the keld host code.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kel {
namespace keld {

struct ExecResult {
  int exitCode = -1;    // the program's exit code; 128 + n when killed by signal n; -1 not run
  std::string out;      // standard output
  std::string err;      // standard error
  std::string failure;  // why the program could not be run (empty when it ran)
};

// Runs argv[0] (looked up in PATH) with argv, stdin from /dev/null, and waits for it.
// Thread-safe; every descriptor it creates is close-on-exec.
ExecResult RunProgram(const std::vector<std::string>& argv);

// Starts argv[0] in the background with stdin from /dev/null and stdout/stderr appended to
// `log_path` (or /dev/null when empty). Returns the child's PID, or -1 with `*error` set.
// The caller owns the child and must reap it (waitpid).
pid_t SpawnProgram(const std::vector<std::string>& argv, const std::string& log_path,
                   std::string* error);

// Text of errno `err` ("No such file or directory").
std::string ErrnoText(int err);

}  // namespace keld
}  // namespace kel
