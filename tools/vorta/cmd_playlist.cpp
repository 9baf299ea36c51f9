// SPDX-License-Identifier: MIT
// vorta playlist: write, rename and delete playlist files in the media directory.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <stdlib.h>
#include <unistd.h>

#include "cli.h"
#include "media_options.h"

namespace {

using namespace vorta::cli;

std::string mediaDirOf(ParamStore& params) {
  std::string dir;
  params.getParamString(eParamMediaDir, dir);
  if (dir.empty()) throw Failure("the media directory is not set (vorta param set media-dir DIR)");
  return dir;
}

std::string realPath(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return "";
  std::string out(resolved);
  std::free(resolved);
  return out;
}

// "X" as "X.playlist"; a name that has it already stays as it is.
std::string withExtension(const std::string& name) {
  return name.find(".playlist") == std::string::npos ? name + ".playlist" : name;
}

// A name inside the media directory: a relative name as it is, an absolute
// path made relative when it lies inside the directory, refused otherwise.
std::string insideMedium(const std::string& dir, const std::string& name) {
  if (name.empty() || name[0] != '/') return name;
  const std::string root = realPath(dir);
  const std::string::size_type slash = name.rfind('/');
  const std::string parent = realPath(slash == 0 ? "/" : name.substr(0, slash));
  if (root.empty() || parent.empty() ||
      (parent != root && parent.compare(0, root.size() + 1, root + "/") != 0))
    throw Failure("refused: " + name + " is not inside the media directory " + dir);
  const std::string relative = parent == root ? "" : parent.substr(root.size() + 1) + "/";
  return relative + name.substr(slash + 1);
}

void printResult(const Invocation& in, const char* key, const std::string& path, const std::string& text) {
  if (in.flag("json")) {
    Json doc(cJSON_CreateObject());
    cJSON_AddStringToObject(doc.get(), key, path.c_str());
    printJson(std::cout, doc.get());
  } else {
    std::cout << text << "\n";
  }
}

// Writes a new playlist file: the text goes to a hidden temporary file in
// the same directory (which the scan skips), is synced, and is then linked
// under its name, which fails when the name exists; --replace renames over it.
int create(Invocation& in, const std::string& dir) {
  const auto& args = in.args();
  if (args.size() < 3) throw UsageError("'create' takes a name and one or more clip names");
  const std::string file = withExtension(insideMedium(dir, args[1]));
  std::string title = file.substr(file.rfind('/') == std::string::npos ? 0 : file.rfind('/') + 1);
  title.erase(title.rfind(".playlist"));
  if (title.empty()) throw UsageError("the playlist needs a name");
  Json doc(cJSON_CreateObject());
  cJSON_AddStringToObject(doc.get(), "name", title.c_str());
  cJSON* list = cJSON_AddArrayToObject(doc.get(), "cliplist");
  for (std::size_t i = 2; i < args.size(); ++i) {
    std::string clip = insideMedium(dir, args[i]);
    clip.erase(0, clip.rfind('/') == std::string::npos ? 0 : clip.rfind('/') + 1);
    if (clip.empty()) throw UsageError("empty clip name");
    cJSON_AddItemToArray(list, cJSON_CreateString(clip.c_str()));
  }
  char* text = cJSON_PrintUnformatted(doc.get());
  if (text == nullptr) throw Failure("out of memory");
  const std::string line = text;
  cJSON_free(text);

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
    if (in.flag("replace")) {
      ok = std::rename(temp.c_str(), path.c_str()) == 0;
    } else {
      ok = ::link(temp.c_str(), path.c_str()) == 0;
    }
    error = errno;
  }
  ::unlink(temp.c_str());
  if (!ok) {
    if (error == EEXIST) throw Failure("refused: " + path + " exists (--replace writes over it)");
    throw Failure("cannot write " + path + ": " + std::strerror(error));
  }
  if (in.flag("json")) {
    Json out(cJSON_CreateObject());
    cJSON_AddStringToObject(out.get(), "created", path.c_str());
    cJSON_AddStringToObject(out.get(), "name", title.c_str());
    cJSON_AddItemToObject(out.get(), "cliplist", cJSON_Duplicate(list, true));
    printJson(std::cout, out.get());
  } else {
    std::cout << "created " << path << ": \"" << title << "\", " << (args.size() - 2) << " clip"
              << (args.size() == 3 ? "" : "s") << "; run 'vorta scan' to load it into the playlist cache\n";
  }
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  if (action != "write" && action != "rename" && action != "delete" && action != "create")
    throw UsageError("unknown action '" + action + "' (create, write, rename or delete)" +
                     didYouMean(action, {"create", "write", "rename", "delete"}));
  if (in.flag("replace") && action != "create") throw UsageError("--replace is for 'create'");
  if (action == "create") {
    FileParamStore params(paramsFilePath(in, false));
    return create(in, mediaDirOf(params));
  }
  MediaSession session(in, false, CacheUse::Existing);
  ClipFinder& finder = session.finder();
  const std::string dir = mediaDirOf(session.params());

  if (action == "write") {
    if (args.size() != 3) throw UsageError("'write' takes a file name and the JSON text");
    std::string name = withExtension(insideMedium(dir, args[1]));
    std::string text = args[2];
    if (::access((dir + "/" + name).c_str(), F_OK) != 0)
      throw Failure("refused: " + dir + "/" + name +
                    " does not exist (the recorder only writes existing files; 'vorta playlist create' makes "
                    "new ones)");
    if (!finder.writePlaylist(name, text)) throw Failure("could not open " + dir + "/" + name);
    // The recorder's writer opens the file read-only (its "rw" mode), so
    // the text does not reach it; say so rather than pretend.
    printResult(in, "opened", dir + "/" + name,
                dir + "/" + name + ": opened; the recorder's playlist writer leaves the file as it was");
    return 0;
  }
  if (action == "rename") {
    if (args.size() != 3) throw UsageError("'rename' takes the old and the new file name");
    const std::string from = withExtension(insideMedium(dir, args[1]));
    const std::string to = withExtension(insideMedium(dir, args[2]));
    for (const std::string& name : {from, to}) {
      const std::string real = realPath(dir + "/" + name);
      if (real.empty())
        throw Failure("refused: " + dir + "/" + name + " does not exist (both names must resolve)");
      if (real.find("ZEV") == std::string::npos)
        throw Failure("refused: " + real + " is not under a ZEV directory");
    }
    if (!finder.renamePlaylist(from, to)) throw Failure("the rename failed");
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON_AddStringToObject(doc.get(), "from", (dir + "/" + from).c_str());
      cJSON_AddStringToObject(doc.get(), "to", (dir + "/" + to).c_str());
      printJson(std::cout, doc.get());
    } else {
      std::cout << "renamed " << dir << "/" << from << " to " << dir << "/" << to << "\n";
    }
    return 0;
  }
  if (args.size() != 2) throw UsageError("'delete' takes one file name");
  const std::string name = withExtension(insideMedium(dir, args[1]));
  if (!finder.deletePlaylist(name)) throw Failure("could not delete " + dir + "/" + name);
  printResult(in, "deleted", dir + "/" + name, "deleted " + dir + "/" + name);
  return 0;
}

const Command kPlaylist{
    "playlist",
    "create, write, rename or delete a playlist file in the media directory",
    "create NAME CLIP... | write NAME JSON | rename OLD NEW | delete NAME",
    "Works on the files only; run 'vorta scan' afterwards to refresh the shared\n"
    "playlist cache. Every NAME gets .playlist added where it lacks it, and may\n"
    "be an absolute path inside the media directory. 'create' writes a new\n"
    "one-line JSON playlist {\"name\":NAME,\"cliplist\":[CLIP,...]} at once (a\n"
    "temporary file renamed into place, so no process ever reads half of it),\n"
    "refusing an existing name unless --replace; this is the tool's own writer.\n"
    "The others do what the recorder does: 'write' only opens files that exist,\n"
    "with the C mode \"rw\", which is read-only, so an existing file is left\n"
    "unchanged; 'rename' only between names that both resolve under a ZEV\n"
    "directory; 'delete' deletes the named file.",
    mediaOptions({{"replace", "", "create: write over an existing playlist"}, {"json", "", "print JSON"}}),
    run,
    2,
};
VORTA_REGISTER_COMMAND(kPlaylist);

}  // namespace
