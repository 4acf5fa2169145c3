#include "keld/outcome.h"

#include "keld/status.h"

namespace kel {
namespace keld {

using nlohmann::json;

namespace {

Outcome CodeOf(const std::vector<Problem>& failures) {
  if (failures.empty()) return Outcome::kOk;
  for (const Problem& p : failures) {
    if (!p.daemonWide) return Outcome::kFailure;
  }
  return OutcomeOf(failures);
}

}  // namespace

json CommandReportToJson(const CommandReport& report) {
  return {{"code", static_cast<int>(report.code)},
          {"problems", ProblemsToJson(report.failures)},
          {"warnings", ProblemsToJson(report.warnings)}};
}

CommandReport FailingReport(const std::vector<Problem>& problems) {
  CommandReport report;
  report.failures = problems;
  report.code = OutcomeOf(problems);
  return report;
}

void ChangeTracker::Applied(const DesiredState& desired, uint64_t generation) {
  std::map<std::string, DesiredTarget> now;
  for (const DesiredTarget& t : desired.targets) now.emplace(t.iqn, t);
  std::set<std::string> changed;
  for (const auto& t : now) {
    auto was = last_.find(t.first);
    if (was == last_.end() || !(was->second == t.second)) changed.insert(t.first);
  }
  for (const auto& t : last_) {
    if (now.count(t.first) == 0) changed.insert(t.first);
  }
  const bool new_epoch =
      !applied_ || (generation != 0 ? generation != generation_ : !changed.empty());
  if (new_epoch) {
    ++epoch_;
    changed_.clear();
  }
  // A change seen after its epoch was reported on (an ownership move, an interface that got
  // its address) was asked for by no command that is still to report.
  if (epoch_ != reported_) changed_.insert(changed.begin(), changed.end());
  last_.swap(now);
  generation_ = generation;
  applied_ = true;
}

CommandReport ChangeTracker::Reload(const std::vector<Problem>& problems) {
  std::set<std::string> blamed;
  if (epoch_ != reported_) blamed.swap(changed_);
  changed_.clear();
  reported_ = epoch_;
  CommandReport report;
  for (const Problem& p : problems) {
    bool fails = p.daemonWide || (!p.target.empty() && blamed.count(p.target) != 0);
    (fails ? report.failures : report.warnings).push_back(p);
  }
  report.code = CodeOf(report.failures);
  return report;
}

CommandReport ChangeTracker::Restart(const ReconcileResult& result) {
  changed_.clear();
  reported_ = epoch_;
  const bool no_portal = result.portalsWanted > 0 && result.portalsObtained == 0;
  CommandReport report;
  std::set<std::string> escalated;
  for (const Problem& p : result.problems) {
    if (p.daemonWide) {
      report.failures.push_back(p);
    } else if (no_portal && !p.portal.empty()) {
      if (!escalated.insert(p.portal).second) continue;
      Problem whole = DaemonProblem(p.message, p.code);
      whole.portal = p.portal;
      report.failures.push_back(whole);
    } else {
      report.warnings.push_back(p);
    }
  }
  if (no_portal && escalated.empty()) {
    report.failures.push_back(DaemonProblem("no portal of the targets to serve can be obtained"));
  }
  report.code = CodeOf(report.failures);
  return report;
}

}  // namespace keld
}  // namespace kel
