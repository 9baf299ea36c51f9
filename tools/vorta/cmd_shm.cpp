// SPDX-License-Identifier: MIT
// vorta shm: publish, change and read a text shared between processes.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "shmstring.h"

namespace {

using namespace vorta::cli;

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

// The owner: creates the segment and holds it until SIGINT or SIGTERM, as a
// resident process would; the name is removed when it stops.
int create(Invocation& in, const std::string& name, const std::string& capacityText) {
  const int capacity = static_cast<int>(parseInteger(capacityText, 1, ShmString::kMaxCapacity, "CAPACITY"));
  // Block the stop signals first, so that one arriving early is waited for, not fatal.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigprocmask(SIG_BLOCK, &stop, nullptr);

  ShmString shm(name.c_str());
  if (!shm.create(capacity)) {
    // Another process owns the name and still runs: its text is left alone.
    if (ShmString::hasLiveOwner(name.c_str())) {
      warn("shm", name + " is owned by a running process; not taken over");
      return 1;
    }
    throw Failure("cannot create the shared string " + name);
  }
  const std::string text = in.value("text").value_or("");
  shm.set(text.c_str());
  std::vector<char> held(static_cast<std::size_t>(capacity));
  shm.get(held.data(), capacity);

  say("holding " + name + ": capacity " + std::to_string(capacity) + " bytes, owner pid " +
      std::to_string(getpid()));
  say("text: " + quoted(held.data()));
  say("waiting for SIGINT or SIGTERM (Ctrl-C, or kill -TERM " + std::to_string(getpid()) + ")");
  std::cout.flush();
  int sig = 0;
  sigwait(&stop, &sig);
  shm.get(held.data(), capacity);
  shm.close();
  say("signal " + std::to_string(sig) + ": removed " + name + ", last text " + quoted(held.data()));
  return 0;
}

int set(Invocation& in, const std::string& name, const std::string& text) {
  ShmString shm(name.c_str());
  if (!shm.set(text.c_str())) throw Failure("no shared string " + name + " (is 'vorta shm create' running?)");
  const int capacity = shm.capacity();
  const std::size_t stored = std::min(text.size(), static_cast<std::size_t>(capacity - 1));
  emit(in,
       JsonObject()
           .set("name", vorta::cli::text(name))
           .set("capacity", integer(capacity))
           .set("length", integer(static_cast<long long>(text.size())))
           .set("stored", integer(static_cast<long long>(stored))),
       "stored " + std::to_string(stored) + " of " + std::to_string(text.size()) + " characters in " + name +
           " (capacity " + std::to_string(capacity) + ")" +
           (stored < text.size() ? ": cut to capacity - 1" : ""));
  return 0;
}

int get(Invocation& in, const std::string& name) {
  ShmString shm(name.c_str());
  if (!shm.attach(false, 0)) throw Failure("no shared string " + name + " (is 'vorta shm create' running?)");
  const int capacity = shm.capacity();
  const int size = static_cast<int>(in.integer("size", capacity, 1, ShmString::kMaxCapacity));
  const bool ownerAlive = shm.isOwnerAlive();
  std::vector<char> text(static_cast<std::size_t>(size));
  const int result = shm.get(text.data(), size);
  if (result < 0) throw Failure("cannot read the shared string " + name);
  emit(in,
       JsonObject()
           .set("name", vorta::cli::text(name))
           .set("text", vorta::cli::text(text.data()))
           .set("result", integer(result))
           .set("capacity", integer(capacity))
           .set("ownerAlive", flag(ownerAlive)),
       text.data());
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  if (action == "create") {
    if (args.size() != 3) throw UsageError("'create' takes a name and a capacity");
    return create(in, args[1], args[2]);
  }
  if (action == "set") {
    if (args.size() != 3) throw UsageError("'set' takes a name and a text");
    return set(in, args[1], args[2]);
  }
  if (action == "get") {
    if (args.size() != 2) throw UsageError("'get' takes a name");
    return get(in, args[1]);
  }
  throw UsageError("unknown action '" + action + "' (create, set or get)");
}

const Command kShm{
    "shm",
    "publish, change and read a text shared between processes",
    "create NAME CAPACITY | set NAME TEXT | get NAME",
    "A shared string lives in POSIX shared memory under NAME (e.g. /status).\n"
    "'create' makes it as its owner, with room for CAPACITY - 1 characters, and\n"
    "holds it until SIGINT or SIGTERM, then removes the name; it refuses (exit\n"
    "status 1) a name whose owner still runs. 'set' and 'get'\n"
    "attach as readers from other processes; a longer text is cut. 'get --size N'\n"
    "reads into N bytes: the result (--json) is the text's length, or N when the\n"
    "text was cut, one more than what is shown. Any process that detaches clears\n"
    "the owner's pid in the segment, readers too (on purpose: the others then\n"
    "re-attach), so 'ownerAlive' is false after the first reader has gone.",
    {{"text", "TEXT", "create: the text to start with"},
     {"size", "N", "get: read into N bytes instead of the whole capacity"},
     {"json", "", "set, get: print JSON"}},
    run,
    1,
    3,
};
VORTA_REGISTER_COMMAND(kShm);

}  // namespace
