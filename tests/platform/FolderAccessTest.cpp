#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QDir>
#include <array>

#include <algorithm>
#include <filesystem>

#include "platform/FolderAccess.h"
#include "platform/Log.h"
#include "platform/Mounts.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

const Account kPlex{"plex", 12345, 12345, {12345}};

// A POSIX access ACL as the kernel stores it: version 2, then tag, perm, id (two halves).
bool setAcl(const std::string& path, const std::vector<std::array<uint16_t, 4>>& entries) {
  std::string blob("\x02\0\0\0", 4);
  blob.append(reinterpret_cast<const char*>(entries.data()), entries.size() * 8);
  return ::setxattr(path.c_str(), "system.posix_acl_access", blob.data(), blob.size(), 0) == 0;
}

}  // namespace

TEST(FolderAccess, AClosedParentOrAPrivateFuseMountIsFoundWithItsFix) {
  test::TestHome home;
  const std::string closed = home.file("home-0700");
  const std::string library = closed + "/share/Vantory/Library";
  ASSERT_TRUE(QDir().mkpath(QString::fromStdString(library)));
  ::chmod(home.path().c_str(), 0755);
  ::chmod(closed.c_str(), 0700);
  ::chmod((closed + "/share").c_str(), 0755);
  auto problem = readProblem(library, kPlex, "\n");
  if (::geteuid() != 0 && !problem) GTEST_SKIP() << "the folders above the test home are closed to others";
  ASSERT_TRUE(problem);
  EXPECT_EQ(problem->kind, AccessProblem::Kind::cannotEnter);
  EXPECT_EQ(problem->describe(kPlex), "the account \"plex\" may not enter " + closed +
                                          ". One-time fix: sudo setfacl -m u:plex:x \"" + closed + "\"");

  // The fix it names works: a named-user ACL entry with search rights.
  if (setAcl(closed, {{0x01, 7, 0, 0}, {0x02, 1, 12345, 0}, {0x04, 0, 0, 0}, {0x10, 1, 0, 0}, {0x20, 0, 0, 0}})) {
    EXPECT_FALSE(readProblem(library, kPlex, "\n"));
  }
  ::chmod(closed.c_str(), 0711);

  // A FUSE mount of another user without allow_other, its blank escaped.
  const std::string tv = closed + "/share/Vantory/Library TV";
  const std::string privateMount =
      "36 25 0:44 / " + closed + "/share/Vantory/Library\\040TV rw - fuse.vtnfs vtnfs rw,user_id=1000,group_id=1000\n";
  problem = readProblem(tv, kPlex, privateMount);
  ASSERT_TRUE(problem);
  EXPECT_EQ(problem->kind, AccessProblem::Kind::fuseWithoutAllowOther);
  EXPECT_NE(problem->describe(kPlex).find("user_allow_other to /etc/fuse.conf"), std::string::npos);
  EXPECT_FALSE(readProblem(tv, Account{"me", 1000, 1000, {1000}}, privateMount)) << "the mounting user reads it";
}

TEST(FolderAccess, TheServerAccountIsTheOwnerOfTheRunningServer) {
  if (::geteuid() != 0) GTEST_SKIP() << "making a process entry of another owner needs root";
  test::TestHome home;
  const std::string proc = home.file("proc");
  QDir().mkpath(QString::fromStdString(proc + "/4242"));
  QDir().mkpath(QString::fromStdString(proc + "/self"));
  ASSERT_TRUE(
      writeFileAtomically(proc + "/4242/cmdline", std::string("/usr/lib/plexmediaserver/Plex Media Server\0", 43)));
  ASSERT_EQ(::chown((proc + "/4242").c_str(), 65534, 65534), 0);
  EXPECT_EQ(mediaServerAccount(proc).value_or(Account{}).uid, 65534u);
}

TEST(LinuxLibraryMounter, WhatTheHelperSaysOnASuccessfulMountReachesTheLog) {
  if (::geteuid() == 0 &&
      (std::filesystem::exists("/sbin/mount.nfs") || std::filesystem::exists("/usr/sbin/mount.nfs")))
    GTEST_SKIP() << "as root the kernel's NFS client is tried first";
  test::TestHome home;
  const std::string helper = home.file("vtnfs-mount");
  ASSERT_TRUE(writeFileAtomically(
      helper,
      "#!/bin/sh\necho 'vtnfs-mount: mounted for this user only (allow_other is not permitted)' >&2\nexit 0\n"));
  ::chmod(helper.c_str(), 0755);
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view l) { lines.emplace_back(l); });
  LinuxLibraryMounter mounter(helper, home.file("no-fstab"));
  const std::string folder = home.file("Library");
  std::filesystem::create_directories(folder);
  EXPECT_TRUE(test::runTask(mounter.mount(1, folder)));
  EXPECT_NE(
      std::find(lines.begin(), lines.end(), "vtnfs-mount: mounted for this user only (allow_other is not permitted)"),
      lines.end());
}
