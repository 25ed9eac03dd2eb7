#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vtnfs {

// One file or folder of the served tree.
struct NfsNode {
  uint64_t id = 0;
  uint64_t parent = 0;
  std::string name;   // the last path component; "" for the root
  std::string entry;  // the manifest entry's name, for files
  bool dir = false;
  int64_t size = 0;
  int64_t mtimeSeconds = 0;
  uint32_t mtimeNanos = 0;
  uint32_t subdirs = 0;
  std::vector<uint64_t> children;  // sorted by name
};

// The folder as NFS clients see it: the visible manifest entries, with the
// folders their paths imply. File ids (and so file handles) are derived
// from the path and kept across rebuilds, so a handle stays good for as long
// as its path is served; a path that disappears answers stale.
class NfsTree {
 public:
  static constexpr uint64_t kRootId = 1;

  struct File {
    std::string name;  // relative path, "/" separated
    int64_t size = 0;
    int64_t mtime = 0;  // seconds since 1970
  };

  NfsTree();

  // Replaces the tree. Names that are not a clean relative path ("", "/x",
  // "a//b", "..") or that clash with a folder or another file are skipped
  // and returned. `nowSeconds`/`nowNanos` stamp folders whose listing changed.
  std::vector<std::string> rebuild(const std::vector<File>& files, int64_t nowSeconds, uint32_t nowNanos);

  const NfsNode* find(uint64_t id) const;
  const NfsNode* child(const NfsNode& dir, std::string_view name) const;
  const NfsNode* fileForEntry(const std::string& entry) const;
  const NfsNode& root() const { return *find(kRootId); }
  size_t size() const { return nodes_.size(); }
  int64_t totalBytes() const { return totalBytes_; }

  // A source confirmed another size for this entry.
  void setSize(const std::string& entry, int64_t size);

 private:
  uint64_t idFor(const std::string& key);

  std::unordered_map<uint64_t, NfsNode> nodes_;
  std::unordered_map<std::string, uint64_t> byEntry_;
  // Ids ever handed out, by "d:" or "f:" plus the path; never forgotten, so
  // a path that comes back gets its old handle.
  std::unordered_map<std::string, uint64_t> ids_;
  std::unordered_set<uint64_t> usedIds_;
  int64_t totalBytes_ = 0;
};

}  // namespace vtnfs
