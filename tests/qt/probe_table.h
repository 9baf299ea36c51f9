// SPDX-License-Identifier: MIT
// vorta tests: probe.tsv, what ffprobe and mediainfo report for each committed QuickTime clip.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace probe_table {

/// One clip's line, by column name. Columns: file, codec_tag, width,
/// height, field_order, rate, frames, audio_channels, audio_streams,
/// timecode (ffprobe's; frames is the count ffprobe reads), then mi_rate,
/// mi_frames, mi_scan, mi_timecode (mediainfo's). "-" is a value neither
/// tool gave.
struct Row {
  std::map<std::string, std::string> fields;
  const std::string& operator[](const std::string& column) const {
    static const std::string missing;
    auto it = fields.find(column);
    EXPECT_NE(it, fields.end()) << column;
    return it == fields.end() ? missing : it->second;
  }
  int number(const std::string& column) const { return std::stoi((*this)[column]); }

  /// A rate column "num/den" as a number.
  double rate(const std::string& column) const {
    const std::string& text = (*this)[column];
    const auto slash = text.find('/');
    if (slash == std::string::npos) return 0;
    return std::stod(text.substr(0, slash)) / std::stod(text.substr(slash + 1));
  }

  /// The start time code as the tools report it. ffprobe leaves out a
  /// drop-frame time code whose timecode track counts in a rounded frame
  /// duration (17 at a time scale of 1000 for 59.94); mediainfo, like the
  /// recorder, reads the timecode track's first sample: its value then.
  std::string timecode() const {
    const std::string& probe = (*this)["timecode"];
    return probe != "-" ? probe : (*this)["mi_timecode"];
  }

  /// The field order as the reader reports it (0 progressive, 1 top first,
  /// 2 bottom first): mediainfo's scan order. ffprobe names the field details
  /// 9 and 14 "tb" and "bt" (top or bottom coded first); on pictures stored
  /// as whole interleaved frames, which every clip here is, they say which
  /// field comes first in time, top for 9 and bottom for 14, as mediainfo
  /// reads them.
  unsigned fieldMode() const {
    const std::string& scan = (*this)["mi_scan"];
    if (scan == "Interlaced/TFF") return 1;
    if (scan == "Interlaced/BFF") return 2;
    EXPECT_EQ(scan, "Progressive");
    return 0;
  }
};

inline std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> out;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, separator)) out.push_back(item);
  return out;
}

inline std::vector<Row> rows() {
  std::ifstream in(vorta_test::dataPath("qt/probe.tsv"));
  std::string line;
  std::getline(in, line);
  const auto columns = split(line, '\t');
  EXPECT_EQ(
      line,
      "file\tcodec_tag\twidth\theight\tfield_order\trate\tframes\taudio_channels\taudio_streams\ttimecode"
      "\tmi_rate\tmi_frames\tmi_scan\tmi_timecode");
  std::vector<Row> rows;
  while (std::getline(in, line)) {
    const auto values = split(line, '\t');
    if (values.size() != columns.size()) {
      ADD_FAILURE() << "bad line: " << line;
      continue;
    }
    Row row;
    for (std::size_t i = 0; i < columns.size(); ++i) row.fields[columns[i]] = values[i];
    rows.push_back(row);
  }
  return rows;
}

}  // namespace probe_table
