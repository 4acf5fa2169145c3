#include "service/default_iqn.h"

#include <ctime>

#include "storage/namespace.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

const char* const kDefaultIqnAuthority = "local.kel";

std::string GetDefautltIQN() {
  const std::time_t now = std::time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  char yearMonth[16];
  std::strftime(yearMonth, sizeof(yearMonth), "%Y-%m", &utc);
  return std::string("iqn.") + yearMonth + "." + kDefaultIqnAuthority + ":" + GenerateRandomUuid();
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
