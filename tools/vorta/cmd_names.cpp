// SPDX-License-Identifier: MIT
// vorta next-name, after-delete: the next recording's clip name, and the clip made current after deletes.
#include <set>

#include "cli.h"
#include "media_options.h"

namespace {

using namespace vorta::cli;

int runNextName(Invocation& in) {
  MediaSession session(in, in.flag("advance"), CacheUse::Existing);
  ClipFinder& finder = session.finder();
  std::list<Clip> clips = finder.findClips(true, false, true);
  std::string name;
  int result;
  if (in.flag("advance")) {
    // As before a recording: keep the take above every take on the medium,
    // build the name, then move the take on for the recording after it.
    finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
    result = finder.buildClipName(name, &clips);
    if (result == 0) finder.incrementTakeIfAppropriate();
  } else {
    result = finder.buildClipName(name, &clips);
  }
  if (result != 0) {
    if (name.empty()) throw Failure("no clip name can be made: the master's take is used up (999)");
    throw Failure("takes are used up: " + name + " is already on the medium and 999 is the last take");
  }
  emit(in, JsonObject().set("name", text(name)).set("take", integer(Clip::extractTake(name))), name);
  return 0;
}

const Command kNextName{
    "next-name",
    "print the clip name the next recording gets",
    "",
    "Builds the name from the naming parameters (vorta param list): a slave\n"
    "unit follows the master's name, a camera name (RED) is used as it is, a\n"
    "custom name gets its custom take, otherwise SC/Clip, number, letter, TK\n"
    "and the take. The clips in the shared catalogue decide whether the take\n"
    "is used up. With --advance the take is first moved above every matching\n"
    "take on the medium and then on by one for the recording after this one,\n"
    "as the recorder does when it starts recording.",
    mediaOptions({{"advance", "", "move the take on as a recording would"}}, {jsonOption()}),
    runNextName,
    0,
    0,
};
VORTA_REGISTER_COMMAND(kNextName);

int runAfterDelete(Invocation& in) {
  MediaSession session(in, false, CacheUse::Existing);
  const auto& args = in.args();
  const std::set<std::string> deleted(args.begin() + 1, args.end());
  const std::string next = session.finder().NextClipNameAfterDelete(
      session.finder().findClips(true, false, true), args[0], deleted);
  emit(in, JsonObject().set("current", text(next)), next);
  return 0;
}

const Command kAfterDelete{
    "after-delete",
    "print the clip that becomes current after clips are deleted",
    "CURRENT DELETED...",
    "The next clip of the catalogue after CURRENT that was not deleted,\n"
    "wrapping to the first one; CURRENT itself when it was not deleted; N/A\n"
    "when no clip is left.",
    mediaOptions({}, {jsonOption()}),
    runAfterDelete,
    2,
};
VORTA_REGISTER_COMMAND(kAfterDelete);

}  // namespace
