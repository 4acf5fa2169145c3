#include "conf/conf_backup.h"

#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

std::atomic<uint64_t> backupConfGenNumber{UINT64_MAX};

void CopyKelConfWithLock() {
  try {
    ConfHandle handle(ConfHandle::kShared);
    uint64_t generation = handle.GetCurrentGenerationNum();
    uint64_t backed_up = backupConfGenNumber.load();
    if (backed_up != UINT64_MAX && backed_up >= generation) {
      LogWarning("%s: backup kel.conf gen: %ld, global kel.conf gen: %ld, skip backup", "Util",
                 static_cast<long>(backed_up), static_cast<long>(generation));
      return;
    }
    handle.UpdateBackupConfigFile();
    backupConfGenNumber.store(generation);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogWarning("%s: Failed to copy file from %s due to: %s", "Util", GetConfFilePath().c_str(),
               e.GetMessage().c_str());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
