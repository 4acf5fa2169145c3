#include "host/keld_state.h"

#include <cstdlib>

#include "host/keld_json_source.h"
#include "platform/log.h"

namespace kel {
namespace keld {

Outcome OutcomeOf(const std::vector<Problem>& problems) {
  if (problems.empty()) return Outcome::kOk;
  for (const Problem& p : problems) {
    if (p.code != Outcome::kReservation) return Outcome::kFailure;
  }
  return Outcome::kReservation;
}

const char* AuthRuleName(AuthRule rule) {
  switch (rule) {
    case AuthRule::kNone:
      return "none";
    case AuthRule::kDeny:
      return "deny";
    case AuthRule::kChap:
      return "chap";
    case AuthRule::kChapMutual:
      return "chap-mutual";
  }
  return "none";
}

// The one place that picks a source. The kel.conf source goes here, as the case without a JSON
// file, once it exists.
std::unique_ptr<DesiredStateSource> MakeDefaultStateSource(const std::string& json_path) {
  std::string path = json_path;
  if (path.empty()) {
    const char* env = getenv("KELD_DESIRED_STATE");
    if (env != nullptr) path = env;
  }
  if (!path.empty()) return std::make_unique<JsonFileStateSource>(path);
  LogWarning("%s: No desired-state source is configured; serving nothing\n", "keld");
  return std::make_unique<StaticStateSource>(DesiredState{}, "none");
}

}  // namespace keld
}  // namespace kel
