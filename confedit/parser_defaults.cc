// The cluster defaults in kel.conf and the first kel.conf of a new configuration namespace.
#include <memory>
#include <string>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/conf_ptr.h"
#include "conf/paths.h"
#include "conf/writer.h"
#include "confedit/parser_edit.h"
#include "confedit/parser_internal.h"
#include "host/validation.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "storage/namespace.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using namespace internal;  // NOLINT(build/namespaces): this file's own helpers

namespace {

void SetDefaultAuth(struct conf* c, const DefaultInfo& info) {
  LogInfo("%s: Updating default authenticaion to auth type %s", kTag, info.authType.c_str());
  if (info.authType.empty()) return;
  struct auth_group* ag = auth_group_find(c, "default");
  if (ag == nullptr) throw OrsaCtlException("Failed to find auth-group default");
  const std::string type = Lower(info.authType);
  if (type != "no-authentication" && type != "chap" && type != "chap-mutual") {
    throw OrsaCtlException("Invalid default auth type '" + info.authType + "'");
  }
  struct auth* a;
  while ((a = TAILQ_FIRST(&ag->ag_auths)) != nullptr) auth_delete(a);
  if (type == "chap") {
    if (auth_new_chap(ag, info.chapName.c_str(), info.chapSecret.c_str(), false) == nullptr) {
      throw OrsaCtlException("Failed to update auth type 'CHAP' for auth-group default");
    }
  } else if (type == "chap-mutual") {
    if (auth_new_chap_mutual(ag, info.chapName.c_str(), info.chapSecret.c_str(),
                             info.mutualChapName.c_str(), info.mutualChapSecret.c_str(),
                             false) == nullptr) {
      throw OrsaCtlException("Failed to update auth type 'CHAP-Mutual' for auth-group default");
    }
  } else {
    ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
  }
}

void SetDefaultPortal(struct conf* c, const DefaultInfo& info) {
  if (info.networkInterface.empty()) return;
  Util::VerifyNetworkInterfaceName(info.networkInterface);
  struct portal_group* pg = portal_group_find(c, "default");
  if (pg == nullptr) throw OrsaCtlException("Failed to find portal-group default");
  const std::string listen = info.networkInterface + ":" + std::to_string(info.port);
  struct portal* p;
  while ((p = TAILQ_FIRST(&pg->pg_portals)) != nullptr) portal_delete(p);
  if (portal_group_add_listen(pg, listen.c_str(), false) != 0) {
    throw OrsaCtlException("Failed to add listen address " + listen + " to portal-group default");
  }
}

}  // namespace

void UpdateDefaultConfig(const DefaultInfo& info) {
  try {
    Util::ChangeConfFile([&](ConfHandle& handle) {
      struct conf* c = handle.GetConf();
      SetDefaultAuth(c, info);
      SetDefaultPortal(c, info);
      return true;
    });
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to Update default config info %s", kTag, e.GetMessage().c_str());
    throw;
  }
  LogInfo("%s: Updated default config successfully.", kTag);
}

void InitConf() {
  LogInfo("%s: Initialize conf file", kTag);
  kel::platform::Fs& fs = kel::platform::GetFs();
  const std::string path = Util::GetConfFilePath();
  if (fs.Exists(path)) {
    LogInfo("%s: Conf file %s already exists, leaving it as it is", kTag, path.c_str());
    return;
  }
  ConfPtr empty(conf_new());
  const std::string text = WriteConfToString(empty.get());

  // Written whole under a private name, then linked into place: a host that loses the race to
  // another one creating the file at the same moment keeps the winner's file, and nobody ever
  // sees a partial one.
  const std::string temp =
      Util::GetConfigDirPath() + ".kel.conf.init." + Util::GenerateRandomUuid();
  int err = fs.WriteFileAtomic(temp, text, 0600);
  if (err == 0) {
    err = fs.Link(temp, path);
    fs.Unlink(temp);
  }
  if (err == EEXIST) {
    LogInfo("%s: Conf file %s already exists, leaving it as it is", kTag, path.c_str());
    return;
  }
  if (err != 0) {
    throw OrsaCtlException("Failed to create conf file " + path + ": " +
                           kel::platform::ErrnoText(err));
  }
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
