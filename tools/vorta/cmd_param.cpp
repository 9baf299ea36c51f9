// SPDX-License-Identifier: MIT
// vorta param: read and change the recorder's parameters kept in the parameter file.
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli.h"
#include "paramstore.h"

namespace {

using namespace vorta::cli;

std::string hexId(eParam_t id) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(id));
  return buffer;
}

const ParamInfo& lookup(const std::string& name) {
  const ParamInfo* info = findParam(name);
  if (info == nullptr) throw UsageError("unknown parameter '" + name + "' (see 'vorta param list')");
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

void addValue(cJSON* object, const ParamInfo& info, const std::string& value) {
  if (info.isText)
    cJSON_AddStringToObject(object, "value", value.c_str());
  else
    cJSON_AddNumberToObject(object, "value", std::stod(value));
}

int list(Invocation& in, ParamStore& store) {
  if (in.flag("json")) {
    Json doc(cJSON_CreateArray());
    for (const ParamInfo& info : knownParams()) {
      const auto value = valueOf(store, info);
      if (!value) throw Failure("cannot read the parameter file");
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "name", info.name);
      cJSON_AddStringToObject(item, "id", hexId(info.id).c_str());
      addValue(item, info, *value);
      cJSON_AddItemToArray(doc.get(), item);
    }
    printJson(std::cout, doc.get());
    return 0;
  }
  Table table({"NAME", "ID", "VALUE", "MEANING"});
  for (const ParamInfo& info : knownParams()) {
    const auto value = valueOf(store, info);
    if (!value) throw Failure("cannot read the parameter file");
    table.addRow({info.name, hexId(info.id), info.isText ? "\"" + *value + "\"" : *value, info.description});
  }
  table.print(std::cout);
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  const bool writing = action == "set";
  FileParamStore store(paramsFilePath(in, writing));

  if (action == "list") {
    if (args.size() != 1) throw UsageError("'list' takes no further arguments");
    return list(in, store);
  }
  if (action == "get") {
    if (args.size() != 2) throw UsageError("'get' takes one parameter name");
    const ParamInfo& info = lookup(args[1]);
    const auto value = valueOf(store, info);
    if (!value) throw Failure("cannot read " + std::string(info.name) + " from " + store.path());
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON_AddStringToObject(doc.get(), "name", info.name);
      cJSON_AddStringToObject(doc.get(), "id", hexId(info.id).c_str());
      addValue(doc.get(), info, *value);
      printJson(std::cout, doc.get());
    } else {
      std::cout << *value << "\n";
    }
    return 0;
  }
  if (writing) {
    if (args.size() != 3) throw UsageError("'set' takes a parameter name and a value");
    const ParamInfo& info = lookup(args[1]);
    int stored;
    if (info.isText) {
      stored = store.setParamString(info.id, args[2]);
    } else {
      const long long value = parseInteger(args[2], 0, 0xFFFFFFFFll, info.name);
      stored = store.setParam(info.id, static_cast<uint32_t>(value));
    }
    if (stored != 1) throw Failure("could not write " + store.path());
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (list, get or set)");
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
    {{"params", "FILE", "the parameter file"}, {"json", "", "print JSON"}},
    run,
    1,
    3,
};
VORTA_REGISTER_COMMAND(kParam);

}  // namespace
