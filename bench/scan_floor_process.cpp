// SPDX-License-Identifier: MIT
// Benchmark helper: the I/O floor of a scan as a process of its own, for the whole-process figures.
//
//   scan_floor_process DIR
//
// Reads the directory once and, for every clip candidate in it, makes what
// the scan's intake must at the least (bench_support::readerFloor). A
// process that links nothing but the movie reader: what a whole `vorta
// scan` process is measured against.
#include <dirent.h>

#include <cstdio>
#include <string>

#include "reader_floor.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: scan_floor_process DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  std::size_t bytes = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const std::string path = dir + "/" + e->d_name;
    if (path.find(".mov") != std::string::npos || path.find(".MOV") != std::string::npos)
      bytes += bench_support::readerFloor(path);
  }
  closedir(d);
  return bytes > 0 ? 0 : 1;
}
