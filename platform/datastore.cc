#include "platform/datastore.h"

#include <uuid/uuid.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/host_config.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

struct DatastoreMeta {
  Uuid16 uuid{};
  std::string defaultPolicy;
};

std::string MetaPath() { return DatastorePath() + "/" + kDatastoreMetaFile; }

[[noreturn]] void Fail(const std::string& what, int err) {
  throw OrsaCtlException("Datastore metadata " + MetaPath() + ": " + what +
                         (err != 0 ? " (" + ErrnoText(err) + ")" : std::string()));
}

std::string Serialize(const DatastoreMeta& meta) {
  char text[37];
  uuid_unparse_lower(meta.uuid.data(), text);
  nlohmann::json j = {{"uuid", text}, {"defaultPolicy", meta.defaultPolicy}};
  return j.dump(2) + "\n";
}

DatastoreMeta Parse(const std::string& data) {
  DatastoreMeta meta;
  nlohmann::json j = nlohmann::json::parse(data, nullptr, false);
  if (j.is_discarded() || !j.is_object() || !j.contains("uuid") || !j["uuid"].is_string()) {
    Fail("not a datastore metadata file", 0);
  }
  if (uuid_parse(j["uuid"].get<std::string>().c_str(), meta.uuid.data()) != 0) {
    Fail("malformed datastore UUID", 0);
  }
  if (j.contains("defaultPolicy")) {
    if (!j["defaultPolicy"].is_string()) Fail("'defaultPolicy' must be a string", 0);
    meta.defaultPolicy = j["defaultPolicy"].get<std::string>();
  }
  return meta;
}

bool IsEmbeddedDatastore() {
  HostConfigPtr config = CurrentHostConfig();
  return config->datastorePath == config->stateDir + "/datastore";
}

int MakeDirs(Fs& fs, const std::string& path) {
  std::string cur;
  for (size_t i = 0; i <= path.size(); ++i) {
    if ((i == path.size() || path[i] == '/') && !cur.empty()) {
      int err = fs.MakeDir(cur, 0755);
      if (err != 0 && err != EEXIST) return err;
    }
    if (i < path.size()) cur.push_back(path[i]);
  }
  return 0;
}

// Reads the metadata, creating it when missing. Creation writes a complete file under a private
// name and hard-links it into place: link(2) fails when another host won, and then that host's
// file is read instead.
DatastoreMeta LoadOrCreate() {
  Fs& fs = GetFs();
  const std::string path = MetaPath();
  std::string data;
  int err = fs.ReadFile(path, &data);
  if (err == 0) return Parse(data);
  if (err != ENOENT) Fail("cannot read", err);

  FileInfo dir;
  int derr = fs.Stat(DatastorePath(), &dir);
  if (derr == ENOENT && IsEmbeddedDatastore()) {
    // The embedded single-host default keeps its datastore inside the state directory, so it is
    // made on first use. A configured datastore is a mount of a shared file system and must
    // already be there: creating it would put the cluster's files on this host's local disk.
    derr = MakeDirs(fs, DatastorePath());
    if (derr == 0) derr = fs.Stat(DatastorePath(), &dir);
  }
  if (derr != 0) Fail("datastore is not accessible", derr);
  DatastoreMeta fresh;
  uuid_generate_random(fresh.uuid.data());
  char suffix[37];
  uuid_unparse_lower(fresh.uuid.data(), suffix);
  const std::string temp = path + ".new-" + suffix;
  if (int werr = fs.WriteFileAtomic(temp, Serialize(fresh), 0644)) Fail("cannot create", werr);
  int lerr = fs.Link(temp, path);
  fs.Unlink(temp);
  if (lerr == 0) return fresh;
  if (lerr != EEXIST) Fail("cannot create", lerr);
  if (int rerr = fs.ReadFile(path, &data)) Fail("cannot read", rerr);
  return Parse(data);
}

}  // namespace

const char* const kDatastoreMetaFile = ".kel-datastore";

std::string DatastorePath() { return CurrentHostConfig()->datastorePath; }

Uuid16 DatastoreUuid() { return LoadOrCreate().uuid; }

std::string FormatDatastoreUuid(const Uuid16& uuid) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "orsa:";
  for (size_t i = 0; i < uuid.size(); ++i) {
    if (i == 8) out += '-';
    out += kHex[uuid[i] >> 4];
    out += kHex[uuid[i] & 0xf];
  }
  return out;
}

std::string DatastoreUuidText() { return FormatDatastoreUuid(DatastoreUuid()); }

std::string DatastoreDefaultPolicy() { return LoadOrCreate().defaultPolicy; }

void SetDatastoreDefaultPolicy(const std::string& policyText) {
  DatastoreMeta meta = LoadOrCreate();
  meta.defaultPolicy = policyText;
  if (int err = GetFs().WriteFileAtomic(MetaPath(), Serialize(meta), 0644)) {
    Fail("cannot write", err);
  }
}

}  // namespace platform
}  // namespace kel

NUK_ReturnStatus GetOrsaDatastoreUUIDPath(int len, char* out) {
  std::string path = kel::platform::DatastorePath();
  if (out == nullptr || len <= 0 || path.size() + 1 > static_cast<size_t>(len)) {
    return NUK_BAD_PARAM;
  }
  memcpy(out, path.c_str(), path.size() + 1);
  return NUK_OK;
}
