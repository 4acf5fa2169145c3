#include "platform/datastore.h"

#include <cstring>

#include "platform/host_config.h"

namespace kel {
namespace platform {

std::string DatastorePath() { return CurrentHostConfig()->datastorePath; }

}  // namespace platform
}  // namespace kel

NUK_ReturnStatus GetOrsaDatastoreUUIDPath(int len, char* out) {
  std::string path = kel::platform::DatastorePath();
  if (out == nullptr || len <= 0 || path.size() + 1 > static_cast<size_t>(len)) {
    return NUK_BAD_PARAM;
  }
  memcpy(out, path.c_str(), path.size() + 1);
  return NUK_OK;
}
