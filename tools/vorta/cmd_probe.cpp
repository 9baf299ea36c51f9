// SPDX-License-Identifier: MIT
// vorta probe: what the clip scanner reads from movie files, or why it refuses them.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "cli.h"
#include "zevqtfileparams.h"

namespace {

using namespace vorta::cli;

struct Probe {
  std::string file;
  std::unique_ptr<CFileParams> params;  // null when the name is not a movie name
  std::string refusal;                  // why the scan failed; empty when valid
};

std::string codecText(const CFileParams& p) {
  std::string code;
  for (char c : p.fourCC) code += (c >= 0x20 && c < 0x7F) ? c : '?';
  return code;
}

std::string scanModeText(int32_t mode) {
  switch (mode) {
    case 0:
      return "progressive";
    case 1:
      return "top-first";
    case 2:
      return "bottom-first";
    default:
      return std::to_string(mode);
  }
}

std::string rateText(double rate) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", rate);
  return text;
}

Probe probe(const std::string& file) {
  Probe result{file, std::unique_ptr<CFileParams>(CFileParams::create(file.c_str())), ""};
  if (!result.params) {
    result.refusal = "not a movie name (needs .mov or .MOV)";
  } else if (!result.params->FileIsValid()) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0)
      result.refusal = std::strerror(errno);
    else if (result.params->videoLength != 0)
      result.refusal = "codec '" + codecText(*result.params) + "' is not one the recorder plays";
    else
      result.refusal = "not a readable QuickTime movie with a video track";
  }
  return result;
}

int run(Invocation& in) {
  std::vector<Probe> probes;
  for (const std::string& file : in.args()) probes.push_back(probe(file));
  bool allValid = true;
  for (const Probe& p : probes) allValid = allValid && p.refusal.empty();

  if (in.flag("json")) {
    Json list(cJSON_CreateArray());
    for (Probe& p : probes) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "file", p.file.c_str());
      cJSON_AddBoolToObject(item, "valid", p.refusal.empty());
      if (!p.refusal.empty()) cJSON_AddStringToObject(item, "refused", p.refusal.c_str());
      if (p.params && p.params->videoLength != 0) {
        CFileParams& r = *p.params;
        cJSON_AddStringToObject(item, "codec", codecText(r).c_str());
        cJSON_AddNumberToObject(item, "width", r.width);
        cJSON_AddNumberToObject(item, "height", r.height);
        cJSON_AddNumberToObject(item, "frameRate", r.frameRate);
        cJSON_AddNumberToObject(item, "scanMode", r.scanMode);
        cJSON_AddNumberToObject(item, "videoLength", r.videoLength);
      }
      if (p.refusal.empty()) {
        cJSON* attributes = cJSON_AddObjectToObject(item, "attributes");
        for (const auto& kv : p.params->attributes.getAttributesMap())
          cJSON_AddStringToObject(attributes, kv.first.c_str(), kv.second.c_str());
        cJSON_AddStringToObject(item, "attributeText", p.params->attributes.block);
      }
      cJSON_AddItemToArray(list.get(), item);
    }
    printJson(std::cout, list.get());
    return allValid ? 0 : 1;
  }

  Table table(
      {"FILE", "CODEC", "SIZE", "RATE", "SCAN", "FRAMES", "AUDIO", "START TC", "FORMAT", "ENCODE", ""},
      {Table::Left, Table::Left, Table::Left, Table::Right, Table::Left, Table::Right, Table::Right,
       Table::Left, Table::Left, Table::Right, Table::Left});
  for (Probe& p : probes) {
    if (!p.refusal.empty()) {
      const bool read = p.params && p.params->videoLength != 0;
      if (!read) {
        table.addRow({p.file, "", "", "", "", "", "", "", "", "", "refused: " + p.refusal});
        continue;
      }
      const CFileParams& r = *p.params;
      table.addRow({p.file, codecText(r), std::to_string(r.width) + "x" + std::to_string(r.height),
                    rateText(r.frameRate), scanModeText(r.scanMode), std::to_string(r.videoLength), "", "",
                    "", "", "refused: " + p.refusal});
      continue;
    }
    CFileParams& r = *p.params;
    auto attributes = r.attributes.getAttributesMap();
    table.addRow({p.file, codecText(r), std::to_string(r.width) + "x" + std::to_string(r.height),
                  rateText(r.frameRate), scanModeText(r.scanMode), std::to_string(r.videoLength),
                  attributes["Audio Chan"], attributes["Starting TC"], attributes["Format"],
                  attributes["Encode Type"], ""});
  }
  table.print(std::cout);
  return allValid ? 0 : 1;
}

const Command kProbe{
    "probe",
    "show what the clip scanner reads from movie files",
    "FILE...",
    "Scans each file as the media scan does (CFileParams::create) and shows its\n"
    "codec, picture size, frame rate, scan mode, number of frames, and the\n"
    "attributes the scanner wrote: audio channels (channels of the first audio\n"
    "track times the number of audio tracks), starting time code, the Format\n"
    "text and the encode type. A file the scanner refuses is listed with the\n"
    "reason: a name without .mov or .MOV, a file that is not a readable movie,\n"
    "or a codec the recorder does not play (the picture parameters read are\n"
    "still shown). Exit status 0 when every file was scanned, 1 when any was\n"
    "refused.",
    {{"json", "", "print a JSON array, one object per file, with the attribute text"}},
    run,
    1,
};
VORTA_REGISTER_COMMAND(kProbe);

}  // namespace
