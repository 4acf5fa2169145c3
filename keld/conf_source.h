// keld's desired state read from kel.conf: the targets this host owns.
//
// Load() reads kel.conf under its shared lock (ConfHandle, never a raw open) and keeps the
// targets whose "owner-id" object this host owns according to the directory's ownership record
// (Util::GetTargetOwnerHostUuid). What each target becomes:
//  - IQN from the target name, alias, "uuid"; offline when its option "status" is "offline";
//  - one portal: the first listen "<interface>:<port>" of the target's portal group, resolved for
//    this host (a listen whose host part is already a numeric address is used as it is);
//  - authentication from the target's auth group: chap -> its credentials; chap-mutual -> both
//    pairs; none -> everyone; deny -> nobody; initiator names plus the members of every referenced
//    initiator group restrict who may log in as soon as any name or reference exists;
//  - LUN slots 0..255 with the disk's absolute path (GetLunAbsPath), offline from the LUN option
//    "status", alias from "lun-alias", NAA from "naa".
//
// Ownership: "owner-id" names the object (the target's "uuid" when it is missing). An object
// without an ownership record belongs to this host on the embedded one-host directory; on a
// cluster directory it belongs to nobody until the host agent claims it, so no host serves it
// meanwhile. A target with neither option is served only on the embedded directory.
//
// No kel.conf (the configuration namespace does not exist yet, or was deleted) is an empty state,
// not an error. Failures (unreadable or invalid file, directory unreachable) throw
// OrsaCtlException; the daemon then keeps serving what it served.
//
// Cost: the file is parsed again only when it changed (inode, size, times), after Invalidate(),
// or after a notification of the configuration entry; the ownership records are read on every
// Load() with one directory listing.
//
// Thread-safety: used from the daemon's one thread. Only one source per process may Watch().
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "keld/state.h"

struct conf;

namespace kel {
namespace keld {

struct ConfSourceWatch;  // shared with the directory's notification thread

// A target of kel.conf before the ownership filter: `ownerId` is the object whose owner serves
// it. Portals name no owner host yet.
struct ConfTarget {
  DesiredTarget target;
  std::string ownerId;
};

// Converts a parsed model (the caller holds whatever protects it). LUN paths are made absolute
// with the datastore path; a LUN whose path cannot be formed gets an empty path, which the
// reconciler reports for its target.
std::vector<ConfTarget> ConfTargetsFromModel(const struct conf* conf);

class KelConfStateSource : public DesiredStateSource {
 public:
  KelConfStateSource();
  ~KelConfStateSource() override;  // ends the subscription; `wake` is not called afterwards
  KelConfStateSource(const KelConfStateSource&) = delete;
  KelConfStateSource& operator=(const KelConfStateSource&) = delete;

  DesiredState Load() override;
  std::string Describe() const override;
  bool FollowsCluster() const override { return true; }
  void Invalidate() override { fresh_ = false; }
  uint64_t Generation() const override { return generation_; }
  // Subscribes to the directory's configuration entry (once the configuration namespace exists;
  // retried by Load()). Every notification makes the next Load() read the file again.
  void Watch(std::function<void()> wake) override;

  // Whether the configuration entry subscription is established (tests).
  bool SubscribedForTest() const { return subscription_ != nullptr; }

 private:
  void ReadIfChanged();
  void KeepSubscribed();
  void Unsubscribe();

  std::vector<ConfTarget> parsed_;
  uint64_t generation_ = 0;
  bool fresh_ = false;  // parsed_ reflects the file as last stat'ed
  bool have_file_ = false;
  struct stat stat_ = {};  // of the file parsed_ came from
  std::shared_ptr<ConfSourceWatch> watch_;
  void* subscription_ = nullptr;  // configuration entry subscription handle
  std::string subscribedNamespace_;
  std::chrono::steady_clock::time_point nextSubscribe_{};  // retry of a failed subscription
};

}  // namespace keld
}  // namespace kel
