// The host's backup copy of kel.conf (<stateDir>/log/kel.conf.backup), refreshed by the control
// thread of the host agent whenever the shared file's generation moved past the last copy.
#pragma once

#include <atomic>
#include <cstdint>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Generation of the last backup this process made; all ones while it made none.
extern std::atomic<uint64_t> backupConfGenNumber;

// Opens kel.conf with the shared lock and writes the backup copy unless this process already
// backed up this generation or a later one (then it logs "... skip backup"). Never throws: a
// failure is logged and leaves backupConfGenNumber unchanged.
void CopyKelConfWithLock();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
