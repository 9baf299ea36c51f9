// SPDX-License-Identifier: MIT
// vorta tool: the one way every command writes scan modes, frame rates and
// times, in tables and in JSON alike.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "output.h"

namespace vorta {
namespace cli {

/// The scan mode as a word: progressive, top-first, bottom-first, or unknown.
inline std::string scanModeWord(int32_t mode) {
  switch (mode) {
    case 0:
      return "progressive";
    case 1:
      return "top-first";
    case 2:
      return "bottom-first";
    default:
      return "unknown";
  }
}

/// format(fps), worked out once for each of the last few rates seen: a
/// catalogue holds a few rates many times over. Rates are told apart by
/// their bits (0.0 and -0.0 are two rates).
template <typename Format>
std::string byRate(double fps, Format format) {
  static thread_local std::vector<std::pair<std::uint64_t, std::string>> known;
  std::uint64_t bits;
  std::memcpy(&bits, &fps, sizeof bits);
  for (const auto& entry : known)
    if (entry.first == bits) return entry.second;
  if (known.size() == 16) known.erase(known.begin());
  known.emplace_back(bits, format(fps));
  return known.back().second;
}

/// The frame rate as a decimal of at most three places: 25, 59.94, 23.976.
inline std::string rateDecimal(double fps) {
  if (!std::isfinite(fps)) return "?";
  return byRate(fps, [](double rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", rate);
    std::string out = text;
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
    return out;
  });
}

/// The frame rate as the rational a movie's time scale gives: "30000/1001",
/// "25/1"; the nearest fraction with a denominator up to 10000 for others.
inline std::string rateRational(double fps) {
  if (!std::isfinite(fps) || fps <= 0 || fps > 1e6) return "0/1";
  return byRate(fps, [](double rate) {
    const double ntsc = rate * 1001.0 / 1000.0;
    if (std::fabs(ntsc - std::round(ntsc)) < 1e-4 && std::fabs(rate - std::round(rate)) > 1e-4)
      return std::to_string(static_cast<long long>(std::round(ntsc)) * 1000) + "/1001";
    // Continued fraction, stopped at the last convergent within the bound.
    long long p0 = 0, q0 = 1, p1 = 1, q1 = 0;
    double x = rate;
    for (int i = 0; i < 20; ++i) {
      const double a = std::floor(x);
      const long long p2 = static_cast<long long>(a) * p1 + p0, q2 = static_cast<long long>(a) * q1 + q0;
      if (q2 > 10000) break;
      p0 = p1;
      q0 = q1;
      p1 = p2;
      q1 = q2;
      if (std::fabs(static_cast<double>(p1) / static_cast<double>(q1) - rate) < 1e-9 || x - a < 1e-9) break;
      x = 1.0 / (x - a);
    }
    return std::to_string(p1) + "/" + std::to_string(q1);
  });
}

/// A time as ISO 8601 in local time with its zone: 2026-01-01T11:00:00+01:00.
inline std::string isoTime(std::time_t when) {
  std::tm local{};
  if (localtime_r(&when, &local) == nullptr) return std::to_string(static_cast<long long>(when));
  const long long year = static_cast<long long>(local.tm_year) + 1900;
  if (year < 1000 || year > 9999 || local.tm_isdst < 0 || local.tm_gmtoff <= -360000 ||
      local.tm_gmtoff >= 360000) {
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
    std::string out = text;
    if (out.size() > 5) out.insert(out.size() - 2, ":");  // +0100 -> +01:00
    return out;
  }
  // What strftime gives for "%Y-%m-%dT%H:%M:%S%z" with the colon put in
  // the zone, written digit by digit: a catalogue has a time on every row.
  // The zone is in whole minutes, as %z writes it.
  long offset = local.tm_gmtoff / 60;
  const char sign = local.tm_gmtoff < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  char text[] = "0000-00-00T00:00:00+00:00";
  const auto put = [&text](std::size_t at, long value, int digits) {
    for (int i = digits - 1; i >= 0; --i, value /= 10)
      text[at + static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
  };
  put(0, static_cast<long>(year), 4);
  put(5, local.tm_mon + 1, 2);
  put(8, local.tm_mday, 2);
  put(11, local.tm_hour, 2);
  put(14, local.tm_min, 2);
  put(17, local.tm_sec, 2);
  text[19] = sign;
  put(20, (offset / 60) % 100, 2);
  put(23, offset % 60, 2);
  return text;
}

/// A clip's picture as clips, scan and probe show it.
struct Picture {
  std::string fourCC;
  int width, height;
  double rate;
  int scanMode;
  long long frames;
  Value audio, startTimecode;  // from the attribute block
};

/// The picture's columns. At 80 columns audio channels, frames and start
/// time codes give way first, then scan modes, codecs, rates and sizes.
inline std::vector<Column> pictureColumns() {
  return {{"fourCC", "CODEC", Column::Left, 4},
          {"", "SIZE", Column::Right, 2},
          {"width"},
          {"height"},
          {"frameRate", "RATE", Column::Right, 3},
          {"frameRateRational"},
          {"scanMode", "SCAN", Column::Left, 5},
          {"videoLength", "FRAMES", Column::Right, 8},
          {"", "AUDIO", Column::Right, 9},
          {"", "START TC", Column::Left, 7}};
}

/// Appends the picture's values to row, each passed through as (for "-" in
/// a clip taken by name only, or nothing for a file not read).
template <typename As>
void appendPictureValues(std::vector<Value>& row, const Picture& p, As as) {
  row.push_back(as(text(p.fourCC)));
  row.push_back(as(text(std::to_string(p.width) + "x" + std::to_string(p.height))));
  row.push_back(as(integer(p.width)));
  row.push_back(as(integer(p.height)));
  row.push_back(as(real(p.rate, rateDecimal(p.rate))));
  row.push_back(as(text(rateRational(p.rate))));
  row.push_back(as(text(scanModeWord(p.scanMode))));
  row.push_back(as(integer(p.frames)));
  row.push_back(as(p.audio));
  row.push_back(as(p.startTimecode));
}

/// The picture's values, as appendPictureValues gives them.
template <typename As>
std::vector<Value> pictureValues(const Picture& p, As as) {
  std::vector<Value> row;
  appendPictureValues(row, p, as);
  return row;
}

}  // namespace cli
}  // namespace vorta
