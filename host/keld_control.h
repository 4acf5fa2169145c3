// The commands of the keld program (keld/main.cc only parses the command line).
//
//   keld run|daemon   the daemon in the foreground (serving kel.conf unless a JSON desired state
//                     is given; it follows changes of the cluster on its own, see keld_daemon.h)
//   keld restart      (re)start the daemon in the background; returns once it serves the state
//   keld reload       reconcile now; returns once the change is served
//   keld io_stop      withdraw everything, stop tgtd and the daemon (disk contents untouched)
//   keld status       what is served
//
// Every command returns the program's exit code: 0 success, 1 a failed resource reservation
// (tgtd's control index, a portal address), 2 another failure; `status` returns 3 when no daemon
// runs. Messages go to `err`, one per line.
#pragma once

#include <ostream>
#include <string>

namespace kel {
namespace keld {

struct ControlOptions {
  std::string configPath;        // --config; empty: $KEL_CONFIG, /etc/kel/host.json, default
  std::string desiredStatePath;  // --desired-state; empty: $KELD_DESIRED_STATE, host's source
  int readyFd = -1;              // run: where to report start-up (used by restart)
  int reconcileIntervalSeconds = 30;
  int checkIntervalSeconds = 3;  // how often the source is checked for changes
  std::string tgtdProgram = "tgtd";
  std::string tgtadmProgram = "tgtadm";
};

int KeldRun(const ControlOptions& options, std::ostream& err);
int KeldRestart(const ControlOptions& options, std::ostream& err);
int KeldReload(const ControlOptions& options, std::ostream& err);
int KeldIoStop(const ControlOptions& options, std::ostream& err);
int KeldStatus(const ControlOptions& options, bool as_json, std::ostream& out, std::ostream& err);

}  // namespace keld
}  // namespace kel
