#include "keld/control.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>

#include "keld/daemon.h"
#include "keld/directory_resolver.h"
#include "keld/json_source.h"
#include "keld/outcome.h"
#include "keld/status.h"
#include "keld/tgt_exec.h"
#include "keld/tgtd_supervisor.h"
#include "platform/clock.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/host_config.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

const int kGoneAttempts = 1500;  // 20 ms apart: 30 s for a daemon to exit after a stop

platform::HostConfig LoadConfig(const ControlOptions& options) {
  platform::HostConfig config = platform::LoadHostConfig(options.configPath);
  platform::SetCurrentHostConfig(config);
  return config;
}

// Prints a command's report, warnings first so that what failed is the last line, and returns
// its exit code.
int PrintReport(const json& reply, std::ostream& err) {
  auto line = [](const Problem& p) {
    return (p.target.empty() ? "" : p.target + ": ") + p.message;
  };
  for (const Problem& p : ProblemsFromJson(reply.value("warnings", json::array()))) {
    err << "warning: " << line(p) << "\n";
  }
  for (const Problem& p : ProblemsFromJson(reply.value("problems", json::array()))) {
    err << line(p) << "\n";
  }
  return reply.value("code", static_cast<int>(Outcome::kFailure));
}

// Whether a daemon holds the state directory's lock (it is released when the process exits,
// even before its parent reaps it).
bool DaemonLockHeld(const std::string& state_dir) {
  int fd = open(KeldLockPath(state_dir).c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  bool held = fcntl(fd, F_OFD_SETLK, &fl) != 0;
  close(fd);
  return held;
}

// Whether `pid` still runs (a zombie or a process past its exit does not).
bool ProcessRunning(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  size_t paren = line.rfind(')');
  if (paren == std::string::npos || paren + 2 >= line.size()) return false;
  char state = line[paren + 2];
  return state != 'Z' && state != 'X';
}

// Waits until the daemon has let go of the state directory and, when its PID is known, has
// finished exiting, so that a caller that sees us return finds nothing of it left.
bool WaitDaemonGone(const std::string& state_dir, pid_t pid) {
  for (int i = 0; i < kGoneAttempts; ++i) {
    if (!DaemonLockHeld(state_dir) && (pid <= 0 || !ProcessRunning(pid))) return true;
    platform::SleepMs(20);
  }
  return false;
}

pid_t DaemonPid(const std::string& state_dir) {
  std::ifstream in(KeldPidPath(state_dir));
  long pid = 0;
  return (in >> pid) && pid > 0 ? static_cast<pid_t>(pid) : -1;
}

TgtdOptions TgtdOptionsFor(const ControlOptions& options, const platform::HostConfig& config) {
  TgtdOptions t;
  t.stateDir = config.stateDir;
  t.controlIndex = config.tgtdControlPort;
  t.tgtdProgram = options.tgtdProgram;
  t.tgtadmProgram = options.tgtadmProgram;
  return t;
}

// Stops the daemon of the state directory, if any, and whatever tgtd it left behind.
int StopDaemon(const ControlOptions& options, const platform::HostConfig& config,
               std::ostream& err) {
  const std::string& dir = config.stateDir;
  const pid_t pid = DaemonLockHeld(dir) ? DaemonPid(dir) : -1;
  json reply;
  std::string error;
  bool not_running = false;
  int code = 0;
  if (KeldRequest(dir, {{"command", "stop"}}, &reply, &error, &not_running)) {
    code = PrintReport(reply, err);
    WaitDaemonGone(dir, pid);
  } else if (!not_running) {
    err << error << "\n";
    code = static_cast<int>(Outcome::kFailure);
  }
  if (DaemonLockHeld(dir) && pid > 0) {
    // Holds the lock but does not answer: SIGTERM makes it run the stop sequence.
    kill(pid, SIGTERM);
    if (!WaitDaemonGone(dir, pid)) {
      kill(pid, SIGKILL);
      WaitDaemonGone(dir, pid);
    }
  }
  TgtdSupervisor::CleanupStale(TgtdOptionsFor(options, config));
  return code;
}

// The daemon keeps running from wherever restart was called; relative paths would break later.
std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[4096];
  if (getcwd(cwd, sizeof(cwd)) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

std::string SelfPath() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return "keld";
  buf[n] = '\0';
  return buf;
}

}  // namespace

int KeldRun(const ControlOptions& options, std::ostream& err) {
  try {
    platform::HostConfig config = LoadConfig(options);
    // keld serves for as long as it runs: with no host agent it keeps the host registered.
    platform::SetDirectoryRole(platform::DirectoryRole::kDaemon);
    DaemonOptions d;
    d.stateDir = config.stateDir;
    d.controlIndex = config.tgtdControlPort;
    d.source = MakeDefaultStateSource(options.desiredStatePath);
    if (d.source->FollowsCluster()) d.resolver = std::make_unique<DirectoryPortalResolver>();
    d.readyFd = options.readyFd;
    d.reconcileIntervalMs = options.reconcileIntervalSeconds * 1000;
    d.checkIntervalMs = options.checkIntervalSeconds * 1000;
    d.tgtdProgram = options.tgtdProgram;
    d.tgtadmProgram = options.tgtadmProgram;
    return RunKeldDaemon(std::move(d));
  } catch (const OrsaCtlException& e) {
    err << e.GetMessage() << "\n";
    if (options.readyFd >= 0) {
      std::string line =
          CommandReportToJson(FailingReport({DaemonProblem(e.GetMessage())})).dump() + "\n";
      ssize_t ignored = write(options.readyFd, line.data(), line.size());
      (void)ignored;
    }
    return static_cast<int>(Outcome::kFailure);
  }
}

int KeldRestart(const ControlOptions& options, std::ostream& err) {
  platform::HostConfig config;
  try {
    config = LoadConfig(options);
  } catch (const OrsaCtlException& e) {
    err << e.GetMessage() << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
  const std::string& dir = config.stateDir;
  StopDaemon(options, config, err);
  mkdir(dir.c_str(), 0755);
  mkdir((dir + "/log").c_str(), 0755);

  // Everything the child needs is prepared before fork: after it only exec-safe calls are made.
  const std::string self = SelfPath();
  std::vector<std::string> args = {self};
  if (!options.configPath.empty()) {
    args.insert(args.end(), {"--config", Absolute(options.configPath)});
  }
  if (!options.desiredStatePath.empty()) {
    args.insert(args.end(), {"--desired-state", Absolute(options.desiredStatePath)});
  }
  args.insert(args.end(), {"run", "--ready-fd", "3", "--interval",
                           std::to_string(options.reconcileIntervalSeconds), "--check-interval",
                           std::to_string(options.checkIntervalSeconds)});
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const std::string out_path = dir + "/log/keld.out";

  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) {
    err << "cannot start keld: pipe: " << ErrnoText(errno) << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
  pid_t child = fork();
  if (child < 0) {
    err << "cannot start keld: fork: " << ErrnoText(errno) << "\n";
    close(p[0]);
    close(p[1]);
    return static_cast<int>(Outcome::kFailure);
  }
  if (child == 0) {
    // Detach: a new session, and a second fork so that the daemon is not a session leader.
    setsid();
    pid_t daemon_pid = fork();
    if (daemon_pid != 0) _exit(daemon_pid < 0 ? 1 : 0);
    if (p[1] == 3) {
      fcntl(3, F_SETFD, 0);
    } else {
      dup2(p[1], 3);
    }
    // Nothing of the caller's may leak into the daemon and from there into tgtd (a listening
    // socket would keep its address busy for as long as they run).
    if (close_range(4, ~0U, 0) != 0) {
      for (int fd = 4; fd < 4096; ++fd) close(fd);
    }
    int null_fd = open("/dev/null", O_RDWR);
    int out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0640);
    if (null_fd >= 0) dup2(null_fd, 0);
    if (out_fd >= 0) {
      dup2(out_fd, 1);
      dup2(out_fd, 2);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(self.c_str(), argv.data());
    _exit(127);
  }
  close(p[1]);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  std::string line;
  char buf[4096];
  while (line.find('\n') == std::string::npos) {
    ssize_t r = read(p[0], buf, sizeof(buf));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    line.append(buf, static_cast<size_t>(r));
  }
  close(p[0]);
  size_t nl = line.find('\n');
  if (nl == std::string::npos) {
    err << "keld exited while starting (see " << out_path << ")\n";
    return static_cast<int>(Outcome::kFailure);
  }
  try {
    return PrintReport(json::parse(line.substr(0, nl)), err);
  } catch (const json::exception& e) {
    err << "keld reported its start-up unreadably: " << e.what() << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
}

int KeldReload(const ControlOptions& options, std::ostream& err) {
  try {
    platform::HostConfig config = LoadConfig(options);
    json reply;
    std::string error;
    bool not_running = false;
    if (!KeldRequest(config.stateDir, {{"command", "reload"}}, &reply, &error, &not_running)) {
      err << error << "\n";
      return static_cast<int>(Outcome::kFailure);
    }
    return PrintReport(reply, err);
  } catch (const OrsaCtlException& e) {
    err << e.GetMessage() << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
}

int KeldIoStop(const ControlOptions& options, std::ostream& err) {
  try {
    platform::HostConfig config = LoadConfig(options);
    return StopDaemon(options, config, err);
  } catch (const OrsaCtlException& e) {
    err << e.GetMessage() << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
}

int KeldStatus(const ControlOptions& options, bool as_json, std::ostream& out, std::ostream& err) {
  try {
    platform::HostConfig config = LoadConfig(options);
    json reply;
    std::string error;
    bool not_running = false;
    ServedStatus status;
    if (!KeldRequest(config.stateDir, {{"command", "status"}}, &reply, &error, &not_running)) {
      if (!not_running) {
        err << error << "\n";
        return static_cast<int>(Outcome::kFailure);
      }
      out << (as_json ? StatusToJson(status).dump(2) + "\n" : StatusToText(status));
      return 3;
    }
    status = StatusFromJson(reply.at("status"));
    out << (as_json ? StatusToJson(status).dump(2) + "\n" : StatusToText(status));
    return 0;
  } catch (const OrsaCtlException& e) {
    err << e.GetMessage() << "\n";
    return static_cast<int>(Outcome::kFailure);
  } catch (const json::exception& e) {
    err << "keld answered with an unreadable status: " << e.what() << "\n";
    return static_cast<int>(Outcome::kFailure);
  }
}

}  // namespace keld
}  // namespace kel
