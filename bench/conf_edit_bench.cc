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

#include "bench/limits_conf.h"
#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "conf/writer.h"
#include "platform/host_config.h"

namespace {

using NukCtl::Orsa::IscsiTarget::ConfHandle;
using SteadyClock = std::chrono::steady_clock;

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
  for (int n = 0; n <= kel::bench::kNics; n++) {
    hc.interfaces["nuk" + std::to_string(n)] = {"127.0.0." + std::to_string(11 + n), ""};
  }
  kel::platform::SetCurrentHostConfig(hc);
  for (const std::string& d : {hc.stateDir, hc.datastorePath, hc.datastorePath + "/.iSCSI-CONFIG",
                               hc.datastorePath + "/.iSCSI-CONFIG/etc"}) {
    mkdir(d.c_str(), 0700);
  }
  std::string path = NukCtl::Orsa::IscsiTarget::Util::GetConfFilePath();
  std::string dir = path.substr(0, path.find_last_of('/'));

  struct conf* model = kel::bench::BuildLimitsModel();
  std::string text = NukCtl::Orsa::IscsiTarget::Parser::WriteConfToString(model);
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
