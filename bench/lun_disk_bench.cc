// LUN disks on a datastore at the cluster limits (128 target namespaces, 8 LUNs of 16 MiB each =
// 1024 sparse disks, every one with a 5 % reservation, about 840 MiB in all): the time to create
// and remove one LUN disk (temporary name, object UUID, rename; exclusive probe, unlink,
// reservation file), and the cost of a compliance query for one LUN by its path (what GetLuns does)
// and by its object UUID (which has to look through every namespace).
//
//   lun_disk_bench [--benchmark_* flags]     (datastore under $TMPDIR, removed at exit)
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "conf/paths.h"
#include "platform/fs.h"
#include "platform/host_config.h"
#include "platform/policy.h"
#include "records/records.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"
#include "storage/policy_ops.h"

namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;

const int kTargets = 128;
const int kLunsPerTarget = 8;
const uint64_t kLunSectors = (uint64_t{16} << 20) / 512;
const char* const kPolicy = "((\"proportionalCapacity\" i5))";

struct Datastore {
  std::string root;
  std::vector<std::string> targets;
  std::vector<std::string> lunPaths;  // absolute
  std::vector<std::string> lunUuids;
  OrsaComplianceHandle* handle = nullptr;

  Datastore() {
    const char* tmp = getenv("TMPDIR");
    std::string base =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kel-lun-bench-XXXXXX";
    root = mkdtemp(&base[0]);
    kel::platform::HostConfig config;
    config.hostName = "bench";
    config.stateDir = root;
    config.datastorePath = root + "/datastore";
    kel::platform::LinuxFs().MakeDir(config.datastorePath, 0700);
    kel::platform::SetCurrentHostConfig(config);
    Util::CreateNamespaceDir("");
    Util::CreateConfigDirs();
    for (int t = 0; t < kTargets; ++t) {
      std::string uuid;
      Util::CreateTargetNamespace("", uuid);
      targets.push_back(uuid);
      for (int l = 0; l < kLunsPerTarget; ++l) {
        std::string path, objectUuid;
        Util::CreateLun(std::to_string(l), "t", uuid, kLunSectors, kPolicy, path, objectUuid);
        lunPaths.push_back(config.datastorePath + "/" + path);
        lunUuids.push_back(objectUuid);
      }
    }
    OrsaCompliance_Init(&handle);
  }
  ~Datastore() {
    OrsaCompliance_Deinit(handle);
    kel::platform::LinuxFs().RemoveTree(root);
  }
};

Datastore* gDatastore = nullptr;  // made by the first benchmark that runs, removed at exit

Datastore& Shared() {
  if (gDatastore == nullptr) gDatastore = new Datastore();
  return *gDatastore;
}

void BM_CreateAndRemoveLun(benchmark::State& state) {
  Datastore& ds = Shared();
  const std::string& target = ds.targets.front();
  for (auto _ : state) {
    std::string path, uuid;
    Util::CreateLun("9", "t", target, kLunSectors, kPolicy, path, uuid);
    Util::RemoveLun(9, path, "t");
  }
}
BENCHMARK(BM_CreateAndRemoveLun)->Unit(benchmark::kMicrosecond);

void BM_ComplianceByPath(benchmark::State& state) {
  Datastore& ds = Shared();
  size_t i = 0;
  for (auto _ : state) {
    HostCtl::Orsa::IscsiTarget::LunInfo lun;
    lun.path = ds.lunPaths[i++ % ds.lunPaths.size()];
    Util::GetPolicyComplianceStatusForLun(ds.handle, lun);
    benchmark::DoNotOptimize(lun.policyCompliant);
  }
}
BENCHMARK(BM_ComplianceByPath)->Unit(benchmark::kMicrosecond);

void BM_ComplianceByObjectUuid(benchmark::State& state) {
  Datastore& ds = Shared();
  size_t i = 0;
  for (auto _ : state) {
    std::string policy;
    bool compliant = false;
    Util::GetPolicyComplianceStatusForObject(ds.handle, ds.lunUuids[i++ % ds.lunUuids.size()],
                                             policy, compliant, false);
    benchmark::DoNotOptimize(compliant);
  }
}
BENCHMARK(BM_ComplianceByObjectUuid)->Unit(benchmark::kMicrosecond);

void BM_ComplianceOfAllLuns(benchmark::State& state) {
  Datastore& ds = Shared();
  for (auto _ : state) {
    int compliant = 0;
    for (const std::string& path : ds.lunPaths) {
      HostCtl::Orsa::IscsiTarget::LunInfo lun;
      lun.path = path;
      Util::GetPolicyComplianceStatusForLun(ds.handle, lun);
      compliant += lun.policyCompliant ? 1 : 0;
    }
    if (compliant != kTargets * kLunsPerTarget) state.SkipWithError("a LUN is not compliant");
  }
}
BENCHMARK(BM_ComplianceOfAllLuns)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  atexit([] { delete gDatastore; });
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
