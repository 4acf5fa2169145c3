// One tgtd per keld: started in the foreground as keld's child, on its own control index, and
// stopped with the sequence tgtd obeys (it ignores SIGTERM).
//
// Files: <stateDir>/run/tgtd.pid ("<pid> <control index>"), <stateDir>/log/tgtd.log (its output),
// and tgtd's own control socket <socketDir>/socket.<index> with its ".lock", removed after a stop.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "keld/state.h"
#include "keld/tgt_admin.h"

namespace kel {
namespace keld {

struct TgtdOptions {
  std::string stateDir;
  int controlIndex = 0;  // tgtd's -C; 0: choose one that no live tgtd uses
  std::string tgtdProgram = "tgtd";
  std::string tgtadmProgram = "tgtadm";
  std::string socketDir = "/run/tgtd";  // where tgtd puts socket.<index>; fixed in tgtd
};

// Not thread-safe. Owns the tgtd child: destroying a supervisor whose tgtd runs stops it.
class TgtdSupervisor {
 public:
  explicit TgtdSupervisor(TgtdOptions options);
  ~TgtdSupervisor();
  TgtdSupervisor(const TgtdSupervisor&) = delete;
  TgtdSupervisor& operator=(const TgtdSupervisor&) = delete;

  // Starts tgtd listening on `portal` (tgtadm's "addr:port" text). With an empty portal tgtd gets
  // an ephemeral loopback placeholder that is removed once it is up, because without any portal
  // option tgtd would listen on every address. A tgtd that an earlier keld of the same state
  // directory left behind is stopped first. A configured control index that a live tgtd uses is
  // refused (Outcome::kReservation); a chosen one moves on to the next free index.
  // Returns false with the reason in `*problem`.
  bool Start(const std::string& portal, Problem* problem);

  // The stop sequence: system state offline, every target deleted with --force, system delete;
  // then tgtd is reaped (SIGKILL by its PID only if it does not exit) and its files removed.
  // Returns false with `*error` set when a step failed (tgtd is gone all the same).
  bool Stop(std::string* error);

  // True while tgtd runs; notices (and reaps) a tgtd that has exited.
  bool Alive();

  pid_t pid() const { return pid_; }
  int controlIndex() const { return index_; }
  std::string logPath() const;
  // The driver for this tgtd (valid after Start()).
  TgtAdmin& admin() { return *admin_; }

  // Whether a live tgtd answers on `socketDir`/socket.<index>.
  static bool ControlIndexLive(const std::string& socket_dir, int index);
  // Stops a tgtd recorded in <stateDir>/run/tgtd.pid when it still runs (checked by its PID and
  // command line), and removes the pid file. For io_stop after keld itself died.
  static void CleanupStale(const TgtdOptions& options);

 private:
  bool StartOn(int index, const std::string& portal, bool* index_taken, Problem* problem);
  void RemoveFiles(int index);

  TgtdOptions options_;
  pid_t pid_ = -1;
  int index_ = 0;
  std::unique_ptr<TgtAdmCommand> admin_;
};

// The stop sequence on a control index (shared by Stop() and CleanupStale()).
bool StopTgtdOn(TgtAdmin& admin, std::string* error);

}  // namespace keld
}  // namespace kel
