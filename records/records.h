// Value records that cross the management interface, in both directions.
//
// Plain aggregates: member-wise copy, no resources, no virtual functions. A text field that a
// producer does not fill is the empty string. Field order is part of the interface.
// The few members that carry no meaning of their own (userData, inConfig) are carried and copied
// unchanged so that callers can round-trip them.
//
// The records sit under every other layer: extraction, validation, editing, the settings store and
// the service all produce and consume them (docs/architecture.md).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace HostCtl {
namespace Orsa {
namespace IscsiTarget {

// CHAP settings of a target or of the cluster default.
struct AuthInfo {
  std::string authType;  // "No-Authentication", "CHAP", "CHAP-Mutual" (or "None" when unknown)
  std::string chapName;
  std::string chapSecret;
  std::string mutualChapName;
  std::string mutualChapSecret;
};

// Cluster-wide defaults that a new target inherits. Secrets are filled only when the reader is
// asked for them; the management interface never asks.
struct DefaultInfo {
  std::string networkInterface;
  int32_t port = 3260;
  std::string authType;
  std::string chapName;
  std::string chapSecret;
  std::string mutualChapName;
  std::string mutualChapSecret;
};

// What a caller gives to create (AddTarget) or change (UpdateTargetConfig) a target.
struct TargetCreateParam {
  std::string alias;
  std::string userData;  // carried, no meaning to the service
  std::string iqn;       // empty on AddTarget: a default IQN is generated
  std::string uuid;      // namespace object of the target; written by AddTarget
  std::string storagePolicy;
  std::string networkInterface;
  int32_t port = 3260;
  std::string authType;
  std::string chapName;
  std::string chapSecret;
  std::string mutualChapName;
  std::string mutualChapSecret;
  std::string affinitySite;  // "", "Preferred", "NonPreferred" or "None"
  // Target status written to the "status" target option ("online"/"offline"); empty keeps it.
  std::string status;
  // Initiator IQNs and initiator-group names admitted by the target.
  std::vector<std::string> initiators;
};

// One LUN of a target.
struct LunInfo {
  int32_t id = -1;
  std::string alias;
  bool inConfig = false;  // true when the record was read from the configuration
  std::string uuid;       // backing object, derived from the backing file path
  std::string path;       // absolute path of the backing file
  std::string sizeText;   // requested size as text, e.g. "64MiB"
  uint64_t sizeMiB = 0;
  uint64_t sizeSectors = 0;
  std::string userData;  // carried, no meaning to the service
  std::string targetAlias;
  std::string storagePolicy;
  bool policyCompliant = false;
  std::string status;  // "online" unless the LUN option "status" says otherwise
  std::string naa;
};

// One target as the service describes it. Secrets are never returned here.
struct TargetInfo {
  std::string alias;
  std::string iqn;
  std::string uuid;
  std::string networkInterface;
  int32_t port = 3260;
  std::string authType;
  std::string chapName;
  std::string mutualChapName;
  std::string ownerId;
  std::string ownerHostUuid;
  std::string ownerHostName;
  std::string storagePolicy;
  std::string affinitySite;
  bool policyCompliant = false;
  std::vector<std::string> initiators;
  std::vector<std::string> initiatorGroups;
  std::vector<LunInfo> luns;
  std::string userData;  // carried, no meaning to the service
};

struct InitiatorgroupInfo {
  std::string name;
  std::vector<std::string> initiators;
  std::map<std::string, std::string> targets;  // target alias -> target IQN
};

struct NamespaceInfo {
  std::string uuid;
  std::string storagePolicy;
  bool policyCompliant = false;
  std::string path;  // where the configuration namespace lives on this host
};

struct NamespaceCreateParam {
  std::string storagePolicy;
};

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace HostCtl
