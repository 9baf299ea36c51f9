// SPDX-License-Identifier: MIT
// vorta playlists: list the cached playlists with "All Clips", add playlist files, remove them.
#include <cjson/cJSON.h>

#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "cli.h"
#include "media_cache.h"
#include "media_options.h"
#include "vocabulary.h"

namespace {

using namespace vorta::cli;

std::string bounded(const char* field, std::size_t size) { return std::string(field, strnlen(field, size)); }

// Number of clip names the playlist's first line lists, or -1 when it is no playlist JSON.
int clipCount(const PlaylistCacheEntry& entry) {
  std::string line = bounded(entry.text, sizeof entry.text);
  line.erase(std::min(line.find('\n'), line.size()));
  JsonTree json(cJSON_Parse(line.c_str()));
  if (!json) return -1;
  const cJSON* list = cJSON_GetObjectItem(json.get(), "cliplist");
  if (list == nullptr) return -1;
  int count = 0;
  const int items = cJSON_GetArraySize(list);
  for (int i = 0; i < items; ++i)
    if (cJSON_IsString(cJSON_GetArrayItem(list, i))) ++count;
  return count;
}

// The cached playlists with "All Clips": one row each. At 80 columns the
// times go first, then the paths are shortened in the middle.
int list(Invocation& in, zev::media::MediaCache& cache) {
  const std::map<std::string, PlaylistCacheEntry> playlists = cache.GetPlaylists();
  Rows rows({{"name", "NAME", Column::Left, 0, Column::Middle},
             {"clips", "CLIPS", Column::Right},
             {"unbuildable"},
             {"modified", "MODIFIED", Column::Left, 1},
             {"path", "PATH", Column::Left, 0, Column::Middle}});
  std::vector<std::string> notes;
  for (const auto& element : playlists) {
    const int clips = clipCount(element.second);
    const bool synthetic =
        element.first == zev::media::MediaCache::kAllClipsName && element.second.path[0] == '\0';
    const std::string problem = synthetic ? allClipsProblem(element.second, cache.GetClips().size()) : "";
    if (!problem.empty()) notes.push_back(element.first + " cannot be built: " + problem);
    rows.add({text(element.first), clips >= 0 ? integer(clips) : none(problem.empty() ? "?" : "none"),
              problem.empty() ? absent() : text(problem),
              element.second.modTime == 0 ? none("-") : text(isoTime(element.second.modTime)),
              text(bounded(element.second.path, sizeof element.second.path))});
  }
  emit(in, rows);
  if (formatOf(in) == Format::Text)
    for (const std::string& note : notes) say(note);
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  if (!args.empty() && args[0] == "add") {
    // Files of the medium only, checked before the cache is opened.
    FileParamStore params(paramsFilePath(in, false));
    const std::string dir = mediaDirOf(params);
    for (std::size_t i = 1; i < args.size(); ++i) insideMedium(dir, absolutePath(args[i]));
  }
  auto cache = openExistingCache(in, cacheOptionsFrom(in));
  if (args.empty()) return list(in, *cache);
  if (in.flag("csv") || in.flag("tsv") || in.flag("wide"))
    throw UsageError("--csv, --tsv and --wide are for the list");

  const std::string& action = args[0];
  if (action == "add") {
    if (args.size() < 2) throw UsageError("'add' takes one or more playlist files");
    Rows added({{"name"}, {"path"}});
    Rows refused({{"path"}, {"reason"}});
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (cache->AddPlaylist(args[i]) == 1) {
        const std::string key = zev::media::MediaCache::PlaylistKey(args[i]);
        added.add({text(key), text(args[i])});
        if (formatOf(in) == Format::Text) say("added " + key + " (" + args[i] + ")");
      } else {
        refused.add({text(args[i]), text("not a playlist file")});
        warn(in.command().name, args[i] + " is not a playlist file");
      }
    }
    if (formatOf(in) == Format::Json)
      printJson(std::cout, JsonObject().set("added", added).set("refused", refused).get());
    return refused.empty() ? 0 : 1;
  }
  if (action == "remove") {
    if (args.size() != 2) throw UsageError("'remove' takes one path");
    const auto before = cache->GetPlaylists();
    if (!cache->RemovePlaylist(args[1]))
      throw Failure("no cached playlist has its path in '" + args[1] + "'");
    const auto after = cache->GetPlaylists();
    std::string removed = "?";
    for (const auto& element : before)
      if (after.count(element.first) == 0) removed = element.first;
    emit(in,
         JsonObject()
             .set("removed", text(removed))
             .set("count", integer(static_cast<long long>(after.size()))),
         "removed " + removed);
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (add or remove; none lists)" +
                   didYouMean(action, {"add", "remove"}));
}

const Command kPlaylists{
    "playlists",
    "list, add or remove the playlists in the shared playlist cache",
    "[add FILE... | remove PATH]",
    "Without arguments, lists the cached playlists together with \"All Clips\",\n"
    "which is made afresh from the clip catalogue: name, number of clips, the\n"
    "file's modification time and its path. 'add' reads playlist files (one-line\n"
    "JSON with \"name\" and \"cliplist\") into the cache; 'remove' drops the first\n"
    "playlist whose path occurs in PATH. The cache must exist ('vorta cache\n"
    "create'), and the files added must lie inside the media directory.",
    mediaOptions({}, outputOptions(true)),
    run,
    0,
    static_cast<std::size_t>(-1),
};
VORTA_REGISTER_COMMAND(kPlaylists);

}  // namespace
