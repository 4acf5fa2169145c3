#include "platform/exec.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "platform/exception.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

// Output kept for the log per command; a chatty command must not flood it.
constexpr size_t kMaxOutputBytes = 64 * 1024;
constexpr int kPollMs = 100;

std::atomic<CommandRunner*> gRunnerForTest{nullptr};

// Reads what is available on `fd` into `out` (up to the cap); false at end of file.
bool Drain(int fd, std::string* out) {
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n > 0) {
      size_t room = out->size() < kMaxOutputBytes ? kMaxOutputBytes - out->size() : 0;
      out->append(buf, std::min(room, static_cast<size_t>(n)));
      continue;
    }
    if (n == 0) return false;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;  // nothing more for now
  }
}

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void LogOutput(const std::string& name, const std::string& output, int code) {
  size_t start = 0;
  while (start < output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    std::string line = output.substr(start, end - start);
    if (!line.empty()) {
      if (code == 0) {
        LogInfo("%s: %s: %s", "Exec", name.c_str(), line.c_str());
      } else {
        LogWarning("%s: %s: %s", "Exec", name.c_str(), line.c_str());
      }
    }
    start = end + 1;
  }
}

// Starts argv, collects its output until it exits, and returns its exit code.
int Spawn(const std::vector<std::string>& argv, bool search_path) {
  if (argv.empty() || argv[0].empty()) throw OrsaCtlException("Failed to run: empty command");
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    throw OrsaCtlException("Failed to run " + argv[0] + ": " + strerror(errno));
  }
  UniqueFd read_end, write_end;
  read_end.Reset(pipe_fds[0]);
  write_end.Reset(pipe_fds[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 2);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors that some library opened without O_CLOEXEC must not reach the child either.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
#endif
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t empty, defaults;
  sigemptyset(&empty);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGHUP);
  sigaddset(&defaults, SIGINT);
  posix_spawnattr_setsigmask(&attr, &empty);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  int rc = search_path ? posix_spawnp(&pid, args[0], &actions, &attr, args.data(), environ)
                       : posix_spawn(&pid, args[0], &actions, &attr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) throw OrsaCtlException("Failed to run " + argv[0] + ": " + strerror(rc));
  write_end.Reset();

  // Read until the child exits; a daemon that it left behind may hold the pipe open forever, so
  // end of file is not waited for once the child is gone.
  fcntl(read_end.get(), F_SETFL, fcntl(read_end.get(), F_GETFL) | O_NONBLOCK);
  std::string output;
  int status = 0;
  bool open_pipe = true;
  for (;;) {
    if (open_pipe) {
      struct pollfd p = {read_end.get(), POLLIN, 0};
      int n = poll(&p, 1, kPollMs);
      if (n > 0) open_pipe = Drain(read_end.get(), &output);
    }
    pid_t w = waitpid(pid, &status, open_pipe ? WNOHANG : 0);
    if (w == pid) break;
    if (w < 0 && errno != EINTR) {
      throw OrsaCtlException("Failed to wait for " + argv[0] + ": " + strerror(errno));
    }
  }
  if (open_pipe) Drain(read_end.get(), &output);
  int code = ExitCodeOf(status);
  LogOutput(argv[0], output, code);
  return code;
}

}  // namespace

int LinuxCommandRunner::Run(const std::vector<std::string>& argv) {
  return Spawn(argv, /*search_path=*/true);
}

int LinuxCommandRunner::RunShell(const std::string& command_line) {
  return Spawn({"/bin/sh", "-c", command_line}, /*search_path=*/false);
}

CommandRunner& GetCommandRunner() {
  static LinuxCommandRunner linux_runner;
  CommandRunner* r = gRunnerForTest.load();
  return r != nullptr ? *r : linux_runner;
}

void SetCommandRunnerForTest(CommandRunner* runner) { gRunnerForTest.store(runner); }

std::vector<std::string> SplitArguments(const std::string& arguments) {
  std::vector<std::string> words;
  std::string cur;
  for (char c : arguments) {
    if (c == ' ' || c == '\t' || c == '\n') {
      if (!cur.empty()) words.push_back(cur);
      cur.clear();
    } else {
      cur.push_back(c);
    }
  }
  if (!cur.empty()) words.push_back(cur);
  return words;
}

std::string ShellQuote(const std::string& text) {
  bool plain = !text.empty();
  for (char c : text) {
    if (!(isalnum(static_cast<unsigned char>(c)) || strchr("/._-+=:,@%", c) != nullptr)) {
      plain = false;
      break;
    }
  }
  if (plain) return text;
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted.push_back(c);
    }
  }
  return quoted + "'";
}

}  // namespace platform
}  // namespace kel

namespace NukCtl {
namespace Util {

int NukCtl_Exec(const std::string& commandLine) {
  return kel::platform::GetCommandRunner().RunShell(commandLine);
}

}  // namespace Util

namespace Orsa {
namespace OrsaUtil {

int OrsaExec(const std::string& program, const std::string& arguments) {
  std::vector<std::string> argv{program};
  for (std::string& a : kel::platform::SplitArguments(arguments)) argv.push_back(std::move(a));
  return kel::platform::GetCommandRunner().Run(argv);
}

}  // namespace OrsaUtil
}  // namespace Orsa
}  // namespace NukCtl
