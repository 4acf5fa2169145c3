// The host's settings store: what this host remembers about the service between runs.
//
// One JSON file, <stateDir>/settings.json, mode 0600 (the cluster defaults may carry CHAP secrets):
//   {"serviceEnabled": false, "startAtBoot": false, "defaults": {DefaultInfo fields}}
// Missing keys read as the defaults below; unknown keys are ignored so that a newer program's file
// still reads.
//
// Writes replace the file atomically (temporary file, fsync, rename, directory fsync) under an
// exclusive lock on <stateDir>/settings.lock, as a read-modify-write, so that kelctl and the host
// agent (different processes) never lose each other's changes. Reads are served from a
// process-wide cache under a mutex and re-read when the file changed (inode, size or mtime).
//
// Thread-safety: every function is thread-safe. Failures throw OrsaCtlException with the path and
// the system error; a failed write leaves the previous file in place.
#pragma once

#include <functional>
#include <string>

#include "records/records.h"

namespace kel {
namespace platform {

struct Settings {
  bool serviceEnabled = false;
  bool startAtBoot = false;  // the host agent restores the service when it starts
  bool hasDefaults = false;  // false until defaults were stored
  HostCtl::Orsa::IscsiTarget::DefaultInfo defaults;
};

// The settings in `text` (the contents of the file at `path`, named in messages). Throws
// OrsaCtlException "settings store <path>: ..." when the text is not such a document.
Settings ParseSettingsText(const std::string& path, const std::string& text);

// <stateDir>/settings.json of the current host configuration.
std::string SettingsPath();

// The stored settings (defaults when the file does not exist yet).
Settings LoadSettings();

// Applies `change` to the current stored settings and writes the result. `change` runs with the
// store's file lock held and must not call back into the store.
void UpdateSettings(const std::function<void(Settings&)>& change);

}  // namespace platform
}  // namespace kel
