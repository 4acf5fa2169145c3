// One whole kel.conf edit transaction at the cluster limits (128 targets, 1024 LUNs, 256 initiator
// groups, 8192 initiators): exclusive lock, parse, change, write with generation + 1, sync, swap,
// unlock. In the same run, on the same file system, the median time of parsing the file alone and
// of a bare atomic write of the same bytes (write, fsync, rename, directory fsync), and the ratio
// transaction / (parse + write). Goal: ratio <= 1.2, i.e. locking (with the writer's intent
// file), the inode re-check, printing and the swap bookkeeping add at most a fifth to the
// unavoidable parse and durable write.
//
//   conf_edit_bench [iterations] [directory]   (default 41, $TMPDIR or /tmp)
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/writer.h"
#include "platform/host_config.h"
#include "storage/paths.h"

namespace {

using NukCtl::Orsa::IscsiTarget::ConfHandle;
using SteadyClock = std::chrono::steady_clock;

constexpr int kTargets = 128;
constexpr int kLunsPerTarget = 8;  // 1024 LUNs
constexpr int kInitiatorGroups = 256;
constexpr int kInitiatorsPerGroup = 32;  // 8192 initiators
constexpr int kNics = 4;

std::string Uuid(int kind, int n) {
  char buf[64];
  snprintf(buf, sizeof(buf), "6f1d2c4a-8b3e-4c5d-9e7f-%04x%08x", kind, n);
  return buf;
}

// The configuration at the limits, built through the model the way the editing operations do.
struct conf* BuildModel() {
  struct conf* c = conf_new();
  auth_group_new(c, "default")->ag_type = AG_TYPE_NO_AUTHENTICATION;
  auth_group_new(c, "no-authentication")->ag_type = AG_TYPE_NO_AUTHENTICATION;
  auth_group_new(c, "no-access")->ag_type = AG_TYPE_DENY;
  struct portal_group* def = portal_group_new(c, "default");
  def->pg_discovery_auth_group = auth_group_find(c, "default");
  portal_group_add_listen(def, "nuk0:3260", false);

  for (int g = 0; g < kInitiatorGroups; g++) {
    struct initiator_group* ig = initiator_group_new(c, ("ig-" + std::to_string(g)).c_str());
    for (int i = 0; i < kInitiatorsPerGroup; i++) {
      std::string name =
          "iqn.1998-01.com.example:host-" + std::to_string(g) + "-" + std::to_string(i);
      initiator_new(ig, name.c_str());
    }
  }
  std::vector<struct portal_group*> pgs;
  for (int n = 1; n <= kNics; n++) {
    std::string nic = "nuk" + std::to_string(n);
    struct portal_group* pg = portal_group_new(c, ("pg-" + nic + "-3260").c_str());
    pg->pg_discovery_auth_group = auth_group_find(c, "no-authentication");
    portal_group_add_listen(pg, (nic + ":3260").c_str(), false);
    pgs.push_back(pg);
  }
  for (int t = 0; t < kTargets; t++) {
    std::string uuid = Uuid(1, t);
    struct auth_group* ag = auth_group_new(c, uuid.c_str());
    if (t % 3 == 0) {
      auth_new_chap(ag, ("user-" + std::to_string(t)).c_str(), "secret-0123456", false);
    } else if (t % 3 == 1) {
      auth_new_chap_mutual(ag, ("user-" + std::to_string(t)).c_str(), "secret-0123456",
                           "target-user", "mutual-0123456", false);
    } else {
      ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
    }
    auth_group_igroup_ref_add(c, ag, ("ig-" + std::to_string(t * 2)).c_str());
    auth_group_igroup_ref_add(c, ag, ("ig-" + std::to_string(t * 2 + 1)).c_str());

    std::string name = "iqn.2024-01.com.example:target-" + std::to_string(t);
    struct target* target = target_new(c, name.c_str());
    target->t_alias = checked_strdup(("target " + std::to_string(t)).c_str());
    port_new(c, target, pgs[t % pgs.size()]);
    target->t_auth_group = ag;
    target_option_new(target, "uuid", uuid.c_str());
    target_option_new(target, "owner-id", Uuid(2, t).c_str());
    target_option_new(target, "status", "online");
    for (int l = 0; l < kLunsPerTarget; l++) {
      int number = l * 31 % 256;
      char lun_name[300];
      keld_target_lun_name(lun_name, sizeof(lun_name), target->t_name, number);
      struct lun* lun = lun_new(c, lun_name);
      lun_set_backend(lun, "pemo");
      lun_set_path(lun, (uuid + "/" + Uuid(3, t * kLunsPerTarget + l) + ".pemo").c_str());
      lun_set_size(lun, 2097152LL * (l + 1));
      lun_set_keld_lun(lun, number);
      option_new(&lun->l_options, "lun-alias", ("lun " + std::to_string(number)).c_str());
      target->t_luns[number] = lun;
    }
  }
  return c;
}

std::string WriteText(const struct conf* conf) {
  char* data = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&data, &size);
  __fsetlocking(stream, FSETLOCKING_BYCALLER);  // as ConfHandle prints
  NukCtl::Orsa::IscsiTarget::Parser::WriteConfToStream(conf, stream);
  fclose(stream);
  std::string text(data, size);
  free(data);
  return text;
}

// Prints the model into a stream set up as ConfHandle sets up its temporary file, but writing to
// /dev/null: the writer's own cost, without a growing in-memory stream or a file system.
void PrintToNull(const struct conf* conf) {
  FILE* stream = fopen("/dev/null", "we");
  if (stream == nullptr) return;
  setvbuf(stream, nullptr, _IOFBF, 256 * 1024);
  __fsetlocking(stream, FSETLOCKING_BYCALLER);
  NukCtl::Orsa::IscsiTarget::Parser::WriteConfToStream(conf, stream);
  fclose(stream);
}

double MsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void Die(const std::string& what) {
  fprintf(stderr, "conf_edit_bench: %s: %s\n", what.c_str(), strerror(errno));
  exit(1);
}

// The durable replace that every edit needs at least: the bytes into a new file beside the
// target, fsync, rename over it, fsync of the directory.
void BareAtomicWrite(const std::string& dir, const std::string& target, const std::string& text) {
  std::string temp = dir + "/.bench.tmp";
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) Die("open " + temp);
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) Die("write");
  if (fsync(fd) != 0) Die("fsync");
  close(fd);
  if (rename(temp.c_str(), target.c_str()) != 0) Die("rename");
  int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd < 0 || fsync(dfd) != 0) Die("fsync dir");
  close(dfd);
}

}  // namespace

int main(int argc, char** argv) {
  int iterations = argc > 1 ? atoi(argv[1]) : 41;
  if (iterations < 1) iterations = 1;
  std::string base = argc > 2 ? argv[2] : (getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp");
  std::string root = base + "/kel-conf-edit-bench-XXXXXX";
  std::vector<char> buf(root.begin(), root.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) Die("mkdtemp " + root);
  root = buf.data();

  kel::platform::HostConfig hc = kel::platform::EmbeddedHostConfig();
  hc.stateDir = root + "/state";
  hc.datastorePath = root + "/datastore";
  hc.hostUuid = "11111111-2222-3333-4444-555555555555";
  hc.hostName = "bench";
  hc.networkOverride = true;
  for (int n = 0; n <= kNics; n++) {
    hc.interfaces["nuk" + std::to_string(n)] = {"127.0.0." + std::to_string(11 + n), ""};
  }
  kel::platform::SetCurrentHostConfig(hc);
  for (const std::string& d : {hc.stateDir, hc.datastorePath, hc.datastorePath + "/.iSCSI-CONFIG",
                               hc.datastorePath + "/.iSCSI-CONFIG/etc"}) {
    mkdir(d.c_str(), 0700);
  }
  std::string path = NukCtl::Orsa::IscsiTarget::Util::GetConfFilePath();
  std::string dir = path.substr(0, path.find_last_of('/'));

  struct conf* model = BuildModel();
  std::string text = WriteText(model);
  conf_delete(model);
  BareAtomicWrite(dir, path, text);
  chmod(path.c_str(), 0600);

  std::vector<double> tx, parse, bare, print, release;
  for (int i = 0; i < iterations; i++) {
    // One edit: flip the status of one target, as an offline/online change does.
    auto start = SteadyClock::now();
    {
      ConfHandle handle(ConfHandle::kExclusive);
      struct target* t = TAILQ_FIRST(&handle.GetConf()->conf_targets);
      struct target_option* to = target_option_find(t, "status");
      const char* next = strcmp(to->to_value, "online") == 0 ? "offline" : "online";
      free(to->to_value);
      to->to_value = checked_strdup(next);
      handle.WriteConfFile();
    }
    tx.push_back(MsSince(start));

    start = SteadyClock::now();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct conf* c = conf_new_from_file(fd, path.c_str(), nullptr);
    if (c == nullptr) Die("parse");
    parse.push_back(MsSince(start));
    start = SteadyClock::now();
    conf_delete(c);
    release.push_back(MsSince(start));
    close(fd);

    // The same bytes as the file now holds, to a file of its own in the same directory.
    std::string current;
    {
      FILE* f = fopen(path.c_str(), "re");
      if (f == nullptr) Die("read " + path);
      char chunk[65536];
      size_t n;
      while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) current.append(chunk, n);
      fclose(f);
    }
    start = SteadyClock::now();
    BareAtomicWrite(dir, dir + "/kel.conf.bare", current);
    bare.push_back(MsSince(start));
    text = current;

    // Printing the model alone: the part of the transaction that is neither parse nor durable
    // write.
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    c = conf_new_from_file(fd, path.c_str(), nullptr);
    close(fd);
    if (c == nullptr) Die("parse");
    start = SteadyClock::now();
    PrintToNull(c);
    print.push_back(MsSince(start));
    conf_delete(c);
  }

  double t = Median(tx), p = Median(parse), w = Median(bare);
  printf("kel.conf at the cluster limits: %zu bytes, %d iterations, in %s\n", text.size(),
         iterations, dir.c_str());
  printf("%-44s %10s\n", "measure", "median ms");
  printf("%-44s %10.3f\n", "edit transaction (lock..unlock)", t);
  printf("%-44s %10.3f\n", "parse alone", p);
  printf("%-44s %10.3f\n", "bare atomic write (write, fsync, rename)", w);
  printf("%-44s %10.3f\n", "(printing the model alone, for reference)", Median(print));
  printf("%-44s %10.3f\n", "(freeing the model alone, for reference)", Median(release));
  printf("%-44s %10.3f\n", "ratio transaction / (parse + write)", t / (p + w));
  printf("goal: ratio <= 1.2 -> %s\n", t / (p + w) <= 1.2 ? "met" : "NOT met");

  std::string cleanup = "rm -rf '" + root + "'";
  if (system(cleanup.c_str()) != 0) fprintf(stderr, "could not remove %s\n", root.c_str());
  return 0;
}
