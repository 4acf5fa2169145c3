// The keld daemon: supervises one tgtd, keeps it serving the desired state, and answers the
// control program on a unix socket.
//
// Files under <stateDir>/run: keld.lock (held with an OFD lock while a daemon runs, so there is
// one per state directory), keld.pid, keld.sock (mode 0600), and tgtd's pid file.
//
// Protocol on keld.sock: one JSON request line, one JSON reply line, then the connection closes.
//   {"command":"reload"} -> {"code":N,"problems":[...],"warnings":[...]}  once reconciled
//   {"command":"status"} -> {"code":0,"status":{...}}     (keld/status.h)
//   {"command":"stop"}   -> {"code":N,"problems":[...],"warnings":[]}  after tgtd has stopped; the
//                           daemon exits
// Codes are the Outcome values; "problems" are what made the command fail, "warnings" what it
// found without failing (keld/outcome.h). Requests are served one at a time, in order.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "keld/portal.h"
#include "keld/state.h"

namespace kel {
namespace keld {

std::string KeldRunDir(const std::string& state_dir);
std::string KeldSocketPath(const std::string& state_dir);
std::string KeldPidPath(const std::string& state_dir);
std::string KeldLockPath(const std::string& state_dir);

struct DaemonOptions {
  std::string stateDir;
  int controlIndex = 0;  // tgtd's -C; 0 chooses one
  std::unique_ptr<DesiredStateSource> source;
  std::unique_ptr<PortalResolver> resolver;  // null: LocalPortalResolver
  int reconcileIntervalMs = 30000;           // periodic reconcile (tgtd's state re-read and fixed)
  // Periodic check of the source: reconciles only when the desired state, the generation or a
  // resolved portal differs from what was last applied. Change notifications of the source and
  // the resolver run the check at once.
  int checkIntervalMs = 3000;
  int readyFd = -1;  // gets the restart's report (as a reload's) once the state is applied
  std::string tgtdProgram = "tgtd";
  std::string tgtadmProgram = "tgtadm";
  std::string tgtdSocketDir = "/run/tgtd";
};

// Runs the daemon until it is told to stop (request or SIGTERM/SIGINT; SIGHUP reconciles).
// A `reload` request or SIGHUP reads the source and resolves the portals afresh.
// Returns the exit code: 0 after a stop, or the Outcome of a failed start.
int RunKeldDaemon(DaemonOptions options);

// Client side: sends one request to the daemon of `state_dir` and reads its reply. Returns false
// with `*error` set when no daemon answers ("keld is not running") or the exchange fails.
// `*not_running` tells the first case apart.
bool KeldRequest(const std::string& state_dir, const nlohmann::json& request, nlohmann::json* reply,
                 std::string* error, bool* not_running);

}  // namespace keld
}  // namespace kel
