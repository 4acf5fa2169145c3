// A datastore that fills up while a LUN is created or grown, or while kel.conf is written: the
// operation fails and leaves no disk, namespace, link or configuration entry behind. The datastore
// is a small tmpfs where the test may mount one; elsewhere the fault layer reports the full disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "platform/fio.h"
#include "platform/testing/fault_fs.h"
#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

using platform::testing::FaultFs;

TEST(DatastoreFull, CreationGrowthAndWritesRollBackFully) {
  TestHost host;
  const std::string small = host.Join("small");
  ASSERT_EQ(mkdir(small.c_str(), 0700), 0);
  const bool mounted = mount("tmpfs", small.c_str(), "tmpfs", 0, "size=8m,mode=0700") == 0;
  struct Unmount {
    std::string dir;
    bool mounted;
    ~Unmount() {
      if (mounted) umount2(dir.c_str(), MNT_DETACH);
    }
  } unmount{small, mounted};
  std::unique_ptr<platform::testing::ScopedFaultFs> faults;
  if (mounted) {
    host.config().datastorePath = small;
    host.Apply();
  } else {
    faults = std::make_unique<platform::testing::ScopedFaultFs>();
  }
  auto full = [&](FaultFs::Op op) {
    if (faults) faults->fs().FailNext(op, ENOSPC);
  };
  auto service = NewService();
  Ready(*service);
  AddTarget(*service, "t1");
  const std::string reserveAll = "((\"proportionalCapacity\" i100))";

  std::string before = host.Snapshot();
  LunInfo big = NewLun("t1", "64MiB");
  big.storagePolicy = reserveAll;
  full(FaultFs::Op::kFallocate);
  EXPECT_NE(ErrorOf([&] { service->AddLun(big); }).find("No space left on device"),
            std::string::npos);
  EXPECT_EQ(host.Snapshot(), before);

  LunInfo lun = NewLun("t1", "1MiB", 0);
  lun.storagePolicy = reserveAll;
  service->AddLun(lun);
  before = host.Snapshot();
  LunInfo grow = NewLun("t1", "64MiB", lun.id);
  full(FaultFs::Op::kFallocate);
  std::string error = ErrorOf([&] { service->UpdateLun(grow, -1, "", true); });
  EXPECT_NE(error.find("No space left"), std::string::npos) << error;
  EXPECT_EQ(host.Snapshot(), before);

  // kel.conf itself cannot be written: the new target's namespace goes again.
  const std::string filler = small + "/filler";
  if (mounted) {
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    for (off_t at = 0; posix_fallocate(fd, at, 4096) == 0; at += 4096) {
    }
    close(fd);
  } else {
    Fio_SetFaultHookForTest(
        [](FioStep s, const std::string&) { return s == FioStep::kWrite ? ENOSPC : 0; });
  }
  before = host.Snapshot();
  EXPECT_NE(ErrorOf([&] { AddTarget(*service, "t2"); }).find("No space left on device"),
            std::string::npos);
  EXPECT_EQ(host.Snapshot(), before);
  Fio_SetFaultHookForTest(nullptr);
  if (mounted) unlink(filler.c_str());
  AddTarget(*service, "t2");
  EXPECT_EQ(service->GetTargets(true, false).size(), 2u);
}

}  // namespace
}  // namespace testing
}  // namespace kel
