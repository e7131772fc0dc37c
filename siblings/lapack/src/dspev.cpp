// Thin call into the Fortran LAPACK routine.
#include <cstddef>

#include "zel/lapack.h"

extern "C" void dspev_(const char* jobz, const char* uplo, const int* n, double* ap, double* w, double* z,
                       const int* ldz, double* work, int* info, std::size_t jobz_len, std::size_t uplo_len);

namespace zel {
namespace lapack {
namespace {

bool is(char c, char upper) { return c == upper || c == upper - 'A' + 'a'; }

// LAPACK's own argument check reports through XERBLA, which prints and may stop the
// process: the arguments are checked here first, in the same order with the same codes.
int check_arguments(char jobz, char uplo, int n, int ldz) {
  const bool vectors = is(jobz, 'V');
  if (!vectors && !is(jobz, 'N')) return -1;
  if (!is(uplo, 'U') && !is(uplo, 'L')) return -2;
  if (n < 0) return -3;
  if (ldz < 1 || (vectors && ldz < n)) return -7;
  return 0;
}

}  // namespace

void dspev(char jobz, char uplo, int n, double* ap, double* w, double* z, int ldz, double* work, int& info) {
  info = check_arguments(jobz, uplo, n, ldz);
  if (info != 0) return;
  dspev_(&jobz, &uplo, &n, ap, w, z, &ldz, work, &info, 1, 1);
}

}  // namespace lapack
}  // namespace zel
