// The commands of the keld program (keld/main.cc only parses the command line).
//
//   keld run|daemon   the daemon in the foreground (serving kel.conf unless a JSON desired state
//                     is given; it follows changes of the cluster on its own, see keld/daemon.h)
//   keld restart      (re)start the daemon in the background; returns once it serves the state
//   keld reload       reconcile now; returns once the change is served
//   keld io_stop      withdraw everything, stop tgtd and the daemon (disk contents untouched)
//   keld status       what is served
//
// Every command returns the program's exit code: 0 success, 1 a failed resource reservation
// (tgtd's control index, a portal address), 2 another failure; `status` returns 3 when no daemon
// runs. Messages go to `err`, one per line.
//
// What fails restart and reload. The service runs reload after every write of kel.conf and
// treats any other code than 0 as a failed change, so one target that cannot be served must not
// fail the changes of the others:
//  - daemon-wide problems fail both commands: keld not running or not answering, kel.conf (the
//    desired state) unreadable, tgtd not running or not answering, tgtd's control index taken
//    (code 1), and, for restart only, a desired state none of whose portals can be obtained
//    (code 1 when their addresses are taken, 2 when their interfaces have none);
//  - a problem confined to a target (a portal address taken, an interface without address, a
//    LUN whose disk is held, a CHAP account clash, a tgtadm call refused) fails a reload with
//    code 2 only when that target is one the reload's change touched: added, removed or changed
//    in the latest change of kel.conf (its generation) that no earlier reload reported on;
//  - everything else is a warning: logged, kept in `keld status` (and `status --json`, with the
//    target it concerns) until a reconcile no longer finds it, printed on `err` as
//    "warning: <iqn>: <message>", and the exit code stays 0.
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
