#pragma once

#include <optional>
#include <string>

#include "core/LibraryTitle.h"

namespace vt::test {

// A resolved title as the resolvers store it, for tests of the library and
// of what is built from it.
inline LibraryTitle sampleTitle(const std::string& name, const std::string& url = "http://cdn/x",
                                std::optional<Date> resolvedAt = 100.0) {
  LibraryTitle t;
  t.name = name;
  t.url = url;
  t.size = 1000;
  t.sizeVerified = true;
  t.source = "stremio";
  t.resolvedAt = resolvedAt;
  return t;
}

}  // namespace vt::test
