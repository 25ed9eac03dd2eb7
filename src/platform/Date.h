#pragma once

#include <chrono>

namespace vt {

// A moment in time as seconds since 2001-01-01 00:00:00 UTC. Every stored
// file of the application writes dates in this form.
using Date = double;

// Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
inline constexpr double kUnixTo2001 = 978307200.0;

inline constexpr Date dateFromUnixSeconds(double unixSeconds) { return unixSeconds - kUnixTo2001; }
inline constexpr double unixSecondsFromDate(Date d) { return d + kUnixTo2001; }

// The wall clock as a Date; prefer Clock::now() in anything that tests drive.
inline Date wallClockNow() {
  using namespace std::chrono;
  const auto us = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  return dateFromUnixSeconds(static_cast<double>(us) / 1e6);
}

// A date far in the past, for comparisons where an absent date must lose.
inline constexpr Date kDistantPast = -63114076800.0;

}  // namespace vt
