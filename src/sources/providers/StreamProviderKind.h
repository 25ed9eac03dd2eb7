#pragma once

#include <string_view>

namespace vt {

// The add-on families the resolver knows. The raw text is what the resolve
// cache stores for a row.
enum class StreamProviderKind { torrentio, comet, mediafusion };

inline constexpr StreamProviderKind kAllStreamProviderKinds[] = {
    StreamProviderKind::torrentio, StreamProviderKind::comet, StreamProviderKind::mediafusion};

// "torrentio", "comet", "mediafusion".
std::string_view rawValue(StreamProviderKind kind);
// An unknown or empty text reads as torrentio.
StreamProviderKind streamProviderKindFromRaw(std::string_view raw);
// "Torrentio", "Comet", "MediaFusion": the name in log lines.
std::string_view displayName(StreamProviderKind kind);
// How long one stream request to an add-on of this kind may take, in seconds.
double streamRequestTimeLimit(StreamProviderKind kind);

}  // namespace vt
