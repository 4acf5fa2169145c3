// Record extraction: turns a configuration model (conf/conf.h) into the records that cross the
// management interface (records/records.h).
//
// Pure conversion: the model is only read, and no lock is taken here; callers hold whatever
// protects the model (the configuration cache's lock, or the ConfHandle that read it). Every
// function throws HostCtl::Lib::Orsa::OrsaCtlException "Cannot find Orsa iSCSI configuration!"
// for a null model. On any other failure the output may hold the records finished before it.
//
// A model that skipped verification is tolerated: a target without an auth group reads as
// "No-Authentication", a missing "uuid" option as an empty uuid, missing names as empty text.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "records/records.h"

struct conf;
struct auth;
struct auth_group;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

namespace Parser {

// Text of an auth group type: 2 "No-Authentication", 3 "CHAP", 4 "CHAP-Mutual", else "None".
std::string AuthTypeToStr(int type);

// Sets `typeText` to the group's type text ("No-Authentication" for a null group) and returns the
// group's first credential when its type is chap or chap-mutual, else null. The credential stays
// owned by the group.
struct auth* GetAuthInfo(const struct auth_group* ag, std::string& typeText);

}  // namespace Parser

using Parser::AuthTypeToStr;

// Empties `out`, then appends one record per target in configuration order, with its LUNs in
// ascending slot order. Secrets are never copied. Fails with "Failed to get lun absolute path: "
// + status text when a LUN's absolute path cannot be formed.
void _GetTargetInfos(struct conf* conf, std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo>& out);

// Appends (without emptying `out`) one record per initiator group in configuration order, each
// with the targets whose auth group references it (alias -> IQN, first target of an alias wins).
void _GetInitiatorGroupInfos(struct conf* conf,
                             std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo>& out);

// The cluster defaults: the "default" auth group's type and first credential (secrets only with
// `withSecrets`), and the last portal of the "default" portal group (port 3260 without one).
// Fails with "Default network interface not found." for a default portal without a host part.
HostCtl::Orsa::IscsiTarget::DefaultInfo GetConfigInfoFromConf(struct conf* conf, bool withSecrets);

// Empties `out`, then inserts the host interface name of every portal of every portal group.
void GetIscsiNuknicsFromConf(struct conf* conf, std::set<std::string>& out);

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
