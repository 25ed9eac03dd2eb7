#include "NfsTree.h"

#include <xxhash.h>

#include <algorithm>
#include <map>

namespace vtnfs {

namespace {

// Splits a relative path; false when any component is empty, "." or "..".
bool splitPath(const std::string& path, std::vector<std::string_view>& parts) {
  parts.clear();
  if (path.empty() || path.front() == '/') return false;
  size_t start = 0;
  while (start <= path.size()) {
    const size_t slash = std::min(path.find('/', start), path.size());
    std::string_view part(path.data() + start, slash - start);
    if (part.empty() || part == "." || part == ".." || part.size() > 255) return false;
    parts.push_back(part);
    start = slash + 1;
  }
  return true;
}

}  // namespace

NfsTree::NfsTree() {
  std::vector<File> none;
  rebuild(none, 0, 0);
}

uint64_t NfsTree::idFor(const std::string& key) {
  auto it = ids_.find(key);
  if (it != ids_.end()) return it->second;
  uint64_t id = XXH3_64bits(key.data(), key.size()) & 0x7fffffffffffffffULL;
  while (id <= kRootId || usedIds_.count(id)) ++id;
  usedIds_.insert(id);
  ids_.emplace(key, id);
  return id;
}

std::vector<std::string> NfsTree::rebuild(const std::vector<File>& files, int64_t nowSeconds, uint32_t nowNanos) {
  std::vector<std::string> skipped;
  std::unordered_map<uint64_t, NfsNode> next;
  std::unordered_map<std::string, uint64_t> byEntry;
  NfsNode& root = next[kRootId];
  root.id = kRootId;
  root.parent = kRootId;
  root.dir = true;
  // Children by name while building, turned into sorted id lists at the end.
  std::unordered_map<uint64_t, std::map<std::string, uint64_t, std::less<>>> listing;
  listing[kRootId];
  int64_t total = 0;

  std::vector<std::string_view> parts;
  for (const auto& f : files) {
    if (!splitPath(f.name, parts)) {
      skipped.push_back(f.name);
      continue;
    }
    // Check the whole path first so that a clash leaves nothing behind: an
    // existing leaf, or a file where a folder would have to be.
    bool clash = false;
    for (size_t i = 0, d = kRootId; i < parts.size(); ++i) {
      auto& kids = listing[d];
      auto it = kids.find(parts[i]);
      if (it == kids.end()) break;
      if (i + 1 == parts.size() || !next[it->second].dir) {
        clash = true;
        break;
      }
      d = it->second;
    }
    if (clash) {
      skipped.push_back(f.name);
      continue;
    }

    uint64_t parent = kRootId;
    std::string path;
    for (size_t i = 0; i < parts.size(); ++i) {
      if (!path.empty()) path.push_back('/');
      path.append(parts[i]);
      const bool leaf = i + 1 == parts.size();
      auto& kids = listing[parent];
      auto it = kids.find(parts[i]);
      if (it != kids.end()) {
        parent = it->second;
        continue;
      }
      const uint64_t id = idFor((leaf ? "f:" : "d:") + path);
      NfsNode& node = next[id];
      node.id = id;
      node.parent = parent;
      node.name = std::string(parts[i]);
      node.dir = !leaf;
      if (!leaf) {
        ++next[parent].subdirs;
        listing[id];
      } else {
        node.entry = f.name;
        node.size = f.size;
        node.mtimeSeconds = f.mtime;
        total += f.size;
        byEntry[f.name] = id;
      }
      kids.emplace(node.name, id);
      parent = id;
    }
  }

  for (auto& [id, kids] : listing) {
    NfsNode& dir = next[id];
    dir.children.reserve(kids.size());
    for (const auto& [name, child] : kids) dir.children.push_back(child);
    // A folder whose listing changed gets a new time, so that clients that
    // cache listings (the kernel's NFS client) see the change.
    auto old = nodes_.find(id);
    if (old != nodes_.end() && old->second.dir && old->second.children == dir.children) {
      dir.mtimeSeconds = old->second.mtimeSeconds;
      dir.mtimeNanos = old->second.mtimeNanos;
    } else {
      dir.mtimeSeconds = nowSeconds;
      dir.mtimeNanos = nowNanos;
    }
  }
  nodes_ = std::move(next);
  byEntry_ = std::move(byEntry);
  totalBytes_ = total;
  return skipped;
}

const NfsNode* NfsTree::find(uint64_t id) const {
  auto it = nodes_.find(id);
  return it == nodes_.end() ? nullptr : &it->second;
}

const NfsNode* NfsTree::child(const NfsNode& dir, std::string_view name) const {
  if (!dir.dir) return nullptr;
  if (name == ".") return &dir;
  if (name == "..") return find(dir.parent);
  auto it = std::lower_bound(dir.children.begin(), dir.children.end(), name,
                             [this](uint64_t id, std::string_view n) { return nodes_.at(id).name < n; });
  if (it == dir.children.end() || nodes_.at(*it).name != name) return nullptr;
  return &nodes_.at(*it);
}

const NfsNode* NfsTree::fileForEntry(const std::string& entry) const {
  auto it = byEntry_.find(entry);
  return it == byEntry_.end() ? nullptr : find(it->second);
}

void NfsTree::setSize(const std::string& entry, int64_t size) {
  auto it = byEntry_.find(entry);
  if (it == byEntry_.end()) return;
  NfsNode& node = nodes_.at(it->second);
  totalBytes_ += size - node.size;
  node.size = size;
}

}  // namespace vtnfs
