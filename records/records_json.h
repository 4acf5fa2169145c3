// JSON form of the interface records: one object per record, keys are the field names.
// Used by `kelctl --json`. Reading tolerates missing keys (they keep their defaults).
#pragma once

#include <nlohmann/json.hpp>

#include "records/records.h"

namespace HostCtl {
namespace Orsa {
namespace IscsiTarget {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(AuthInfo, authType, chapName, chapSecret,
                                                mutualChapName, mutualChapSecret)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(DefaultInfo, networkInterface, port, authType,
                                                chapName, chapSecret, mutualChapName,
                                                mutualChapSecret)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(TargetCreateParam, alias, userData, iqn, uuid,
                                                storagePolicy, networkInterface, port, authType,
                                                chapName, chapSecret, mutualChapName,
                                                mutualChapSecret, affinitySite, status, initiators)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(LunInfo, id, alias, inConfig, uuid, path, sizeText,
                                                sizeMiB, sizeSectors, userData, targetAlias,
                                                storagePolicy, policyCompliant, status, naa)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(TargetInfo, alias, iqn, uuid, networkInterface,
                                                port, authType, chapName, mutualChapName, ownerId,
                                                ownerHostUuid, ownerHostName, storagePolicy,
                                                affinitySite, policyCompliant, initiators,
                                                initiatorGroups, luns, userData)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(InitiatorgroupInfo, name, initiators, targets)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(NamespaceInfo, uuid, storagePolicy, policyCompliant,
                                                path)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(NamespaceCreateParam, storagePolicy)

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace HostCtl
