// Directory latency, on both backends:
//   publish  - KeldUpdateLodexEntryForConfig: publish a generation and wait for the completion;
//   stale    - from one host's publish until another host's configuration cache turns stale
//              (its notification arrived and was applied).
// The embedded backend runs its two "hosts" as two directory objects on one state directory (as
// two processes of a host would); the etcd backend as two hosts on an etcd started here on
// loopback ports and stopped by its PID.
//
// Usage: directory_bench [--iterations N] [--skip-etcd]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/etcd_client.h"
#include "platform/host_config.h"

using Clock = std::chrono::steady_clock;
using kel::platform::DirectoryRole;
using kel::platform::HostConfig;
namespace ConfigCache = NukCtl::Orsa::IscsiTarget::ConfigCache;

namespace {

int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

// etcd on loopback for the run, stopped by its PID.
class Etcd {
 public:
  bool Start(const std::string& dataDir) {
    port_ = FreePort();
    int peer = FreePort();
    std::string client = Endpoint();
    std::string peerUrl = "http://127.0.0.1:" + std::to_string(peer);
    std::vector<std::string> args = {"etcd",
                                     "--name",
                                     "bench",
                                     "--data-dir",
                                     dataDir,
                                     "--listen-client-urls",
                                     client,
                                     "--advertise-client-urls",
                                     client,
                                     "--listen-peer-urls",
                                     peerUrl,
                                     "--initial-advertise-peer-urls",
                                     peerUrl,
                                     "--initial-cluster",
                                     "bench=" + peerUrl,
                                     "--heartbeat-interval",
                                     "10",
                                     "--election-timeout",
                                     "100",
                                     "--log-level",
                                     "error"};
    pid_ = fork();
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      if (freopen("/dev/null", "w", stdout) == nullptr ||
          freopen((dataDir + ".log").c_str(), "w", stderr) == nullptr) {
        _exit(126);
      }
      execvp("etcd", argv.data());
      _exit(127);
    }
    kel::platform::EtcdClient client_({client});
    for (int i = 0; i < 200; ++i) {
      std::vector<kel::platform::EtcdClient::KeyValue> kvs;
      if (client_.Range("probe", std::string(), &kvs) == NUK_OK) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  ~Etcd() { Stop(); }
  std::string Endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

struct Stats {
  double medianUs;
  double p99Us;
};

Stats Summarize(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  size_t p99 = std::min(us.size() - 1, static_cast<size_t>(us.size() * 0.99));
  return {us[us.size() / 2], us[p99]};
}

double Micros(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::micro>(b - a).count();
}

struct Result {
  std::string backend;
  Stats publish;
  Stats stale;
};

Result Run(const std::string& backend, const HostConfig& a, const HostConfig& b, int iterations) {
  kel::platform::SetCurrentHostConfig(a);
  auto dirA = kel::platform::OpenDirectory(a, DirectoryRole::kHostAgent);
  auto dirB = kel::platform::OpenDirectory(b, DirectoryRole::kHostAgent);
  kel::platform::SetDirectoryForTest(dirB);
  ConfigCache::SubscribeLodex();  // host B's cache follows the entry
  kel::platform::SetDirectoryForTest(dirA);

  uint64_t gen = 1;
  for (int i = 0; i < 10; ++i) KeldUpdateLodexEntryForConfig(gen++);  // warm-up
  std::vector<double> publish, stale;
  for (int i = 0; i < iterations; ++i) {
    auto t0 = Clock::now();
    if (KeldUpdateLodexEntryForConfig(gen++) != NUK_OK) fprintf(stderr, "publish failed\n");
    publish.push_back(Micros(t0, Clock::now()));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let notifications drain
  for (int i = 0; i < iterations; ++i) {
    ConfigCache::SetKelConfDirty(false);
    auto t0 = Clock::now();
    KeldUpdateLodexEntryForConfig(gen++);
    auto deadline = t0 + std::chrono::seconds(10);
    while (!ConfigCache::IsKelConfDirty() && Clock::now() < deadline) std::this_thread::yield();
    stale.push_back(Micros(t0, Clock::now()));
  }
  ConfigCache::UnsubscribeLodex();
  kel::platform::SetDirectoryForTest(nullptr);
  return {backend, Summarize(publish), Summarize(stale)};
}

HostConfig MakeHost(const std::string& root, const std::string& name) {
  HostConfig c;
  c.hostUuid = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  c.hostName = name;
  c.stateDir = root + "/state";
  c.datastorePath = root + "/datastore";
  return c;
}

}  // namespace

int main(int argc, char** argv) {
  int iterations = 200;
  bool skipEtcd = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--iterations") == 0 && i + 1 < argc) iterations = atoi(argv[++i]);
    if (strcmp(argv[i], "--skip-etcd") == 0) skipEtcd = true;
  }
  log_init(0);
  char tmpl[] = "/tmp/kel-directory-bench-XXXXXX";
  std::string root = mkdtemp(tmpl);
  std::string ns = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  mkdir((root + "/datastore").c_str(), 0700);
  mkdir((root + "/datastore/" + ns).c_str(), 0700);
  symlink(ns.c_str(), (root + "/datastore/.iSCSI-CONFIG").c_str());

  std::vector<Result> results;
  HostConfig embedded = MakeHost(root, "host-a");
  results.push_back(Run("embedded", embedded, embedded, iterations));

  Etcd etcd;
  if (!skipEtcd) {
    if (!etcd.Start(root + "/etcd")) {
      fprintf(stderr, "etcd did not start (see %s/etcd.log)\n", root.c_str());
      return 1;
    }
    HostConfig a = MakeHost(root, "host-a"), b = MakeHost(root, "host-b");
    for (HostConfig* c : {&a, &b}) {
      c->directoryBackend = "etcd";
      c->etcdEndpoints = {etcd.Endpoint()};
      c->etcdPrefix = "/kel/bench";
      c->stateDir = root + "/state-" + c->hostName;
    }
    results.push_back(Run("etcd", a, b, iterations));
    etcd.Stop();
  }

  printf("%-10s %-28s %12s %12s\n", "backend", "operation", "median (us)", "p99 (us)");
  for (const Result& r : results) {
    printf("%-10s %-28s %12.1f %12.1f\n", r.backend.c_str(), "publish with completion",
           r.publish.medianUs, r.publish.p99Us);
    printf("%-10s %-28s %12.1f %12.1f\n", r.backend.c_str(), "publish -> other cache stale",
           r.stale.medianUs, r.stale.p99Us);
  }
  printf("(%d iterations each)\n", iterations);
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  return 0;
}
