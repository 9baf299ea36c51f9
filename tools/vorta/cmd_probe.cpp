// SPDX-License-Identifier: MIT
// vorta probe: what the clip scanner reads from movie files, or why it refuses them.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "cli.h"
#include "vocabulary.h"
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
  // At 80 columns the table keeps the file, the picture and the verdict.
  Rows rows(join(join({{"file", "FILE", Column::Left, 0, Column::Middle}, {"valid"}}, pictureColumns()),
                 {{"", "FORMAT", Column::Left, 7},
                  {"", "ENCODE", Column::Right, 4},
                  {"refused", "REFUSED", Column::Left, 0, Column::End},
                  {"attributes"},
                  {"attributeText"}}));
  bool allValid = true;
  for (const std::string& file : in.args()) {
    const Probe p = probe(file);
    allValid = allValid && p.refusal.empty();
    const bool read = p.params && p.params->videoLength != 0;
    std::map<std::string, std::string> found;
    if (p.refusal.empty()) found = p.params->attributes.getAttributesMap();
    const auto attribute = [&](const char* key) { return found.count(key) ? text(found[key]) : absent(); };
    const CFileParams* r = p.params.get();
    const char* block = r != nullptr ? r->attributes.block : "";
    const Picture picture = read ? Picture{codecText(*r),
                                           r->width,
                                           r->height,
                                           r->frameRate,
                                           r->scanMode,
                                           r->videoLength,
                                           attribute("Audio Chan"),
                                           attribute("Starting TC")}
                                 : Picture{};
    rows.add(
        join(join({text(file), flag(p.refusal.empty())},
                  pictureValues(picture, [read](Value v) { return read ? v : absent(); })),
             {attribute("Format"), attribute("Encode Type"), p.refusal.empty() ? absent() : text(p.refusal),
              p.refusal.empty() ? pairs({found.begin(), found.end()}) : absent(),
              p.refusal.empty() ? text(std::string(block, strnlen(block, zev::media::MediaAttributes::kSize)))
                                : absent()}));
  }
  emit(in, rows);
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
    outputOptions(true),
    run,
    1,
};
VORTA_REGISTER_COMMAND(kProbe);

}  // namespace
