// SPDX-License-Identifier: MIT
// vorta playlists: list the cached playlists with "All Clips", add playlist files, remove them.
#include <cjson/cJSON.h>

#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <string>

#include "cache_options.h"
#include "cli.h"
#include "media_cache.h"
#include "vocabulary.h"

namespace {

using namespace vorta::cli;

std::string bounded(const char* field, std::size_t size) { return std::string(field, strnlen(field, size)); }

// Number of clip names the playlist's first line lists, or -1 when it is no playlist JSON.
int clipCount(const PlaylistCacheEntry& entry) {
  std::string line = bounded(entry.text, sizeof entry.text);
  line.erase(std::min(line.find('\n'), line.size()));
  Json json(cJSON_Parse(line.c_str()));
  if (!json) return -1;
  const cJSON* list = cJSON_GetObjectItem(json.get(), "cliplist");
  if (list == nullptr) return -1;
  int count = 0;
  const int items = cJSON_GetArraySize(list);
  for (int i = 0; i < items; ++i)
    if (cJSON_IsString(cJSON_GetArrayItem(list, i))) ++count;
  return count;
}

std::string timeText(int32_t modTime) { return modTime == 0 ? "-" : isoTime(modTime); }

// Why the synthetic "All Clips" has no text, in words; "" for any other
// playlist and for one that was built.
std::string unbuilt(const std::string& name, const PlaylistCacheEntry& entry, zev::media::MediaCache& cache) {
  if (name != zev::media::MediaCache::kAllClipsName || entry.path[0] != '\0' || entry.text[0] != '\0')
    return "";
  return "the names of the " + std::to_string(cache.GetClips().size()) + " clips do not fit the " +
         std::to_string(sizeof entry.text - 1) + " characters of a playlist's text";
}

int list(Invocation& in, zev::media::MediaCache& cache) {
  const std::map<std::string, PlaylistCacheEntry> playlists = cache.GetPlaylists();
  if (in.flag("json")) {
    Json doc(cJSON_CreateArray());
    for (const auto& element : playlists) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "name", element.first.c_str());
      cJSON_AddStringToObject(item, "path", bounded(element.second.path, sizeof element.second.path).c_str());
      const int clips = clipCount(element.second);
      if (clips < 0)
        cJSON_AddNullToObject(item, "clips");
      else
        cJSON_AddNumberToObject(item, "clips", clips);
      const std::string problem = unbuilt(element.first, element.second, cache);
      if (!problem.empty()) cJSON_AddStringToObject(item, "unbuildable", problem.c_str());
      if (element.second.modTime == 0)
        cJSON_AddNullToObject(item, "modified");
      else
        cJSON_AddStringToObject(item, "modified", isoTime(element.second.modTime).c_str());
      cJSON_AddItemToArray(doc.get(), item);
    }
    printJson(std::cout, doc.get());
    return 0;
  }
  std::vector<std::string> notes;
  Table table({"NAME", "CLIPS", "MODIFIED", "PATH"}, {Table::Left, Table::Right, Table::Left, Table::Left});
  for (const auto& element : playlists) {
    const int clips = clipCount(element.second);
    const std::string problem = unbuilt(element.first, element.second, cache);
    if (!problem.empty()) notes.push_back(element.first + " cannot be built: " + problem);
    table.addRow({element.first,
                  clips >= 0        ? std::to_string(clips)
                  : problem.empty() ? "?"
                                    : "none",
                  timeText(element.second.modTime),
                  bounded(element.second.path, sizeof element.second.path)});
  }
  table.print(std::cout);
  for (const std::string& note : notes) std::cout << note << "\n";
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  auto cache = openExistingCache(in, cacheOptionsFrom(in));
  if (args.empty()) return list(in, *cache);
  const bool json = in.flag("json");

  const std::string& action = args[0];
  if (action == "add") {
    if (args.size() < 2) throw UsageError("'add' takes one or more playlist files");
    Json doc(cJSON_CreateObject());
    cJSON* added = cJSON_AddArrayToObject(doc.get(), "added");
    cJSON* refused = cJSON_AddArrayToObject(doc.get(), "refused");
    int failed = 0;
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (cache->AddPlaylist(args[i]) == 1) {
        const std::string key = zev::media::MediaCache::PlaylistKey(args[i]);
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "name", key.c_str());
        cJSON_AddStringToObject(item, "path", args[i].c_str());
        cJSON_AddItemToArray(added, item);
        if (!json) std::cout << "added " << key << " (" << args[i] << ")\n";
      } else {
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "path", args[i].c_str());
        cJSON_AddStringToObject(item, "reason", "not a playlist file");
        cJSON_AddItemToArray(refused, item);
        std::cerr << "vorta playlists: " << args[i] << " is not a playlist file\n";
        ++failed;
      }
    }
    if (json) printJson(std::cout, doc.get());
    return failed == 0 ? 0 : 1;
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
    if (json) {
      Json doc(cJSON_CreateObject());
      cJSON_AddStringToObject(doc.get(), "removed", removed.c_str());
      cJSON_AddNumberToObject(doc.get(), "count", static_cast<double>(after.size()));
      printJson(std::cout, doc.get());
    } else {
      std::cout << "removed " << removed << "\n";
    }
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (add or remove; none lists)" +
                   didYouMean(action, {"add", "remove"}));
}

std::vector<Option> playlistOptions() {
  std::vector<Option> options = cacheNameOptions();
  options.push_back({"json", "", "print JSON"});
  return options;
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
    "create').",
    playlistOptions(),
    run,
    0,
    static_cast<std::size_t>(-1),
};
VORTA_REGISTER_COMMAND(kPlaylists);

}  // namespace
