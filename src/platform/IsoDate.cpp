#include "platform/IsoDate.h"

#include <ctime>
#include <string>

#include "platform/Text.h"

namespace vt {

std::optional<Date> parseIsoDate(std::string_view text) {
  const std::string_view t = trimmedView(text);
  if (t.empty()) return std::nullopt;
  // yyyy-MM-ddTHH:mm:ss[.fff](Z|±hhmm)
  auto digits = [&](size_t at, size_t n, int& out) {
    if (at + n > t.size()) return false;
    out = 0;
    for (size_t i = at; i < at + n; ++i) {
      if (t[i] < '0' || t[i] > '9') return false;
      out = out * 10 + (t[i] - '0');
    }
    return true;
  };
  int y, mo, d, h, mi, s;
  if (!digits(0, 4, y) || t.size() < 19 || t[4] != '-' || !digits(5, 2, mo) || t[7] != '-' || !digits(8, 2, d) ||
      t[10] != 'T' || !digits(11, 2, h) || t[13] != ':' || !digits(14, 2, mi) || t[16] != ':' || !digits(17, 2, s))
    return std::nullopt;
  size_t i = 19;
  double fraction = 0;
  if (i < t.size() && t[i] == '.') {
    size_t j = i + 1;
    double scale = 0.1;
    while (j < t.size() && t[j] >= '0' && t[j] <= '9') {
      fraction += (t[j] - '0') * scale;
      scale /= 10;
      ++j;
    }
    if (j == i + 1) return std::nullopt;
    i = j;
  }
  int offsetSeconds = 0;
  if (i < t.size() && t[i] == 'Z') {
    ++i;
  } else if (i < t.size() && (t[i] == '+' || t[i] == '-')) {
    int oh, om;
    if (!digits(i + 1, 2, oh) || !digits(i + 3, 2, om)) return std::nullopt;
    offsetSeconds = (t[i] == '+' ? 1 : -1) * (oh * 3600 + om * 60);
    i += 5;
  } else {
    return std::nullopt;
  }
  if (i != t.size() || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60) return std::nullopt;
  std::tm tm{};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  const time_t unix = timegm(&tm);
  return dateFromUnixSeconds(static_cast<double>(unix) - offsetSeconds + fraction);
}

}  // namespace vt
