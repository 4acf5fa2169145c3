#include "storage/namespace.h"

#include <uuid/uuid.h>

#include <cerrno>
#include <climits>
#include <string>

#include "conf/paths.h"
#include "platform/clock.h"
#include "platform/clog.h"
#include "platform/creation_journal.h"
#include "platform/disk_lun_api.h"
#include "platform/exception.h"
#include "platform/fio.h"
#include "platform/fs.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::ErrnoText;
using NukCtl::Storage::DiskLunApi;

const char* const kTag = "Util";
const int kLinkRetries = 11;  // after the first attempt: 12 in all, 1 s apart

[[noreturn]] void LogAndThrow(const std::string& message) {
  LogError("%s: %s\n", kTag, message.c_str());
  throw OrsaCtlException(message);
}

}  // namespace

std::string GenerateRandomUuid() {
  uuid_t raw;
  char text[37];
  uuid_generate_random(raw);
  uuid_unparse_lower(raw, text);
  return text;
}

std::string NewOperationId() { return "ORSA-iSCSI-OP-" + GenerateRandomUuid(); }

std::string UuidToString(const kel::platform::Uuid16& uuid) {
  char text[37];
  uuid_unparse_lower(uuid.data(), text);
  return text;
}

void CreateNamespaceDir(const std::string& policy) {
  const std::string path = GetConfigNamespacePath();
  if (kel::platform::GetFs().Exists(path)) {
    LogInfo("%s: Orsa iSCSI Target namespace already exists. Skipping namespace creation..\n",
            kTag);
    return;
  }
  try {
    DiskLunApi::CreateNamespace(kel::platform::DatastorePath(), kConfigNamespaceName, policy, 0,
                                NewOperationId());
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to create namespace %s\n", kTag, e.GetMessage().c_str());
    throw;
  }
}

void DeleteNamespaceDir() {
  if (!kel::platform::GetFs().Exists(GetConfigNamespacePath())) return;
  try {
    std::string uuid = UuidToString(GetNamespaceUuid());
    DiskLunApi::DeleteNamespace(kel::platform::DatastorePath(), uuid, NewOperationId());
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to delete Orsa iSCSI target namespace " + e.GetMessage());
  }
}

kel::platform::Uuid16 GetNamespaceUuid() {
  kel::platform::Uuid16 uuid{};
  NUK_ReturnStatus status = KeldGetNamespaceUuid(uuid.data());
  if (status != NUK_OK) {
    throw OrsaCtlException(std::string("Failed to get KEL namespace UUID with status: ") +
                           NUK_ReturnStatusToString(status));
  }
  return uuid;
}

void UpdateNamespacePolicy(const std::string& policy) {
  try {
    std::string uuid = UuidToString(GetNamespaceUuid());
    DiskLunApi::UpdateNamespace(kel::platform::DatastorePath(), uuid, policy, NewOperationId());
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to update policy of Orsa iSCSI target namespace with error: " +
                           e.GetMessage());
  }
}

void UpdateTargetNamespacePolicy(const std::string& uuid, const std::string& policy) {
  try {
    DiskLunApi::UpdateNamespace(kel::platform::DatastorePath(), uuid, policy, NewOperationId());
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to update policy of target namespace " + uuid +
                           " with error: " + e.GetMessage());
  }
}

void ForgetTargetNamespaceCreation(const std::string& uuid) {
  kel::platform::JournalForget(kel::platform::DatastorePath() + "/" + uuid);
  kel::platform::JournalForget(GetTargetsDirPath() + "/" + uuid);
}

void CreateTargetNamespace(const std::string& policy, std::string& uuidOut) {
  const std::string datastore = kel::platform::DatastorePath();
  // Journalled before they exist: a process killed before kel.conf names the target leaves them
  // to the next writer of kel.conf on this host to remove.
  const std::string uuid = GenerateRandomUuid();
  const std::string target = "../../" + uuid;
  const std::string link = GetTargetsDirPath() + "/" + uuid;
  kel::platform::JournalRecord(datastore + "/" + uuid);
  kel::platform::JournalRecord(link);
  try {
    uuidOut = DiskLunApi::CreateNamespace(datastore, "", policy, 0, NewOperationId(), uuid);
  } catch (const OrsaCtlException&) {
    uuidOut = uuid;
    ForgetTargetNamespaceCreation(uuid);
    throw;
  }

  kel::platform::Fs& fs = kel::platform::GetFs();
  int err = fs.Symlink(target, link);
  int lastErr = err;
  // Kept as is: each retry logs and sleeps before its result is looked at, so a retry that
  // succeeds still logs (with the error of the attempt before it) and sleeps once.
  for (int attempt = 1; err != 0 && attempt <= kLinkRetries; ++attempt) {
    err = fs.Symlink(target, link);
    if (err != 0) lastErr = err;
    LogWarning("%s: %dth retry to create target symlink(%s->%s) due to %s (%d)\n", kTag, attempt,
               link.c_str(), target.c_str(), ErrnoText(lastErr).c_str(), lastErr);
    kel::platform::SleepMs(1000);
  }
  if (err == 0) return;

  LogError("%s: Failed to create target symlink(%s->%s) witherror: %s (%d)\n", kTag, link.c_str(),
           target.c_str(), ErrnoText(err).c_str(), err);
  try {
    DiskLunApi::DeleteNamespace(datastore, uuidOut, NewOperationId());
    ForgetTargetNamespaceCreation(uuidOut);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to delete target namespace %s after failing to link it: %s\n", kTag,
             uuidOut.c_str(), e.GetMessage().c_str());
  }
  throw OrsaCtlException("Failed to create target symlink(" + link + "->" + target +
                         ") with error: " + ErrnoText(err) + " (" + std::to_string(err) + ")");
}

void DeleteTargetNamespace(const std::string& uuid) {
  LogInfo("%s: Delete target namespace, target uuid: %s\n", kTag, uuid.c_str());
  kel::platform::Fs& fs = kel::platform::GetFs();
  const std::string link = GetTargetsDirPath() + "/" + uuid;
  if (uuid.empty() || !fs.Exists(link)) {
    throw OrsaCtlException("Util: Cannot find target namespace dir for target " + uuid);
  }
  int err = fs.Unlink(link);
  if (err != 0 && err != ENOENT) {
    throw OrsaCtlException("Util: Failed to remove target symlink: " + link +
                           " with error: " + ErrnoText(err));
  }
  try {
    DiskLunApi::DeleteNamespace(kel::platform::DatastorePath(), uuid, NewOperationId());
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to delete namespace for target with UUID " + uuid +
                           " with error: " + e.GetMessage());
  }
}

void CreateConfigDir(const std::string& path) {
  int err = kel::platform::GetFs().MakeDir(path, 0700);
  if (err == 0) return;
  if (err == EEXIST) {
    LogInfo("%s: Config dir %s already exists.", kTag, path.c_str());
    return;
  }
  LogAndThrow("Failed to create dir " + path + " with errno (" + std::to_string(err) + ").");
}

void RemoveConfigDir(const std::string& path) {
  LogInfo("%s: Removing dir %s", kTag, path.c_str());
  int err = kel::platform::GetFs().RemoveDir(path);
  if (err == 0) return;
  if (err == ENOENT) {
    LogInfo("%s: Dir %s does not exist.", kTag, path.c_str());
    return;
  }
  LogAndThrow("Failed to remove dir " + path + " with (errno " + std::to_string(err) + ").");
}

void CreateConfigDirs() {
  // Without the namespace the first mkdir fails with ENOENT: a plain directory made in its place
  // would not be a namespace object.
  CreateConfigDir(GetConfigDirPath());
  CreateConfigDir(GetTargetsDirPath());
}

void DeleteConfigDirs() {
  const std::string file = GetConfFilePath();
  int err = kel::platform::GetFs().Unlink(file);
  if (err == ENOENT) {
    LogInfo("%s: Config file %s does not exist.", kTag, file.c_str());
  } else if (err != 0) {
    throw OrsaCtlException("Failed to remove config file " + file + " (" + ErrnoText(err) + ")");
  }
  // The intent file of kel.conf's lock goes with it; a failure shows in the removal below.
  kel::platform::GetFs().Unlink(Fio_IntentPath(file));
  RemoveConfigDir(GetConfigDirPath());
  RemoveConfigDir(GetTargetsDirPath());
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl

NUK_ReturnStatus KeldGetNamespaceUuid(uint8_t uuid[16]) {
  char datastore[PATH_MAX];
  NUK_ReturnStatus status = GetOrsaDatastoreUUIDPath(sizeof(datastore), datastore);
  if (status != NUK_OK) {
    log_warn("%s: Failed to get orsaDataStoreUUIDPath.", __func__);
    return status;
  }
  const std::string path =
      std::string(datastore) + "/" + NukCtl::Orsa::IscsiTarget::Util::kConfigNamespaceName;
  std::string text;
  // The link text is a bare UUID; 36 bytes is all of it.
  int err = kel::platform::GetFs().ReadLink(path, 36, &text);
  if (err != 0) {
    errno = err;
    log_warn("Failed to read symlink for KEL namespace path %s.", path.c_str());
    return NUK_FAILURE;
  }
  if (text.size() != 36 || uuid_parse(text.c_str(), uuid) != 0) {
    log_warnx("%s: Failed to convert KEL namespace UUID string %s to ORSA object type.", __func__,
              text.c_str());
    return NUK_FAILURE;
  }
  return NUK_OK;
}
