// Thin call into the Fortran LAPACK routine.
#include <cstddef>

#include "zel/lapack.h"

extern "C" void dspev_(const char* jobz, const char* uplo, const int* n, double* ap, double* w, double* z,
                       const int* ldz, double* work, int* info, std::size_t jobz_len, std::size_t uplo_len);

namespace zel {
namespace lapack {

void dspev(char jobz, char uplo, int n, double* ap, double* w, double* z, int ldz, double* work, int& info) {
  dspev_(&jobz, &uplo, &n, ap, w, z, &ldz, work, &info, 1, 1);
}

}  // namespace lapack
}  // namespace zel
