// SPDX-License-Identifier: MIT
// vorta take: the take number that clip names carry.
#include <iostream>

#include "cli.h"
#include "clip.h"

namespace {

using namespace vorta::cli;

std::string noteFor(const std::string& name, int take) {
  if (name.empty()) return "empty name";
  if (take == -1) return "no take marker (TK or _)";
  return "";
}

int run(Invocation& in) {
  if (in.flag("json")) {
    Json list(cJSON_CreateArray());
    for (const std::string& name : in.args()) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "name", name.c_str());
      cJSON_AddNumberToObject(item, "take", Clip::extractTake(name));
      cJSON_AddItemToArray(list.get(), item);
    }
    printJson(std::cout, list.get());
    return 0;
  }
  Table table({"NAME", "TAKE", ""}, {Table::Left, Table::Right, Table::Left});
  for (const std::string& name : in.args()) {
    const int take = Clip::extractTake(name);
    table.addRow({name.empty() ? "\"\"" : name, std::to_string(take), noteFor(name, take)});
  }
  table.print(std::cout);
  return 0;
}

const Command kTake{
    "take",
    "print the take number a clip name carries",
    "NAME...",
    "The take is the number after the last \"TK\" in the name, or else after the\n"
    "last \"_\", up to the first \".\" of the name: A001_003.mov is take 3,\n"
    "SHOT_TK12.mov take 12, A001_C003.mov take 0 (no digits right after the\n"
    "marker). A name without either marker has no take and shows -1.",
    {{"json", "", "print a JSON array of {name, take}"}},
    run,
    1,
};
VORTA_REGISTER_COMMAND(kTake);

}  // namespace
