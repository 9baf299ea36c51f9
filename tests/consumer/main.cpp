// A program of another project using the installed library.
#include <vorta/clip.h>
#include <vorta/textconv.h>

#include <cstdio>

int main() {
  char display[4];
  strncpyasutf8_map_cp437(display, "\xC3\xA9", 2, sizeof display);
  const int take = Clip::extractTake("SHOT_TK12.mov");
  std::printf("take %d, first display byte %d\n", take, static_cast<unsigned char>(display[0]));
  return (take == 12 && static_cast<unsigned char>(display[0]) == 130) ? 0 : 1;
}
