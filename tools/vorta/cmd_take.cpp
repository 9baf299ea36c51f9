// SPDX-License-Identifier: MIT
// vorta take: the take number that clip names carry.
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
  Rows rows({{"name", "NAME", Column::Left, 0, Column::Middle},
             {"take", "TAKE", Column::Right},
             {"", "NOTE", Column::Left, 1}});
  for (const std::string& name : in.args()) {
    const int take = Clip::extractTake(name);
    rows.add(
        {name.empty() ? text(name).shows("\"\"") : text(name), integer(take), text(noteFor(name, take))});
  }
  emit(in, rows);
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
    outputOptions(true),
    run,
    1,
};
VORTA_REGISTER_COMMAND(kTake);

}  // namespace
