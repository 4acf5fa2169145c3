// What keld's restart and reload report: which problems of a reconcile fail the command and which
// are only warnings (the rule is written out in keld/control.h).
//
// The daemon tells the tracker about every desired state it applies, whoever triggered the
// reconcile (a reload, its own following of the cluster, the periodic one). A reload blames the
// targets of the latest change that no command has reported on yet: the change that the caller
// just wrote is usually that one, even when keld noticed it on its own before the reload came.
// Changes are told apart by the source's generation (a kel.conf write); for a source without
// generations, every different desired state is a change of its own.
//
// Not thread-safe: used from the daemon's one thread.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "keld/reconciler.h"
#include "keld/state.h"

namespace kel {
namespace keld {

struct CommandReport {
  Outcome code = Outcome::kOk;
  std::vector<Problem> failures;  // what made the command fail
  std::vector<Problem> warnings;  // reported, logged and shown by status; the code stays 0
};

// {"code":N,"problems":[failures...],"warnings":[...]}: what the daemon answers a command.
nlohmann::json CommandReportToJson(const CommandReport& report);
// A report whose every problem fails the command (stop, start-up failures, bad requests).
CommandReport FailingReport(const std::vector<Problem>& problems);

class ChangeTracker {
 public:
  // Every desired state the daemon applies, with the generation its source read (0: none).
  void Applied(const DesiredState& desired, uint64_t generation);

  // The report of a reload whose reconcile found `problems`: daemon-wide problems fail it with
  // their code (1 when all are failed reservations, else 2); a problem of a target that the
  // latest unreported change touched fails it with 2; everything else is a warning.
  CommandReport Reload(const std::vector<Problem>& problems);

  // The report of the first reconcile after a start: only daemon-wide problems fail it, and so
  // does a desired state none of whose portals could be had (tgtd would listen for nothing): its
  // portal problems become one daemon-wide failed reservation per address.
  CommandReport Restart(const ReconcileResult& result);

 private:
  bool applied_ = false;
  uint64_t generation_ = 0;
  uint64_t epoch_ = 0;             // advanced by each change (see above)
  uint64_t reported_ = 0;          // the epoch that the last reload or restart reported on
  std::set<std::string> changed_;  // targets changed in epoch_, while it is not reported
  std::map<std::string, DesiredTarget> last_;  // iqn -> as last applied
};

}  // namespace keld
}  // namespace kel
