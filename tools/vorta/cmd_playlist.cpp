// SPDX-License-Identifier: MIT
// vorta playlist: write, rename and delete playlist files in the media directory.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "media_options.h"

namespace {

using namespace vorta::cli;

// NAME as a playlist file inside the medium: ".playlist" added where it
// lacks it, then refused unless it lies inside the media directory.
std::string playlistFile(const std::string& dir, const std::string& name) {
  return insideMedium(dir, name.find(".playlist") == std::string::npos ? name + ".playlist" : name);
}

// Writes a new playlist file: the text goes to a hidden temporary file in
// the same directory (which the scan skips), is synced, and is then linked
// under its name, which fails when the name exists; --replace renames over it.
int create(Invocation& in, const std::string& dir) {
  const auto& args = in.args();
  if (args.size() < 3) throw UsageError("'create' takes a name and one or more clip names");
  const std::string file = playlistFile(dir, args[1]);
  std::string title = file.substr(file.rfind('/') == std::string::npos ? 0 : file.rfind('/') + 1);
  title.erase(title.rfind(".playlist"));
  if (title.empty()) throw UsageError("the playlist needs a name");
  // A clip is named as the catalogue names it; one given as a path must lie
  // inside the medium too.
  std::vector<std::string> clips;
  for (std::size_t i = 2; i < args.size(); ++i) {
    if (args[i].find('/') != std::string::npos) insideMedium(dir, args[i]);
    clips.push_back(args[i].substr(args[i].rfind('/') == std::string::npos ? 0 : args[i].rfind('/') + 1));
    if (clips.back().empty()) throw UsageError("empty clip name");
  }
  JsonTree doc(cJSON_CreateObject());
  cJSON_AddStringToObject(doc.get(), "name", title.c_str());
  cJSON* list = cJSON_AddArrayToObject(doc.get(), "cliplist");
  for (const std::string& clip : clips) cJSON_AddItemToArray(list, cJSON_CreateString(clip.c_str()));
  char* printed = cJSON_PrintUnformatted(doc.get());
  if (printed == nullptr) throw Failure("out of memory");
  const std::string line = printed;
  cJSON_free(printed);

  const std::string path = dir + "/" + file;
  const std::string::size_type slash = path.rfind('/');
  std::string temp = path.substr(0, slash + 1) + ".vorta-playlist-XXXXXX";
  const int fd = ::mkstemp(&temp[0]);
  if (fd < 0) throw Failure("cannot write in " + path.substr(0, slash) + ": " + std::strerror(errno));
  ::fchmod(fd, 0644);
  bool ok = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  ok = ::fsync(fd) == 0 && ok;
  ok = ::close(fd) == 0 && ok;
  int error = errno;
  if (ok) {
    ok = (in.flag("replace") ? std::rename(temp.c_str(), path.c_str())
                             : ::link(temp.c_str(), path.c_str())) == 0;
    error = errno;
  }
  ::unlink(temp.c_str());
  if (!ok) {
    if (error == EEXIST) throw Failure("refused: " + path + " exists (--replace writes over it)");
    throw Failure("cannot write " + path + ": " + std::strerror(error));
  }
  emit(in, JsonObject().set("created", text(path)).set("name", text(title)).set("cliplist", clips),
       "created " + path + ": \"" + title + "\", " + count(clips.size(), "clip") +
           "; run 'vorta scan' to load it into the playlist cache");
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  const std::vector<std::string> actions{"create", "write", "rename", "delete"};
  const std::size_t wanted[] = {0, 3, 3, 2};
  const auto which = std::find(actions.begin(), actions.end(), action);
  if (which == actions.end())
    throw UsageError("unknown action '" + action + "' (create, write, rename or delete)" +
                     didYouMean(action, actions));
  if (in.flag("replace") && action != "create") throw UsageError("--replace is for 'create'");
  const std::size_t arguments = wanted[which - actions.begin()];
  if (arguments != 0 && args.size() != arguments)
    throw UsageError(action == "delete"  ? "'delete' takes one file name"
                     : action == "write" ? "'write' takes a file name and the JSON text"
                                         : "'rename' takes the old and the new file name");
  if (action == "create") {
    FileParamStore params(paramsFilePath(in, false));
    return create(in, mediaDirOf(params));
  }
  MediaSession session(in, false, CacheUse::Existing);
  ClipFinder& finder = session.finder();
  const std::string dir = mediaDirOf(session.params());
  std::string name = playlistFile(dir, args[1]);
  const std::string path = dir + "/" + name;

  if (action == "write") {
    std::string contents = args[2];
    if (::access(path.c_str(), F_OK) != 0)
      throw Failure("refused: " + path +
                    " does not exist (the recorder only writes existing files; 'vorta playlist create' makes "
                    "new ones)");
    if (!finder.writePlaylist(name, contents)) throw Failure("could not open " + path);
    // The recorder's writer opens the file read-only (its "rw" mode), so
    // the text does not reach it; say so rather than pretend.
    emit(in, JsonObject().set("opened", text(path)),
         path + ": opened; the recorder's playlist writer leaves the file as it was");
  } else if (action == "rename") {
    const std::string to = playlistFile(dir, args[2]);
    for (const std::string& file : {name, to}) {
      const std::string real = realPath(dir + "/" + file);
      if (real.empty())
        throw Failure("refused: " + dir + "/" + file + " does not exist (both names must resolve)");
      if (real.find("ZEV") == std::string::npos)
        throw Failure("refused: " + real + " is not under a ZEV directory");
    }
    if (!finder.renamePlaylist(name, to)) throw Failure("the rename failed");
    emit(in, JsonObject().set("from", text(path)).set("to", text(dir + "/" + to)),
         "renamed " + path + " to " + dir + "/" + to);
  } else {
    if (!finder.deletePlaylist(name)) throw Failure("could not delete " + path);
    emit(in, JsonObject().set("deleted", text(path)), "deleted " + path);
  }
  return 0;
}

const Command kPlaylist{
    "playlist",
    "create, write, rename or delete a playlist file in the media directory",
    "create NAME CLIP... | write NAME JSON | rename OLD NEW | delete NAME",
    "Works on the files only; run 'vorta scan' afterwards to refresh the shared\n"
    "playlist cache. Every NAME gets .playlist added where it lacks it and must\n"
    "lie inside the media directory: a name, a path below it or an absolute\n"
    "path into it, which neither '..' nor a symbolic link may lead out of.\n"
    "'create' writes a new one-line JSON playlist {\"name\":NAME,\"cliplist\":\n"
    "[CLIP,...]} at once (a temporary file renamed into place, so no process\n"
    "ever reads half of it), refusing an existing name unless --replace; this\n"
    "is the tool's own writer. The others do what the recorder does: 'write'\n"
    "only opens files that exist, with the C mode \"rw\", which is read-only,\n"
    "so an existing file is left unchanged; 'rename' only between names that\n"
    "both resolve under a ZEV directory; 'delete' deletes the named file.",
    mediaOptions({{"replace", "", "create: write over an existing playlist"}}, {jsonOption()}),
    run,
    2,
};
VORTA_REGISTER_COMMAND(kPlaylist);

}  // namespace
