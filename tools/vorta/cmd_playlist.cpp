// SPDX-License-Identifier: MIT
// vorta playlist: write, rename and delete playlist files in the media directory.
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

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  if (action != "write" && action != "rename" && action != "delete")
    throw UsageError("unknown action '" + action + "' (write, rename or delete)");
  MediaSession session(in, false);
  ClipFinder& finder = session.finder();

  if (action == "write") {
    if (args.size() != 3) throw UsageError("'write' takes a file name and the JSON text");
    const std::string dir = mediaDirOf(session.params());
    std::string name = args[1];
    std::string text = args[2];
    if (::access((dir + "/" + name).c_str(), F_OK) != 0)
      throw Failure("refused: " + dir + "/" + name +
                    " does not exist (the recorder only writes existing files)");
    if (!finder.writePlaylist(name, text)) throw Failure("could not open " + dir + "/" + name);
    // The recorder's writer opens the file read-only (its "rw" mode), so
    // the text does not reach it; say so rather than pretend.
    std::cout << dir << "/" << name << ": opened; the recorder's playlist writer leaves the file as it was\n";
    return 0;
  }
  if (action == "rename") {
    if (args.size() != 3) throw UsageError("'rename' takes the old and the new file name");
    const std::string dir = mediaDirOf(session.params());
    for (const std::string& name : {args[1], args[2]}) {
      const std::string real = realPath(dir + "/" + name);
      if (real.empty())
        throw Failure("refused: " + dir + "/" + name + " does not exist (both names must resolve)");
      if (real.find("ZEV") == std::string::npos)
        throw Failure("refused: " + real + " is not under a ZEV directory");
    }
    if (!finder.renamePlaylist(args[1], args[2])) throw Failure("the rename failed");
    return 0;
  }
  if (action == "delete") {
    if (args.size() != 2) throw UsageError("'delete' takes one file name");
    const std::string dir = mediaDirOf(session.params());
    if (!finder.deletePlaylist(args[1])) throw Failure("could not delete " + dir + "/" + args[1]);
    return 0;
  }
  return 0;
}

const Command kPlaylist{
    "playlist",
    "write, rename or delete a playlist file in the media directory",
    "write NAME JSON | rename OLD NEW | delete NAME",
    "Works on the files only, as the recorder does; run 'vorta scan' afterwards\n"
    "to refresh the shared playlist cache. The recorder writes only files that\n"
    "exist, renames only between names that both resolve under a ZEV directory\n"
    "(adding .playlist where a name lacks it), and deletes the named file.\n"
    "Note that the recorder's writer opens the file with the C mode \"rw\",\n"
    "which is read-only: an existing file is left unchanged.",
    mediaOptions({}),
    run,
    2,
    3,
};
VORTA_REGISTER_COMMAND(kPlaylist);

}  // namespace
