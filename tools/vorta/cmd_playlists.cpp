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

std::string timeText(int32_t modTime) {
  if (modTime == 0) return "-";
  const std::time_t t = modTime;
  std::tm parts;
  gmtime_r(&t, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

int list(Invocation& in, zev::media::MediaCache& cache) {
  const std::map<std::string, PlaylistCacheEntry> playlists = cache.GetPlaylists();
  if (in.flag("json")) {
    Json doc(cJSON_CreateArray());
    for (const auto& element : playlists) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "name", element.first.c_str());
      cJSON_AddStringToObject(item, "path", bounded(element.second.path, sizeof element.second.path).c_str());
      cJSON_AddNumberToObject(item, "clips", clipCount(element.second));
      cJSON_AddNumberToObject(item, "modTime", element.second.modTime);
      cJSON_AddItemToArray(doc.get(), item);
    }
    printJson(std::cout, doc.get());
    return 0;
  }
  Table table({"NAME", "CLIPS", "MODIFIED (UTC)", "PATH"},
              {Table::Left, Table::Right, Table::Left, Table::Left});
  for (const auto& element : playlists) {
    const int clips = clipCount(element.second);
    table.addRow({element.first, clips < 0 ? "?" : std::to_string(clips), timeText(element.second.modTime),
                  bounded(element.second.path, sizeof element.second.path)});
  }
  table.print(std::cout);
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  auto cache = openExistingCache(cacheOptionsFrom(in));
  if (args.empty()) return list(in, *cache);
  if (in.flag("json")) throw UsageError("--json is for the listing");

  const std::string& action = args[0];
  if (action == "add") {
    if (args.size() < 2) throw UsageError("'add' takes one or more playlist files");
    int failed = 0;
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (cache->AddPlaylist(args[i]) == 1) {
        std::cout << "added " << zev::media::MediaCache::PlaylistKey(args[i]) << " (" << args[i] << ")\n";
      } else {
        std::cerr << "vorta playlists: " << args[i] << " is not a playlist file\n";
        ++failed;
      }
    }
    return failed == 0 ? 0 : 2;
  }
  if (action == "remove") {
    if (args.size() != 2) throw UsageError("'remove' takes one path");
    if (!cache->RemovePlaylist(args[1]))
      throw Failure("no cached playlist has its path in '" + args[1] + "'");
    std::cout << "removed\n";
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (add or remove; none lists)");
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
