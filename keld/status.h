// What keld serves, as `keld status` reports it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "keld/state.h"

namespace kel {
namespace keld {

struct LunStatus {
  int kelLun = 0;   // kel's LUN number
  int scsiLun = 0;  // the number initiators see
  std::string path;
  uint64_t sizeBytes = 0;
  bool online = true;
  std::string alias;
  std::string naa;
};

struct TargetStatus {
  std::string iqn;
  std::string alias;
  int tid = 0;
  std::string state;
  std::vector<std::string> acl;
  std::vector<std::string> incomingAccounts;  // user names only; secrets are never reported
  std::string outgoingAccount;
  std::vector<std::string> sessions;  // initiator names with an I_T nexus
  std::vector<LunStatus> luns;
};

struct PortalStatus {
  std::string portal;         // "address:port"
  std::string interfaceName;  // empty when not known
};

struct ServedStatus {
  bool running = false;
  int daemonPid = 0;
  int tgtdPid = 0;
  int controlIndex = 0;
  std::string source;  // description of the desired-state source
  std::vector<PortalStatus> portals;
  std::vector<std::string> accounts;
  std::vector<TargetStatus> targets;
  std::vector<Problem> problems;  // of the last reconcile
};

nlohmann::json StatusToJson(const ServedStatus& status);
ServedStatus StatusFromJson(const nlohmann::json& j);  // throws nlohmann::json::exception
std::string StatusToText(const ServedStatus& status);

nlohmann::json ProblemsToJson(const std::vector<Problem>& problems);
std::vector<Problem> ProblemsFromJson(const nlohmann::json& j);

}  // namespace keld
}  // namespace kel
