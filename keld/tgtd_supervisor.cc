#include "keld/tgtd_supervisor.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "keld/tgt_exec.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace kel {
namespace keld {
namespace {

const char kTag[] = "keld";
const int kStartAttempts = 200;  // 50 ms apart: 10 s for tgtd to answer
const int kExitAttempts = 250;   // 20 ms apart: 5 s for tgtd to exit
const int kChosenIndexCandidates = 64;
const int kMaxControlIndex = 32767;  // tgtd refuses larger -C values

std::string PidPath(const std::string& state_dir) { return state_dir + "/run/tgtd.pid"; }

void MakeDir(const std::string& path) { mkdir(path.c_str(), 0755); }

// A stable index per state directory, so that a host's tgtd keeps its socket across restarts.
int DerivedIndex(const std::string& state_dir) {
  uint32_t h = 2166136261u;
  for (unsigned char c : state_dir) {
    h ^= c;
    h *= 16777619u;
  }
  return 20000 + static_cast<int>(h % (kMaxControlIndex - 20000 - kChosenIndexCandidates));
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Whether `pid` is a tgtd started with "-C <index>" (its command line, NUL-separated).
bool IsTgtdOn(pid_t pid, int index) {
  std::string cmdline = ReadText("/proc/" + std::to_string(pid) + "/cmdline");
  if (cmdline.find("tgtd") == std::string::npos) return false;
  return cmdline.find(std::string("-C") + '\0' + std::to_string(index) + '\0') != std::string::npos;
}

bool ProcessExists(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

bool StopTgtdOn(TgtAdmin& admin, std::string* error) {
  bool ok = true;
  auto note = [&](const std::string& what, const TgtResult& r) {
    if (r.ok()) return;
    if (!error->empty()) *error += "; ";
    *error += what + ": " + r.message;
    ok = false;
  };
  TgtResult r = admin.SetSystemState("offline");
  if (r.error == TgtError::kNotRunning) return true;
  note("cannot set tgtd offline", r);
  TgtState cur;
  r = admin.Show(&cur);
  note("cannot list tgtd's targets", r);
  for (const TgtTarget& t : cur.targets) {
    note("cannot delete target " + t.name, admin.DeleteTarget(t.tid, true));
  }
  note("cannot stop tgtd", admin.DeleteSystem());
  return ok;
}

TgtdSupervisor::TgtdSupervisor(TgtdOptions options) : options_(std::move(options)) {}

TgtdSupervisor::~TgtdSupervisor() {
  if (pid_ > 0) {
    std::string error;
    Stop(&error);
  }
}

std::string TgtdSupervisor::logPath() const { return options_.stateDir + "/log/tgtd.log"; }

bool TgtdSupervisor::ControlIndexLive(const std::string& socket_dir, int index) {
  std::string path = socket_dir + "/socket." + std::to_string(index);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) return false;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool live = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(fd);
  return live;
}

void TgtdSupervisor::CleanupStale(const TgtdOptions& options) {
  std::istringstream in(ReadText(PidPath(options.stateDir)));
  pid_t pid = 0;
  int index = 0;
  if (!(in >> pid >> index) || pid <= 0) {
    unlink(PidPath(options.stateDir).c_str());
    return;
  }
  if (ProcessExists(pid) && IsTgtdOn(pid, index)) {
    LogWarning("%s: Stopping tgtd (pid %d) left behind on control index %d\n", kTag,
               static_cast<int>(pid), index);
    TgtAdmCommand admin(index, options.tgtadmProgram);
    std::string error;
    StopTgtdOn(admin, &error);
    for (int i = 0; i < kExitAttempts && ProcessExists(pid) && IsTgtdOn(pid, index); ++i) {
      platform::SleepMs(20);
    }
    if (ProcessExists(pid) && IsTgtdOn(pid, index)) kill(pid, SIGKILL);
  }
  if (!ControlIndexLive(options.socketDir, index)) {
    std::string socket = options.socketDir + "/socket." + std::to_string(index);
    unlink(socket.c_str());
    unlink((socket + ".lock").c_str());
  }
  unlink(PidPath(options.stateDir).c_str());
}

void TgtdSupervisor::RemoveFiles(int index) {
  std::string socket = options_.socketDir + "/socket." + std::to_string(index);
  unlink(socket.c_str());
  unlink((socket + ".lock").c_str());
  unlink(PidPath(options_.stateDir).c_str());
}

bool TgtdSupervisor::Start(const std::string& portal, Problem* problem) {
  MakeDir(options_.stateDir);
  MakeDir(options_.stateDir + "/run");
  MakeDir(options_.stateDir + "/log");
  CleanupStale(options_);

  std::vector<int> candidates;
  if (options_.controlIndex < 0 || options_.controlIndex > kMaxControlIndex) {
    *problem = {Outcome::kFailure, "",
                "tgtd control index " + std::to_string(options_.controlIndex) +
                    " is out of range (1.." + std::to_string(kMaxControlIndex) + ")"};
    return false;
  }
  if (options_.controlIndex > 0) {
    candidates.push_back(options_.controlIndex);
  } else {
    int base = DerivedIndex(options_.stateDir);
    for (int i = 0; i < kChosenIndexCandidates; ++i) candidates.push_back(base + i);
  }
  for (int index : candidates) {
    bool taken = ControlIndexLive(options_.socketDir, index);
    if (!taken && StartOn(index, portal, &taken, problem)) return true;
    if (!taken) return false;
    if (options_.controlIndex > 0) {
      *problem = {Outcome::kReservation, "",
                  "tgtd control index " + std::to_string(index) + " is already in use"};
      return false;
    }
  }
  *problem = {Outcome::kReservation, "", "no free tgtd control index was found"};
  return false;
}

bool TgtdSupervisor::StartOn(int index, const std::string& portal, bool* index_taken,
                             Problem* problem) {
  const std::string listen = portal.empty() ? "127.0.0.1:0" : portal;
  std::vector<std::string> argv = {options_.tgtdProgram,  "-f",      "-C",
                                   std::to_string(index), "--iscsi", "portal=" + listen};
  std::string error;
  pid_t pid = SpawnProgram(argv, logPath(), &error);
  if (pid < 0) {
    *problem = {Outcome::kFailure, "", "cannot start tgtd: " + error};
    return false;
  }
  auto admin = std::make_unique<TgtAdmCommand>(index, options_.tgtadmProgram);
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      // tgtd exits with 1 when another tgtd holds the control index's lock.
      if (code == 1 && ControlIndexLive(options_.socketDir, index)) *index_taken = true;
      *problem = {Outcome::kFailure, "",
                  "tgtd exited with code " + std::to_string(code) + " while starting (see " +
                      logPath() + ")"};
      return false;
    }
    TgtState state;
    if (admin->Show(&state).ok()) {
      pid_ = pid;
      index_ = index;
      admin_ = std::move(admin);
      std::ofstream(PidPath(options_.stateDir)) << pid << " " << index << "\n";
      LogInfo("%s: Started tgtd (pid %d) on control index %d, portal %s\n", kTag,
              static_cast<int>(pid), index, listen.c_str());
      if (portal.empty()) {
        for (const std::string& p : state.portals) admin_->DeletePortal(p);
      }
      return true;
    }
    platform::SleepMs(50);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  RemoveFiles(index);
  *problem = {
      Outcome::kFailure, "",
      "tgtd did not answer on control index " + std::to_string(index) + " (see " + logPath() + ")"};
  return false;
}

bool TgtdSupervisor::Stop(std::string* error) {
  if (pid_ <= 0) return true;
  bool ok = StopTgtdOn(*admin_, error);
  bool exited = false;
  for (int i = 0; i < kExitAttempts; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      exited = true;
      break;
    }
    platform::SleepMs(20);
  }
  if (!exited) {
    LogWarning("%s: tgtd (pid %d) did not exit; killing it\n", kTag, static_cast<int>(pid_));
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  LogInfo("%s: Stopped tgtd (pid %d)\n", kTag, static_cast<int>(pid_));
  RemoveFiles(index_);
  pid_ = -1;
  return ok;
}

bool TgtdSupervisor::Alive() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  LogWarning("%s: tgtd (pid %d) exited unexpectedly with status %d\n", kTag, static_cast<int>(pid_),
             status);
  RemoveFiles(index_);
  pid_ = -1;
  return false;
}

}  // namespace keld
}  // namespace kel
