// A desired state kept in a JSON file (tests, benchmarks, and hosts without kel.conf).
//
//   {"initiatorGroups": {"<group>": ["<initiator name>", ...]},
//    "targets": [{"iqn": "...", "alias": "...", "uuid": "...", "status": "online"|"offline",
//                 "portals": [{"interface": "nuk0", "port": 3260}, {"address": "::1", "port":
//                 3261}], "authType": "none"|"deny"|"chap"|"chap-mutual", "chap": [{"user": "...",
//                 "secret": "...", "mutualUser": "...",
//                           "mutualSecret": "..."}],
//                 "initiators": ["iqn..."], "initiatorGroups": ["<group>"],
//                 "luns": [{"id": 0, "path": "/abs/file", "status": "online"|"offline",
//                           "alias": "...", "naa": "..."}]}]}
//
// Every key is optional except a target's "iqn" and a LUN's "id" and "path"; unknown keys, wrong
// types and unknown groups are refused with a message naming them. A portal's port defaults to
// 3260, the auth type to "none".
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "keld/state.h"

namespace kel {
namespace keld {

// Throws OrsaCtlException ("desired state <where>: unknown key 'targets[0].foo'").
DesiredState DesiredStateFromJson(const nlohmann::json& j, const std::string& where);
// The inverse (initiator groups are written out as the names they hold).
nlohmann::json DesiredStateToJson(const DesiredState& state);

class JsonFileStateSource : public DesiredStateSource {
 public:
  explicit JsonFileStateSource(std::string path) : path_(std::move(path)) {}
  // Reads and parses the file on every call, so that edits are picked up by the next reconcile.
  DesiredState Load() override;
  std::string Describe() const override { return "json file " + path_; }

 private:
  std::string path_;
};

}  // namespace keld
}  // namespace kel
