#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vt {

// A user account as file permissions see it.
struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // every group, the primary one among them
};

// The account the local Plex Media Server reads files as: the owner of a
// running "Plex Media Server" process, else the "plex" account; none when
// neither exists. `procRoot` is /proc outside tests.
std::optional<Account> mediaServerAccount(const std::string& procRoot = "/proc");
std::optional<Account> accountByUid(uid_t uid);

// What keeps `account` from reading the files under `folder`, none when
// nothing does: a folder on the way it may not enter (mode bits and POSIX
// ACLs), or a FUSE mount at `folder` of another user without allow_other.
// `mountinfo` is the text of /proc/self/mountinfo (read when empty).
struct AccessProblem {
  enum class Kind { cannotEnter, fuseWithoutAllowOther };
  Kind kind;
  std::string folder;  // the folder it can't enter, or the mount point

  // What is wrong, and the one-time fix, for a log line.
  std::string describe(const Account& account) const;
};
std::optional<AccessProblem> readProblem(const std::string& folder, const Account& account,
                                         const std::string& mountinfo = {});

// Whether `account` may enter (search) `folder`; its parent folders are not
// looked at.
bool mayEnter(const std::string& folder, const Account& account);

// Gives `account` search rights on `folder` with a named-user ACL entry, as
// "setfacl -m u:NAME:x" does; false with the system's reason otherwise.
bool grantEnter(const std::string& folder, const Account& account, std::string& error);
// Takes that entry away again; with no named entries left the folder goes
// back to plain mode bits.
bool revokeEnter(const std::string& folder, const Account& account, std::string& error);

}  // namespace vt
