#include "core/Display.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "platform/Endpoints.h"

namespace vt {

std::optional<QUrl> posterURL(std::string_view imdb) {
  if (imdb.empty()) return std::nullopt;
  QUrl url(QString::fromStdString(endpoints().posterImages + "/poster/small/" + std::string(imdb) + "/img"));
  if (!url.isValid()) return std::nullopt;
  return url;
}

std::string clockText(int64_t milliseconds) {
  const int64_t total = std::max<int64_t>(0, milliseconds) / 1000;
  char buf[48];
  if (milliseconds < 3'600'000)
    std::snprintf(buf, sizeof buf, "%" PRId64 ":%02" PRId64, total / 60, total % 60);
  else
    std::snprintf(buf, sizeof buf, "%" PRId64 ":%02" PRId64 ":%02" PRId64, total / 3600, (total / 60) % 60, total % 60);
  return buf;
}

}  // namespace vt
