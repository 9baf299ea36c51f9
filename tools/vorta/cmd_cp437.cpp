// SPDX-License-Identifier: MIT
// vorta cp437: shows how a text is sent to the recorder's code page 437 display.
#include <cstring>
#include <iostream>
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
  const std::string text = in.args().front();
  const long long size = in.integer("size", static_cast<long long>(text.size()) + 1, 1, 1 << 20);

  std::vector<char> buffer(static_cast<std::size_t>(size), '\0');
  strncpyasutf8_map_cp437(buffer.data(), text.data(), static_cast<int>(text.size()), static_cast<int>(size));
  const std::string converted(buffer.data(), strnlen(buffer.data(), buffer.size()));
  const auto chars = characters(text);

  if (in.flag("json")) {
    Json doc(cJSON_CreateObject());
    cJSON_AddStringToObject(doc.get(), "input", text.c_str());
    cJSON_AddStringToObject(doc.get(), "utf8", hexBytes(text).c_str());
    cJSON_AddNumberToObject(doc.get(), "size", static_cast<double>(size));
    cJSON_AddStringToObject(doc.get(), "cp437", hexBytes(converted).c_str());
    cJSON_AddNumberToObject(doc.get(), "bytes", static_cast<double>(converted.size()));
    cJSON* list = cJSON_AddArrayToObject(doc.get(), "characters");
    for (const Character& c : chars) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "utf8", hexBytes(c.utf8).c_str());
      if (c.mapped)
        cJSON_AddNumberToObject(item, "cp437", c.code);
      else
        cJSON_AddNullToObject(item, "cp437");
      cJSON_AddItemToArray(list, item);
    }
    printJson(std::cout, doc.get());
    return 0;
  }

  std::cout << "input  " << text.size() << " bytes UTF-8: " << hexBytes(text) << "\n";
  std::cout << "cp437  " << converted.size() << " bytes";
  if (in.value("size")) std::cout << " (buffer of " << size << ")";
  std::cout << ": " << hexBytes(converted) << "\n";

  if (in.flag("table")) {
    std::cout << "\n";
    Table table({"CHAR", "UTF-8", "CP437"});
    for (const Character& c : chars) {
      const bool printable = !(c.utf8.size() == 1 && (static_cast<unsigned char>(c.utf8[0]) < 0x20 ||
                                                      static_cast<unsigned char>(c.utf8[0]) >= 0x80));
      table.addRow({printable ? c.utf8 : "?", hexBytes(c.utf8),
                    c.mapped ? hexBytes(std::string(1, static_cast<char>(c.code))) + " (" +
                                   std::to_string(c.code) + ")"
                    : c.utf8.size() == 1 ? "same byte"
                                         : "not in code page 437: kept as UTF-8"});
    }
    table.print(std::cout);
  }
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
    {{"size", "N", "convert into a buffer of N bytes, terminator included (default: large enough)"},
     {"table", "", "list every character with its UTF-8 bytes and its code"},
     {"json", "", "print the result as JSON"}},
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kCp437);

}  // namespace
