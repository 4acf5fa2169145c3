#include "keld/state.h"

#include <cstdlib>

#include "keld/conf_source.h"
#include "keld/json_source.h"

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

bool operator==(const DesiredPortal& a, const DesiredPortal& b) {
  return a.interfaceName == b.interfaceName && a.address == b.address && a.port == b.port &&
         a.ownerHostUuid == b.ownerHostUuid;
}

bool operator==(const DesiredLun& a, const DesiredLun& b) {
  return a.id == b.id && a.path == b.path && a.offline == b.offline && a.alias == b.alias &&
         a.naa == b.naa;
}

bool operator==(const ChapCredential& a, const ChapCredential& b) {
  return a.user == b.user && a.secret == b.secret && a.mutualUser == b.mutualUser &&
         a.mutualSecret == b.mutualSecret;
}

bool operator==(const DesiredTarget& a, const DesiredTarget& b) {
  return a.iqn == b.iqn && a.alias == b.alias && a.uuid == b.uuid && a.offline == b.offline &&
         a.portals == b.portals && a.auth == b.auth && a.chap == b.chap &&
         a.initiatorsRestricted == b.initiatorsRestricted && a.initiators == b.initiators &&
         a.luns == b.luns;
}

bool operator==(const DesiredState& a, const DesiredState& b) { return a.targets == b.targets; }

// The one place that picks a source.
std::unique_ptr<DesiredStateSource> MakeDefaultStateSource(const std::string& json_path) {
  std::string path = json_path;
  if (path.empty()) {
    const char* env = getenv("KELD_DESIRED_STATE");
    if (env != nullptr) path = env;
  }
  if (!path.empty()) return std::make_unique<JsonFileStateSource>(path);
  return std::make_unique<KelConfStateSource>();
}

}  // namespace keld
}  // namespace kel
