#include "keld/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "keld/disk_lock.h"
#include "keld/outcome.h"
#include "keld/reconciler.h"
#include "keld/status.h"
#include "keld/tgt_exec.h"
#include "keld/tgtd_supervisor.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

const char kTag[] = "keld";
const int kRequestTimeoutMs = 5000;
const int kTgtdRetryMs = 5000;
const size_t kMaxRequest = 1 << 16;

bool FillAddress(const std::string& path, sockaddr_un* addr, std::string* error) {
  *addr = {};
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr->sun_path)) {
    *error = "socket path " + path + " is too long";
    return false;
  }
  memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

// Reads up to the first newline (or EOF), waiting at most `timeout_ms` for each piece.
bool ReadLine(int fd, int timeout_ms, std::string* line) {
  line->clear();
  char buf[4096];
  while (line->find('\n') == std::string::npos && line->size() < kMaxRequest * 64) {
    pollfd p = {fd, POLLIN, 0};
    int n = poll(&p, 1, timeout_ms);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    ssize_t r = read(fd, buf, sizeof(buf));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    line->append(buf, static_cast<size_t>(r));
  }
  size_t nl = line->find('\n');
  if (nl != std::string::npos) line->resize(nl);
  return !line->empty();
}

// Sockets are written with MSG_NOSIGNAL so that a client that went away cannot kill us; the
// start-up report goes to a pipe, where send() does not work.
void WriteAll(int fd, const std::string& text, bool socket = true) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t w = socket ? send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL)
                       : write(fd, text.data() + done, text.size() - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;  // the client went away; nothing to tell it
    done += static_cast<size_t>(w);
  }
}

bool SameProblems(const std::vector<Problem>& a, const std::vector<Problem>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].code != b[i].code || a[i].target != b[i].target || a[i].message != b[i].message) {
      return false;
    }
  }
  return true;
}

void LogProblems(const std::vector<Problem>& problems) {
  for (const Problem& p : problems) {
    const std::string target = p.target.empty() ? "" : p.target + ": ";
    if (p.daemonWide) {
      LogError("%s: %s%s\n", kTag, target.c_str(), p.message.c_str());
    } else {
      LogWarning("%s: %s%s\n", kTag, target.c_str(), p.message.c_str());
    }
  }
}

class Daemon {
 public:
  explicit Daemon(DaemonOptions options)
      : options_(std::move(options)),
        supervisor_(TgtdOptions{options_.stateDir, options_.controlIndex, options_.tgtdProgram,
                                options_.tgtadmProgram, options_.tgtdSocketDir}),
        resolver_(options_.resolver ? std::move(options_.resolver)
                                    : std::make_unique<LocalPortalResolver>()) {}

  ~Daemon() {
    // The source and the resolver may be called back from directory threads until they are
    // gone; they go before the descriptor their callbacks write to.
    reconciler_.reset();
    options_.source.reset();
    resolver_.reset();
    if (wake_fd_ >= 0) close(wake_fd_);
    if (listen_fd_ >= 0) {
      close(listen_fd_);
      unlink(KeldSocketPath(options_.stateDir).c_str());
    }
    if (signal_fd_ >= 0) close(signal_fd_);
    if (lock_fd_ >= 0) {
      unlink(KeldPidPath(options_.stateDir).c_str());
      close(lock_fd_);
    }
    if (options_.readyFd >= 0) close(options_.readyFd);
  }

  int Run();

 private:
  bool Prepare(Problem* problem);
  bool StartTgtd(Problem* problem);
  bool EnsureTgtd();
  bool Load(DesiredState* desired, std::vector<Problem>* problems);
  ReconcileResult Reconcile(bool requested);
  void Apply(const DesiredState& desired, ReconcileResult* result);
  void Check();
  void Finish(const std::vector<Problem>& problems, bool requested);
  std::map<std::string, std::vector<std::string>> ResolvedPortals(const DesiredState& desired);
  void Watch();
  std::vector<Problem> Stop();
  void Ready(const CommandReport& report);
  void HandleClient();
  json StatusReply();

  DaemonOptions options_;
  TgtdSupervisor supervisor_;
  std::unique_ptr<PortalResolver> resolver_;
  OfdDiskLocker locker_;
  std::unique_ptr<KeldReconciler> reconciler_;
  int lock_fd_ = -1;
  int listen_fd_ = -1;
  int signal_fd_ = -1;
  int wake_fd_ = -1;  // written by change notifications of the source and the resolver
  bool stopping_ = false;
  std::chrono::steady_clock::time_point next_tgtd_start_;  // when a failed start is tried again
  std::vector<Problem> last_problems_;
  ChangeTracker tracker_;  // which problems fail a reload or restart

  // What the last reconcile applied, for the periodic checks.
  bool applied_valid_ = false;
  bool load_failed_ = false;  // the last attempt to read the source failed
  DesiredState applied_;
  std::map<std::string, std::vector<std::string>> applied_portals_;  // iqn -> portal texts
  uint64_t applied_generation_ = 0;
};

bool Daemon::Prepare(Problem* problem) {
  const std::string& dir = options_.stateDir;
  mkdir(dir.c_str(), 0755);
  mkdir(KeldRunDir(dir).c_str(), 0755);
  lock_fd_ = open(KeldLockPath(dir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  if (lock_fd_ < 0 || fcntl(lock_fd_, F_OFD_SETLK, &fl) != 0) {
    int err = errno;
    if (lock_fd_ >= 0) close(lock_fd_);
    lock_fd_ = -1;
    *problem = DaemonProblem(err == EAGAIN || err == EACCES
                                 ? "keld is already running for " + dir
                                 : "cannot lock " + KeldLockPath(dir) + ": " + ErrnoText(err));
    return false;
  }
  std::ofstream(KeldPidPath(dir)) << getpid() << "\n";

  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC);

  std::string path = KeldSocketPath(dir);
  sockaddr_un addr;
  std::string error;
  if (!FillAddress(path, &addr, &error)) {
    *problem = DaemonProblem(error);
    return false;
  }
  unlink(path.c_str());  // a leftover of a daemon that died; we hold the lock
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Only root may drive the daemon: the socket is created 0600, with no window where it is not.
  mode_t old_mask = umask(077);
  bool bound =
      listen_fd_ >= 0 && bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  umask(old_mask);
  if (!bound || listen(listen_fd_, 16) != 0) {
    *problem = DaemonProblem("cannot listen on " + path + ": " + ErrnoText(errno));
    return false;
  }
  return true;
}

bool Daemon::Load(DesiredState* desired, std::vector<Problem>* problems) {
  try {
    *desired = options_.source->Load();
    return true;
  } catch (const OrsaCtlException& e) {
    // Serving on with what tgtd has beats withdrawing everything over an unreadable source.
    problems->push_back(DaemonProblem(e.GetMessage()));
    return false;
  }
}

bool Daemon::StartTgtd(Problem* problem) {
  DesiredState desired;
  std::vector<Problem> ignored;
  ResolvedPortal first;
  std::string portal;
  if (Load(&desired, &ignored) && FirstPortal(desired, *resolver_, &first)) portal = first.text;
  reconciler_.reset();
  if (!supervisor_.Start(portal, problem)) {
    problem->daemonWide = true;
    return false;
  }
  reconciler_ = std::make_unique<KeldReconciler>(supervisor_.admin(), locker_, *resolver_);
  return true;
}

// Whether tgtd runs. One that died is replaced at once; a failed start is logged, kept for
// `status`, and tried again by the main loop after kTgtdRetryMs.
bool Daemon::EnsureTgtd() {
  if (reconciler_ && supervisor_.Alive()) return true;
  reconciler_.reset();
  Problem problem;
  if (StartTgtd(&problem)) return true;
  LogProblems({problem});
  last_problems_ = {problem};
  next_tgtd_start_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTgtdRetryMs);
  return false;
}

// Logs the outcome: a requested reconcile always, the periodic ones only when it changed.
void Daemon::Finish(const std::vector<Problem>& problems, bool requested) {
  if (requested || !SameProblems(problems, last_problems_)) LogProblems(problems);
  last_problems_ = problems;
}

std::map<std::string, std::vector<std::string>> Daemon::ResolvedPortals(
    const DesiredState& desired) {
  std::map<std::string, std::vector<std::string>> out;
  for (const DesiredTarget& d : desired.targets) {
    if (d.offline) continue;
    std::vector<std::string>& texts = out[d.iqn];
    for (const DesiredPortal& p : d.portals) {
      ResolvedPortal resolved;
      std::string error;
      if (resolver_->Resolve(d.iqn, p, &resolved, &error)) texts.push_back(resolved.text);
    }
  }
  return out;
}

void Daemon::Apply(const DesiredState& desired, ReconcileResult* result) {
  ReconcileResult r = reconciler_->Apply(desired);
  result->problems.insert(result->problems.end(), r.problems.begin(), r.problems.end());
  result->changes += r.changes;
  result->portalsWanted = r.portalsWanted;
  result->portalsObtained = r.portalsObtained;
  if (r.changes > 0) LogInfo("%s: Applied %d changes to tgtd\n", kTag, r.changes);
  applied_ = desired;
  applied_portals_ = ResolvedPortals(desired);
  applied_generation_ = options_.source->Generation();
  applied_valid_ = true;
  load_failed_ = false;
  tracker_.Applied(desired, applied_generation_);
}

// `requested`: a client asked for it, so the source and the portals are read afresh and its
// problems are logged even if they are the same as last time.
ReconcileResult Daemon::Reconcile(bool requested) {
  DesiredState desired;
  ReconcileResult result;
  if (requested) {
    options_.source->Invalidate();
    resolver_->Refresh();
    // A tgtd that died since the main loop last looked must not fail the caller's reload.
    EnsureTgtd();
  }
  if (!reconciler_) {
    result.problems.push_back(DaemonProblem("tgtd is not running"));
  } else if (Load(&desired, &result.problems)) {
    Apply(desired, &result);
    if (requested && !supervisor_.Alive() && EnsureTgtd()) {
      // It died during the reconcile: the new one gets the whole state.
      result = ReconcileResult();
      Apply(desired, &result);
    }
  } else {
    load_failed_ = true;
  }
  Finish(result.problems, requested);
  return result;
}

// The cheap periodic check: tgtd is asked nothing unless the desired state, its generation or a
// resolved portal changed since the last reconcile (or the source could not be read last time).
void Daemon::Check() {
  if (!reconciler_) return;
  DesiredState desired;
  ReconcileResult result;
  if (!Load(&desired, &result.problems)) {
    load_failed_ = true;
    Finish(result.problems, false);
    return;
  }
  const uint64_t generation = options_.source->Generation();
  if (applied_valid_ && !load_failed_ && generation == applied_generation_ && desired == applied_ &&
      ResolvedPortals(desired) == applied_portals_) {
    return;
  }
  if (generation != applied_generation_) {
    LogInfo("%s: Serving generation %llu of %s\n", kTag,
            static_cast<unsigned long long>(generation), options_.source->Describe().c_str());
  }
  Apply(desired, &result);
  Finish(result.problems, false);
}

void Daemon::Watch() {
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) {
    LogWarning("%s: eventfd: %s; following changes by periodic checks only\n", kTag,
               ErrnoText(errno).c_str());
    return;
  }
  const int fd = wake_fd_;
  auto wake = [fd] {
    uint64_t one = 1;
    ssize_t ignored = write(fd, &one, sizeof(one));  // a full counter already means "wake"
    (void)ignored;
  };
  options_.source->Watch(wake);
  resolver_->Watch(wake);
}

std::vector<Problem> Daemon::Stop() {
  std::vector<Problem> problems;
  std::string error;
  if (!supervisor_.Stop(&error)) problems.push_back(DaemonProblem(error));
  reconciler_.reset();
  // tgtd has closed every disk: let whoever waits to remove one go ahead.
  for (const std::string& path : locker_.Held()) locker_.Unlock(path);
  LogInfo("%s: Stopped serving\n", kTag);
  return problems;
}

void Daemon::Ready(const CommandReport& report) {
  if (options_.readyFd < 0) return;
  WriteAll(options_.readyFd, CommandReportToJson(report).dump() + "\n", false);
  close(options_.readyFd);
  options_.readyFd = -1;
}

json Daemon::StatusReply() {
  ServedStatus status;
  status.running = true;
  status.daemonPid = static_cast<int>(getpid());
  status.tgtdPid = static_cast<int>(supervisor_.pid());
  status.controlIndex = supervisor_.controlIndex();
  status.source = options_.source->Describe();
  status.problems = last_problems_;
  std::string error;
  if (!reconciler_) {
    status.problems.push_back(DaemonProblem("tgtd is not running"));
  } else if (!reconciler_->Status(&status, &error)) {
    status.problems.push_back(DaemonProblem(error));
  }
  return {{"code", 0}, {"status", StatusToJson(status)}};
}

void Daemon::HandleClient() {
  int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  std::string line;
  json reply;
  if (!ReadLine(fd, kRequestTimeoutMs, &line)) {
    close(fd);
    return;
  }
  std::string command;
  try {
    command = json::parse(line).value("command", "");
  } catch (const json::exception&) {
    command.clear();
  }
  if (command == "reload") {
    reply = CommandReportToJson(tracker_.Reload(Reconcile(true).problems));
  } else if (command == "status") {
    reply = StatusReply();
  } else if (command == "stop") {
    reply = CommandReportToJson(FailingReport(Stop()));
    stopping_ = true;
  } else {
    reply = CommandReportToJson(FailingReport({DaemonProblem("unknown request: " + line)}));
  }
  WriteAll(fd, reply.dump() + "\n");
  close(fd);
}

int Daemon::Run() {
  // tgtd must not inherit the start-up report's pipe, or restart would wait for tgtd's exit.
  if (options_.readyFd >= 0) fcntl(options_.readyFd, F_SETFD, FD_CLOEXEC);
  mkdir(options_.stateDir.c_str(), 0755);
  log::InstallHostLog(options_.stateDir, false);
  log_init(4);
  Problem problem;
  if (!Prepare(&problem) || !StartTgtd(&problem)) {
    LogProblems({problem});
    fprintf(stderr, "%s\n", problem.message.c_str());
    Ready(FailingReport({problem}));
    return static_cast<int>(problem.code);
  }
  LogInfo("%s: Serving from %s\n", kTag, options_.source->Describe().c_str());
  Watch();
  Ready(tracker_.Restart(Reconcile(true)));

  using Clock = std::chrono::steady_clock;
  const auto interval = std::chrono::milliseconds(std::max(options_.reconcileIntervalMs, 100));
  const auto check_interval = std::chrono::milliseconds(std::max(options_.checkIntervalMs, 100));
  auto next_reconcile = Clock::now() + interval;
  auto next_check = Clock::now() + check_interval;
  next_tgtd_start_ = Clock::now();
  while (!stopping_) {
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::min(next_reconcile, next_check) - Clock::now());
    int timeout = static_cast<int>(std::min<int64_t>(std::max<int64_t>(wait.count(), 0), 1000));
    pollfd fds[3] = {{listen_fd_, POLLIN, 0}, {signal_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    int n = poll(fds, wake_fd_ >= 0 ? 3 : 2, timeout);
    if (n < 0 && errno != EINTR) {
      LogError("%s: poll: %s\n", kTag, ErrnoText(errno).c_str());
      break;
    }
    if (n > 0 && (fds[1].revents & POLLIN) != 0) {
      signalfd_siginfo info;
      if (read(signal_fd_, &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo == SIGHUP) {
          Reconcile(true);
        } else {
          LogInfo("%s: Stopping on signal %u\n", kTag, info.ssi_signo);
          Stop();
          break;
        }
      }
    }
    if (n > 0 && (fds[0].revents & POLLIN) != 0) HandleClient();
    if (stopping_) break;
    if (n > 0 && wake_fd_ >= 0 && (fds[2].revents & POLLIN) != 0) {
      uint64_t count;
      ssize_t ignored = read(wake_fd_, &count, sizeof(count));
      (void)ignored;
      next_check = Clock::now();
    }

    if (reconciler_ && !supervisor_.Alive()) {
      reconciler_.reset();
      next_tgtd_start_ = Clock::now();
    }
    if (!reconciler_ && Clock::now() >= next_tgtd_start_ && EnsureTgtd()) {
      Reconcile(true);
      next_reconcile = Clock::now() + interval;
    }
    if (Clock::now() >= next_reconcile) {
      if (reconciler_) Reconcile(false);
      next_reconcile = Clock::now() + interval;
      next_check = Clock::now() + check_interval;
    } else if (Clock::now() >= next_check) {
      Check();
      next_check = Clock::now() + check_interval;
    }
  }
  return 0;
}

}  // namespace

std::string KeldRunDir(const std::string& state_dir) { return state_dir + "/run"; }
std::string KeldSocketPath(const std::string& state_dir) { return state_dir + "/run/keld.sock"; }
std::string KeldPidPath(const std::string& state_dir) { return state_dir + "/run/keld.pid"; }
std::string KeldLockPath(const std::string& state_dir) { return state_dir + "/run/keld.lock"; }

int RunKeldDaemon(DaemonOptions options) {
  Daemon daemon(std::move(options));
  return daemon.Run();
}

bool KeldRequest(const std::string& state_dir, const json& request, json* reply, std::string* error,
                 bool* not_running) {
  *not_running = false;
  sockaddr_un addr;
  if (!FillAddress(KeldSocketPath(state_dir), &addr, error)) return false;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = "socket: " + ErrnoText(errno);
    return false;
  }
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    close(fd);
    if (err == ENOENT || err == ECONNREFUSED) {
      *not_running = true;
      *error = "keld is not running";
    } else {
      *error = "cannot reach keld: " + ErrnoText(err);
    }
    return false;
  }
  WriteAll(fd, request.dump() + "\n");
  std::string line;
  // A reconcile of a large state takes a while; a daemon that never answers is a failure.
  bool got = ReadLine(fd, 30 * 60 * 1000, &line);
  close(fd);
  if (!got) {
    *error = "keld did not answer";
    return false;
  }
  try {
    *reply = json::parse(line);
  } catch (const json::exception& e) {
    *error = std::string("keld answered with something unreadable: ") + e.what();
    return false;
  }
  return true;
}

}  // namespace keld
}  // namespace kel
