#pragma once

// Small helpers that turn stored values into what the interface shows.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <QUrl>

namespace vt {

// The small poster of a title, for rows of the activity list.
std::optional<QUrl> posterURL(std::string_view imdb);
// A time for display: "m:ss" below an hour, "h:mm:ss" from there on.
std::string clockText(int64_t milliseconds);

}  // namespace vt
