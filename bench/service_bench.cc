// Latency of the service's main operations against a real temporary datastore and the embedded
// directory, with 0, 64 and 128 targets already in kel.conf. The daemon control is /bin/true, so
// the figures are the service's own work: validation, namespace and disk creation, the locked
// read-modify-write of kel.conf, publication in the directory.
//
//   service_bench [iterations]     (default 25 per write measurement, 8x that per read one)
//
// Prints one row per operation and configuration size: median and 90th percentile in
// microseconds. AddTarget cannot run with 128 targets in place (that is the limit), so its last
// row starts from 127.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "conf/paths.h"
#include "directory/config_cache.h"
#include "platform/directory.h"
#include "platform/disk_lun_api.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "service/orsa_async_plugin.h"
#include "storage/namespace.h"

namespace {

namespace Kel = NukCtl::Orsa::IscsiTarget;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
using HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using Clock = std::chrono::steady_clock;

std::string Uuid(int n) {
  char text[40];
  snprintf(text, sizeof(text), "00000000-0000-4000-8000-%012d", n);
  return text;
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// kel.conf after `base` (the file namespace creation wrote) with `n` targets appended, each with
// its namespace directory on the datastore and two LUNs.
std::string ConfWithTargets(const std::string& base, const std::string& datastore, int n) {
  std::string s = base;
  for (int t = 0; t < n; ++t) {
    const std::string uuid = Uuid(t);
    mkdir((datastore + "/" + uuid).c_str(), 0700);
    s += "target iqn.2024-01.com.example:t" + std::to_string(t) + " {\n\talias \"t" +
         std::to_string(t) + "\"\n\tportal-group default\n\tauth-group default\n\toption uuid " +
         uuid + "\n\toption owner-id " + uuid + "\n";
    for (int l = 0; l < 2; ++l) {
      s += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + uuid + "/" +
           std::to_string(l) + ".pemo\n\t\tsize 2048\n\t}\n";
    }
    s += "}\n";
  }
  return s;
}

struct Stats {
  double median = 0;
  double p90 = 0;
};

// Times `op` `iterations` times; `reset` runs untimed after each call.
Stats Measure(int iterations, const std::function<void(int)>& op,
              const std::function<void(int)>& reset) {
  std::vector<double> us;
  for (int i = 0; i < iterations; ++i) {
    const auto start = Clock::now();
    op(i);
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (reset) reset(i);
  }
  std::sort(us.begin(), us.end());
  return {us[us.size() / 2], us[std::min(us.size() - 1, us.size() * 9 / 10)]};
}

void Row(const char* op, int targets, const Stats& s, int samples) {
  printf("%-24s %8d %12.0f %12.0f %8d\n", op, targets, s.median, s.p90, samples);
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int iterations = argc > 1 ? std::max(1, atoi(argv[1])) : 25;
  char tmpl[] = "/tmp/kel-service-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  const std::string root = tmpl;

  kel::platform::HostConfig c = kel::platform::EmbeddedHostConfig();
  c.stateDir = root + "/state";
  c.datastorePath = root + "/datastore";
  c.hostUuid = "5e1f0c2a-9b7d-4e3f-8a6b-1c2d3e4f5a6b";
  c.hostName = "bench";
  c.networkOverride = true;
  c.interfaces["nuk0"] = {"127.0.0.41", ""};
  c.daemonControl = "/bin/true";
  mkdir(c.stateDir.c_str(), 0700);
  mkdir(c.datastorePath.c_str(), 0700);
  kel::platform::SetCurrentHostConfig(c);

  try {
    std::shared_ptr<OrsaIscsiTarget> svc =
        HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin()->GetOrsaIscsiTarget();
    DefaultInfo defaults;
    defaults.networkInterface = "nuk0";
    svc->CreateNamespace(NamespaceCreateParam(), defaults);
    svc->SetIscsiTargetStatus(true, false);
    const std::string confPath = Kel::Util::GetConfFilePath();
    const std::string base = ReadText(confPath);

    printf("%-24s %8s %12s %12s %8s\n", "operation", "targets", "median_us", "p90_us", "samples");
    for (const int n : {0, 64, 128}) {
      const std::string prepared = ConfWithTargets(base, c.datastorePath, n);
      auto install = [&] {
        WriteText(confPath, prepared);
        Kel::ConfigCache::CleanupCachedConfig();
      };

      // AddTarget: the new target and its namespace are taken away again after each call.
      const int before = n == 128 ? 127 : n;
      const std::string addBase = ConfWithTargets(base, c.datastorePath, before);
      WriteText(confPath, addBase);
      Kel::ConfigCache::CleanupCachedConfig();
      std::string madeUuid;
      Row("AddTarget", before,
          Measure(
              iterations,
              [&](int i) {
                TargetCreateParam p;
                p.alias = "bench-" + std::to_string(i);
                svc->AddTarget(p);
                madeUuid = p.uuid;
              },
              [&](int) {
                WriteText(confPath, addBase);
                Kel::ConfigCache::CleanupCachedConfig();
                Kel::Util::DeleteTargetNamespace(madeUuid);
              }),
          iterations);

      if (n == 0) {
        // Nothing to add a LUN to or to update: one target is the smallest configuration.
        install();
        continue;
      }
      install();
      std::string lunPath;
      Row("AddLun", n,
          Measure(
              iterations,
              [&](int) {
                LunInfo lun;
                lun.targetAlias = "t0";
                lun.sizeText = "1MiB";
                svc->AddLun(lun);
                lunPath = lun.path;
              },
              [&](int) {
                install();
                NukCtl::Storage::DiskLunApi::RemoveVirtualDisk(c.datastorePath + "/" + lunPath,
                                                               "bench");
              }),
          iterations);

      Row("UpdateTargetConfig", n,
          Measure(
              iterations,
              [&](int i) {
                TargetCreateParam p;
                p.alias = "t0";
                p.networkInterface = "nuk0";
                p.port = 3261 + i % 2;
                svc->UpdateTargetConfig(p);
              },
              nullptr),
          iterations);

      install();
      svc->GetTargets(true, false);  // fills the cache
      Row("GetTargets (cache)", n,
          Measure(
              iterations * 8, [&](int) { svc->GetTargets(true, false); }, nullptr),
          iterations * 8);
      Kel::ConfigCache::CleanupCachedConfig();
      Row("GetTargets (file)", n,
          Measure(
              iterations * 8, [&](int) { svc->GetTargets(true, false); },
              [&](int) { Kel::ConfigCache::CleanupCachedConfig(); }),
          iterations * 8);
    }
    svc.reset();
    Kel::ConfigCache::UnsubscribeLodex();
    kel::platform::CloseDirectory();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    fprintf(stderr, "service_bench: %s\n", e.GetMessage().c_str());
    return 1;
  }
  const std::string cleanup = "rm -rf '" + root + "'";
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
