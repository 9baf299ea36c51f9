// SPDX-License-Identifier: MIT
// A program of another project using the installed library and its parameter service.
#include <vorta/clip.h>
#include <vorta/paramstore.h>
#include <vorta/textconv.h>

#include <cstdio>

int main() {
  char display[4];
  strncpyasutf8_map_cp437(display, "\xC3\xA9", 2, sizeof display);
  const int take = Clip::extractTake("SHOT_TK12.mov");
  // The parameter service is part of the library's interface: a program
  // makes its own store and hands it to the library's classes.
  MemoryParamStore params;
  params.setParam(eParamTake, 7);
  const unsigned stored = params.getParam(eParamTake);
  std::printf("take %d, first display byte %d, stored take %u\n", take,
              static_cast<unsigned char>(display[0]), stored);
  return (take == 12 && static_cast<unsigned char>(display[0]) == 130 && stored == 7) ? 0 : 1;
}
