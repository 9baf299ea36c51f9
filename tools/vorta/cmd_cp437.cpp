// SPDX-License-Identifier: MIT
// vorta cp437: shows how a text is sent to the recorder's code page 437 display.
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "textconv.h"

namespace {

using namespace vorta::cli;

struct Character {
  std::string utf8;
  bool mapped;
  unsigned code;
};

// Splits text into sequences the way the conversion does (by lead byte),
// noting the code page 437 code of each.
std::vector<Character> characters(const std::string& text) {
  std::vector<Character> out;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t n = trailingBytesForUTF8[static_cast<unsigned char>(text[i])] + 1u;
    if (n > text.size() - i) n = text.size() - i;
    Character c{text.substr(i, n), false, 0};
    unsigned char code = 0;
    c.mapped = map_utf8_to_codepage437(c.utf8.data(), static_cast<int>(n), &code) == 1;
    c.code = code;
    out.push_back(c);
    i += n;
  }
  return out;
}

int run(Invocation& in) {
  const std::string input = in.args().front();
  const long long size = in.integer("size", static_cast<long long>(input.size()) + 1, 1, 1 << 20);

  std::vector<char> buffer(static_cast<std::size_t>(size), '\0');
  strncpyasutf8_map_cp437(buffer.data(), input.data(), static_cast<int>(input.size()),
                          static_cast<int>(size));
  const std::string converted(buffer.data(), strnlen(buffer.data(), buffer.size()));
  const auto chars = characters(input);

  Rows rows({{"", "CHAR"}, {"utf8", "UTF-8"}, {"cp437", "CP437"}});
  for (const Character& c : chars)
    rows.add({text(c.utf8), text(hexBytes(c.utf8)),
              c.mapped ? integer(c.code).shows(hexBytes(std::string(1, static_cast<char>(c.code))) + " (" +
                                               std::to_string(c.code) + ")")
                       : none(c.utf8.size() == 1 ? "same byte" : "not in code page 437: kept as UTF-8")});
  const Format format = formatOf(in);
  if (format == Format::Text) {
    say("input  " + std::to_string(input.size()) + " bytes UTF-8: " + hexBytes(input));
    say("cp437  " + std::to_string(converted.size()) + " bytes" +
        (in.value("size") ? " (buffer of " + std::to_string(size) + ")" : "") + ": " + hexBytes(converted));
    if (!in.flag("table")) return 0;
    std::cout << "\n";
  }
  JsonObject json;
  json.set("input", text(input))
      .set("utf8", text(hexBytes(input)))
      .set("size", integer(size))
      .set("cp437", text(hexBytes(converted)))
      .set("bytes", integer(static_cast<long long>(converted.size())))
      .set("characters", rows);
  emit(in, rows, &json);
  return 0;
}

const Command kCp437{
    "cp437",
    "show the code page 437 bytes a display text is converted to",
    "TEXT",
    "Converts TEXT (UTF-8) the way the library prepares text for the recorder's\n"
    "character display: every character that code page 437 can show becomes its\n"
    "one-byte code (128-254), everything else stays as it is, and a multi-byte\n"
    "character never gets split at the end of the buffer.",
    join({{"size", "N", "convert into a buffer of N bytes, terminator included (default: large enough)"},
          {"table", "", "list every character with its UTF-8 bytes and its code (--csv, --tsv: only that)"}},
         outputOptions(true)),
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kCp437);

}  // namespace
