#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sources/providers/StreamProviderKind.h"

namespace vt {

// One row an add-on offered for a title, as the resolver hands it to the
// ranker and the pickers.
struct StreamCandidate {
  std::string id;                   // a fresh UUID per candidate
  std::string filename;             // the release name used for parsing and display
  std::string url;                  // the add-on's link
  std::optional<std::string> size;  // the add-on's own text, e.g. "1.4 GB"
  bool isCached = false;            // Real-Debrid already holds the file
  std::optional<std::string> infoHash;
  StreamProviderKind provider = StreamProviderKind::torrentio;
  std::optional<int64_t> seeders;

  bool operator==(const StreamCandidate&) const = default;
};

}  // namespace vt
