#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vt {

// A film's key on the wall: 64-bit FNV-1a over the UTF-8 bytes of its id.
// An empty id has the offset basis as key.
uint64_t mosaicKey(std::string_view id);

// The name of the list on show: "<search>|<filter>", with "-" for no search.
// `filter` is one of "all", "watchlist", "onPlex".
std::string mosaicScope(std::string_view searchQuery, std::string_view filter);

}  // namespace vt
