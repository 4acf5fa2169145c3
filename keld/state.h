// What keld is asked to serve: the desired state, the source it comes from, and the outcome
// codes that keld's commands report.
//
// The desired state is plain data, independent of where it was read from. A DesiredStateSource
// produces it; the reconciler (keld/reconciler.h) makes tgtd serve it. Sources:
//  - JsonFileStateSource (keld/json_source.h): a JSON file, used by tests and benchmarks.
//  - KelConfStateSource (keld/conf_source.h): kel.conf read under the shared lock, keeping
//    the targets this host owns; their portals name this host so that DirectoryPortalResolver
//    (keld/directory_resolver.h) turns the interface into the address the host published.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kel {
namespace keld {

// Outcome codes of keld's commands, also used as the program's exit codes.
enum class Outcome : int {
  kOk = 0,
  kReservation = 1,  // a resource could not be obtained: tgtd's control index, a portal address
  kFailure = 2,      // anything else
};

// One thing that went wrong while starting or reconciling.
struct Problem {
  Problem() = default;
  Problem(Outcome code_in, std::string target_in, std::string message_in)
      : code(code_in), target(std::move(target_in)), message(std::move(message_in)) {}

  Outcome code = Outcome::kFailure;
  std::string target;  // the IQN of the target it concerns; empty when it is no one target's
  std::string message;
  // keld cannot serve at all (kel.conf unreadable, tgtd not answering, its control index, ...).
  // Only such problems fail every command; the others are confined to their target or are
  // housekeeping (a leftover portal or account that could not be deleted), see keld/control.h.
  bool daemonWide = false;
  std::string portal;  // "address:port" when the problem is that this portal cannot be obtained
};

// A daemon-wide problem.
inline Problem DaemonProblem(const std::string& message, Outcome code = Outcome::kFailure) {
  Problem p;
  p.code = code;
  p.message = message;
  p.daemonWide = true;
  return p;
}

// The exit code for a list of problems: 0 when empty, 1 when every problem is a failed resource
// reservation, 2 otherwise.
Outcome OutcomeOf(const std::vector<Problem>& problems);

// How initiators authenticate to a target (the auth group's type).
enum class AuthRule { kNone, kDeny, kChap, kChapMutual };

const char* AuthRuleName(AuthRule rule);  // "none", "deny", "chap", "chap-mutual"

// One CHAP credential. The mutual pair is used only under AuthRule::kChapMutual.
struct ChapCredential {
  std::string user;
  std::string secret;
  std::string mutualUser;
  std::string mutualSecret;
};
bool operator==(const ChapCredential& a, const ChapCredential& b);

// A portal names a network interface and a port. `address` may be given directly (then nothing is
// resolved); otherwise a PortalResolver turns the interface into an address of the host that
// serves the target (`ownerHostUuid`, empty for this host).
struct DesiredPortal {
  std::string interfaceName;
  std::string address;
  int port = 3260;
  std::string ownerHostUuid;
};
bool operator==(const DesiredPortal& a, const DesiredPortal& b);

// A LUN slot of a target. `id` is kel's LUN number (0..255).
struct DesiredLun {
  int id = 0;
  std::string path;  // the backing file
  bool offline = false;
  std::string alias;
  std::string naa;  // 32 hex digits or empty; reported by the LUN as its NAA identifier
};
bool operator==(const DesiredLun& a, const DesiredLun& b);

struct DesiredTarget {
  std::string iqn;
  std::string alias;
  std::string uuid;
  bool offline = false;
  std::vector<DesiredPortal> portals;
  AuthRule auth = AuthRule::kNone;
  std::vector<ChapCredential> chap;
  // True when initiator names or initiator groups were given: then exactly `initiators` may log
  // in (an empty list admits nobody). Otherwise the auth rule decides: deny admits nobody, the
  // others admit every initiator.
  bool initiatorsRestricted = false;
  std::vector<std::string> initiators;  // names and the members of the referenced groups
  std::vector<DesiredLun> luns;
};
bool operator==(const DesiredTarget& a, const DesiredTarget& b);

struct DesiredState {
  std::vector<DesiredTarget> targets;
};
bool operator==(const DesiredState& a, const DesiredState& b);
inline bool operator!=(const DesiredState& a, const DesiredState& b) { return !(a == b); }

// Where the desired state comes from.
//
// Load() reads the current desired state; it throws OrsaCtlException when the source cannot be
// read or is malformed, and the caller then keeps serving what it served before. Sources are used
// from the daemon's one thread and need not be thread-safe, except for the `wake` function they
// are given, which they may call from any thread.
class DesiredStateSource {
 public:
  virtual ~DesiredStateSource() = default;
  virtual DesiredState Load() = 0;
  // A short text for logs ("json file /x/state.json").
  virtual std::string Describe() const = 0;

  // The rest serves the daemon's cheap periodic checks; the defaults fit a source that is simply
  // read again each time.
  //
  // True when the state follows the cluster (kel.conf, target ownership, published interfaces):
  // the daemon then resolves portals through the directory.
  virtual bool FollowsCluster() const { return false; }
  // The next Load() must read everything afresh instead of reusing what has not visibly changed.
  virtual void Invalidate() {}
  // The generation of what the last Load() read (0: none, or the source has no generations).
  virtual uint64_t Generation() const { return 0; }
  // Asks the source to call `wake` (from any thread) whenever its state may have changed, so
  // that the daemon checks at once instead of at its next period. A source without change
  // notifications ignores it. The source stops calling `wake` when it is destroyed.
  virtual void Watch(std::function<void()> wake) { (void)wake; }
};

// The source the daemon uses: the JSON file `json_path` when not empty, else $KELD_DESIRED_STATE
// when set, else kel.conf (KelConfStateSource).
std::unique_ptr<DesiredStateSource> MakeDefaultStateSource(const std::string& json_path);

// kel's LUN n is served as SCSI LUN n + 1 because tgtd's LUN 0 is always its controller. These
// two functions are the only place that knows the mapping.
inline int ScsiLunForKelLun(int kel_lun) { return kel_lun + 1; }
inline int KelLunForScsiLun(int scsi_lun) { return scsi_lun - 1; }

}  // namespace keld
}  // namespace kel
