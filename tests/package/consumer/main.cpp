// A user's program: flips a tetrahedron twice and checks where its nodes went.
#include <cstdio>
#include <cstring>

#include <zel/tessel3d.h>

int main() {
  zel::dense2D<unsigned> tet(4, 1, {10, 11, 12, 13});
  if (zel::tessel3d::flip(tet, zel::TH4) != 0) return 1;
  const bool flipped = tet(0, 0) == 12 && tet(2, 0) == 10;
  if (zel::tessel3d::flip_TH4(tet) != 0) return 2;
  const bool flipped_again = tet(0, 0) == 11 && tet(1, 0) == 12;
  std::printf("tessel3d %s: flips %s\n", zel::tessel3d::version(), flipped && flipped_again ? "ok" : "wrong");
  return (std::strcmp(zel::tessel3d::version(), "5.5.0.0") == 0 && flipped && flipped_again) ? 0 : 3;
}
