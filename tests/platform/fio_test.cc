#include "platform/fio.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "platform/fs.h"
#include "tests/support/test_support.h"

namespace {

using kel::testing::ReadFile;
using kel::testing::TempDir;
using kel::testing::WriteFile;

std::string ReadFd(int fd) {
  std::string text;
  char buf[256];
  off_t off = 0;
  for (;;) {
    ssize_t n = pread(fd, buf, sizeof(buf), off);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
    off += n;
  }
  return text;
}

void WriteFd(int fd, const std::string& text) {
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

TEST(Fio, SharedLocksCoexistAndExcludeWritersAndBadArgumentsAreRefused) {
  TempDir dir;
  std::string path = dir.Join("kel.conf");
  WriteFile(path, "generation 1\n");

  FioHandle a, b, w;
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &a), NUK_OK);
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &b), NUK_OK);
  EXPECT_EQ(fcntl(a.fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &w), NUK_BUSY);
  EXPECT_FALSE(w.Valid());
  EXPECT_EQ(Fio_LastErrno(), EAGAIN);

  // A dup shares the open file description, so closing it keeps the lock.
  int dup_fd = dup(a.fd);
  close(dup_fd);
  EXPECT_EQ(Fio_Close(&b), NUK_OK);
  EXPECT_FALSE(b.Valid());
  EXPECT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &w), NUK_BUSY);

  EXPECT_EQ(Fio_Close(&a), NUK_OK);
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &w), NUK_OK);
  EXPECT_EQ(fcntl(w.fd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(w.lock, FIO_LOCK_EXCLUSIVE);
  EXPECT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &a), NUK_BUSY);
  EXPECT_EQ(Fio_Close(&w), NUK_OK);
  EXPECT_EQ(Fio_Close(&w), NUK_OK);  // closing an invalid handle is harmless

  EXPECT_EQ(Fio_Open(dir.Join("missing").c_str(), FIO_OPEN_READ_SHARED, &a), NUK_NOT_FOUND);
  EXPECT_EQ(Fio_LastErrno(), ENOENT);
  EXPECT_STREQ(Fio_LastErrorText(), "No such file or directory");

  FioHandle t;
  EXPECT_EQ(Fio_Open(nullptr, FIO_OPEN_READ_SHARED, &a), NUK_BAD_PARAM);
  EXPECT_EQ(Fio_Open("", FIO_OPEN_READ_SHARED, &a), NUK_BAD_PARAM);
  EXPECT_EQ(Fio_AtomicTempFile(&a, &t), NUK_BAD_PARAM);
  EXPECT_EQ(Fio_AtomicUpdate(&a, &t), NUK_BAD_PARAM);
  EXPECT_EQ(Fio_Sync(&a), NUK_BAD_PARAM);
}

TEST(Fio, AtomicUpdateKeepsTheLockAndMakesTheFilePrivate) {
  TempDir dir;
  std::string path = dir.Join("kel.conf");
  WriteFile(path, "old\n", 0644);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  ino_t old_inode = st.st_ino;

  FioHandle file;
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &file), NUK_OK);
  for (int round = 1; round <= 2; ++round) {
    FioHandle temp;
    ASSERT_EQ(Fio_AtomicTempFile(&file, &temp), NUK_OK);
    EXPECT_EQ(temp.path.rfind(dir.Join(".kel.conf.tmp."), 0), 0u) << temp.path;
    ASSERT_EQ(fstat(temp.fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    std::string text = "new " + std::to_string(round) + "\n";
    WriteFd(temp.fd, text);
    ASSERT_EQ(Fio_Sync(&temp), NUK_OK);
    ASSERT_EQ(Fio_AtomicUpdate(&file, &temp), NUK_OK);
    EXPECT_FALSE(temp.Valid());
    EXPECT_TRUE(temp.path.empty());
    EXPECT_EQ(Fio_RemoveTemp(&temp), NUK_OK);  // nothing left to remove after a good swap

    EXPECT_EQ(ReadFile(path), text);
    EXPECT_EQ(ReadFd(file.fd), text);  // the handle follows the new contents
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_NE(st.st_ino, old_inode);
    old_inode = st.st_ino;
    // Nobody can lock the new contents while this handle is open.
    FioHandle other;
    EXPECT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &other), NUK_BUSY);
    EXPECT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &other), NUK_BUSY);
  }
  std::vector<std::string> names;
  ASSERT_EQ(kel::platform::LinuxFs().ListDir(dir.path(), &names), 0);
  EXPECT_EQ(names, std::vector<std::string>{"kel.conf"});
  ASSERT_EQ(Fio_Close(&file), NUK_OK);
  FioHandle reader;
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &reader), NUK_OK);
  EXPECT_EQ(ReadFd(reader.fd), "new 2\n");
  Fio_Close(&reader);
}

TEST(Fio, TemporaryFilesOfDeadWritersAreSweptOnlyUnderTheExclusiveLock) {
  TempDir dir;
  std::string path = dir.Join("kel.conf");
  WriteFile(path, "x\n");
  WriteFile(dir.Join(".kel.conf.tmp.dead01"), "partial");
  WriteFile(dir.Join(".kel.conf.tmp.live01"), "in progress");
  WriteFile(dir.Join(".other.tmp.keep01"), "not ours");
  // A temporary file that someone still holds locked is not stale.
  FioHandle live;
  ASSERT_EQ(Fio_Open(dir.Join(".kel.conf.tmp.live01").c_str(), FIO_OPEN_READ_SHARED, &live),
            NUK_OK);

  FioHandle reader, temp;
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &reader), NUK_OK);
  ASSERT_EQ(Fio_AtomicTempFile(&reader, &temp), NUK_OK);
  EXPECT_TRUE(kel::testing::PathExists(dir.Join(".kel.conf.tmp.dead01")));
  EXPECT_EQ(Fio_RemoveTemp(&temp), NUK_OK);
  EXPECT_FALSE(temp.Valid());
  Fio_Close(&reader);

  FioHandle writer;
  ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &writer), NUK_OK);
  ASSERT_EQ(Fio_AtomicTempFile(&writer, &temp), NUK_OK);
  std::string temp_name = temp.path.substr(temp.path.find_last_of('/') + 1);
  EXPECT_FALSE(kel::testing::PathExists(dir.Join(".kel.conf.tmp.dead01")));
  EXPECT_TRUE(kel::testing::PathExists(dir.Join(".kel.conf.tmp.live01")));
  EXPECT_TRUE(kel::testing::PathExists(dir.Join(".other.tmp.keep01")));
  // A failed write removes what it left at the temporary name.
  EXPECT_EQ(Fio_RemoveTemp(&temp), NUK_OK);
  EXPECT_FALSE(kel::testing::PathExists(dir.Join(temp_name)));
  EXPECT_EQ(ReadFile(path), "x\n");
  Fio_Close(&writer);
  Fio_Close(&live);
}

TEST(Fio, ReaderRacingASwapEndsUpWithTheNewContents) {
  // A reader that opened the old inode just before a writer's swap gets that inode's lock as soon
  // as the writer drops it; only the inode re-check keeps it from reading stale contents.
  TempDir dir;
  std::string path = dir.Join("kel.conf");
  WriteFile(path, "0\n");
  for (int i = 1; i <= 300; ++i) {
    FioHandle writer, temp;
    ASSERT_EQ(Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &writer), NUK_OK);
    std::atomic<bool> trying{false};
    std::string seen;
    std::thread reader([&] {
      FioHandle r;
      trying = true;
      while (Fio_Open(path.c_str(), FIO_OPEN_READ_SHARED, &r) == NUK_BUSY) {
      }
      seen = ReadFd(r.fd);
      Fio_Close(&r);
    });
    while (!trying) std::this_thread::yield();
    ASSERT_EQ(Fio_AtomicTempFile(&writer, &temp), NUK_OK);
    WriteFd(temp.fd, std::to_string(i) + "\n");
    ASSERT_EQ(Fio_AtomicUpdate(&writer, &temp), NUK_OK);
    Fio_Close(&writer);
    reader.join();
    ASSERT_EQ(seen, std::to_string(i) + "\n") << "round " << i;
  }
}

}  // namespace
