// tessel3d demo: builds a small mesh itself and shows what the library does with it.
#include <cstdio>

#include <zel/tessel3d.h>

namespace t3 = zel::tessel3d;

static void print_columns(const char* title, const zel::dense2D<unsigned>& connect) {
  std::printf("%s\n", title);
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    std::printf("  element %zu:", j);
    for (std::size_t i = 0; i < connect.rows(); ++i) std::printf(" %u", connect(i, j));
    std::printf("\n");
  }
}

int main() {
  std::printf("tessel3d %s demo\n", t3::version());
  // Two hexahedra side by side: nodes 0-3 and 6-9 on x = 0 and 1, 4-5 and 10-11 on x = 2.
  zel::dense2D<unsigned> hexa(8, 2, {0, 1, 2, 3, 6, 7, 8, 9, 1, 4, 5, 2, 7, 10, 11, 8});
  // Unit cubes: bottom nodes 0-5 at z = 0, top nodes 6-11 above them at z = 1.
  zel::dense2D<double> coords(3, 12);
  const double xy[6][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}, {2, 0}, {2, 1}};
  for (unsigned n = 0; n < 12; ++n) {
    coords(0, n) = xy[n % 6][0];
    coords(1, n) = xy[n % 6][1];
    coords(2, n) = n / 6;
  }
  double v = 0;
  print_columns("two H8 elements:", hexa);
  t3::volume(coords, hexa, v);
  std::printf("signed volume: %g\n", v);
  t3::flip(hexa, zel::H8);
  print_columns("after flip(H8) (rows 0<->2 and 4<->6 exchanged, orientation reversed):", hexa);
  t3::volume(coords, hexa, v);
  std::printf("signed volume: %g\n", v);
  t3::flip_H8(hexa);
  print_columns("after flip_H8 (bottom and top quadrangles exchanged):", hexa);
  t3::volume(coords, hexa, v);
  std::printf("signed volume: %g\n", v);
  return 0;
}
