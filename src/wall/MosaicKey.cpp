#include "wall/MosaicKey.h"

namespace vt {

uint64_t mosaicKey(std::string_view id) {
  uint64_t h = 0xcbf29ce484222325ULL;
  for (unsigned char c : id) {
    h ^= c;
    h *= 0x100000001b3ULL;
  }
  return h;
}

std::string mosaicScope(std::string_view searchQuery, std::string_view filter) {
  std::string scope(searchQuery.empty() ? std::string_view("-") : searchQuery);
  scope += '|';
  scope += filter;
  return scope;
}

}  // namespace vt
