// SPDX-License-Identifier: MIT
// vorta param: read and change the recorder's parameters kept in the parameter file.
#include <cstdio>
#include <memory>

#include "cli.h"
#include "fileparams.h"
#include "paramstore.h"

namespace {

using namespace vorta::cli;

std::string hexId(eParam_t id) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(id));
  return buffer;
}

std::vector<std::string> paramNames() {
  std::vector<std::string> names;
  for (const ParamInfo& info : knownParams()) names.push_back(info.name);
  return names;
}

const ParamInfo& lookup(const std::string& name) {
  const ParamInfo* info = findParam(name);
  if (info == nullptr)
    throw UsageError("unknown parameter '" + name + "'" + didYouMean(name, paramNames()) +
                     " ('vorta param list' lists them)");
  return *info;
}

// The value as text, or nullopt when the file cannot be read.
std::optional<std::string> valueOf(ParamStore& store, const ParamInfo& info) {
  if (info.isText) {
    std::string text;
    if (store.getParamString(info.id, text) != 1) return std::nullopt;
    return text;
  }
  uint32_t value = 0;
  if (store.getParamValue(info.id, value) != 1) return std::nullopt;
  return std::to_string(value);
}

// The value typed: text or number, shown in tables with quotes around text.
Value typed(const ParamInfo& info, const std::string& value) {
  return info.isText ? text(value).shows("\"" + value + "\"") : integer(std::stoll(value));
}

// The parameter file's values, one row per parameter. At 80 columns the
// identifiers go first, then the meanings and values are shortened.
int list(Invocation& in, FileParamStore& store) {
  Rows rows({{"name", "NAME"},
             {"id", "ID", Column::Left, 1},
             {"value", "VALUE", Column::Left, 0, Column::Middle},
             {"", "MEANING", Column::Left, 0, Column::End}});
  for (const ParamInfo& info : knownParams()) {
    const auto value = valueOf(store, info);
    if (!value) throw Failure("cannot read the parameter file");
    rows.add({text(info.name), text(hexId(info.id)), typed(info, *value), text(info.description)});
  }
  emit(in, rows);
  return 0;
}

// One parameter as JSON, or its bare value.
void show(Invocation& in, FileParamStore& store, const ParamInfo& info, bool quietText) {
  const auto value = valueOf(store, info);
  if (!value) throw Failure("cannot read " + std::string(info.name) + " from " + store.path());
  if (quietText && !in.flag("json")) return;
  emit(in,
       JsonObject()
           .set("name", text(info.name))
           .set("id", text(hexId(info.id)))
           .set("value", typed(info, *value)),
       *value);
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  const bool writing = action == "set";
  FileParamStore store(paramsFilePath(in, writing));

  if (action != "list" && (in.flag("csv") || in.flag("tsv") || in.flag("wide")))
    throw UsageError("--csv, --tsv and --wide are for 'list'");
  if (action == "list") {
    if (args.size() != 1) throw UsageError("'list' takes no further arguments");
    return list(in, store);
  }
  if (action == "get") {
    if (args.size() != 2) throw UsageError("'get' takes one parameter name");
    show(in, store, lookup(args[1]), false);
    return 0;
  }
  if (writing) {
    if (args.size() != 3) throw UsageError("'set' takes a parameter name and a value");
    const ParamInfo& info = lookup(args[1]);
    int stored;
    if (info.isText) {
      stored = store.setParamString(info.id, args[2]);
    } else {
      // The encode type names a row of the codec table; others are any 32-bit value.
      const long long max = info.id == eParamEncodeType && !in.flag("unchecked")
                                ? static_cast<long long>(ENCODE_UNCOMPRESSED_V210)
                                : 0xFFFFFFFFll;
      const long long value = parseInteger(args[2], 0, max, info.name);
      stored = store.setParam(info.id, static_cast<uint32_t>(value));
    }
    if (stored != 1) throw Failure("could not write " + store.path());
    show(in, store, info, true);
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (list, get or set)" +
                   didYouMean(action, {"list", "get", "set"}));
}

const Command kParam{
    "param",
    "read and change the recorder's parameters",
    "list | get NAME | set NAME VALUE",
    "The parameters (take, naming settings, media directory, ...) live in a\n"
    "small JSON file shared by every vorta run, as the recorder's processes\n"
    "share their parameters. NAME is a name from 'vorta param list' or a\n"
    "numeric identifier such as 0x1108000A. The file is --params FILE, else\n"
    "$VORTA_PARAMS, else ~/.local/state/vorta/params.json.",
    join({{"params", "FILE", "the parameter file"},
          {"unchecked", "", "set: take an encode-type outside the table (0 to 9) as it is"}},
         outputOptions(true)),
    run,
    1,
    3,
    {{"get", paramNames()}, {"set", paramNames()}},
};
VORTA_REGISTER_COMMAND(kParam);

}  // namespace
