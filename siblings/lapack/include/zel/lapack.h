// zel LAPACK wrapper: the one routine the mesh libraries need.
#pragma once

#include "zel/zel_lapack_export.h"

namespace zel {
namespace lapack {

/// Eigenvalues (ascending) and optionally orthonormal eigenvectors of a real symmetric
/// n x n matrix in packed storage, by the system LAPACK's DSPEV.
/// @param jobz  'N' eigenvalues only, 'V' eigenvalues and eigenvectors
/// @param uplo  'U' upper triangle packed by columns (a11, a12, a22, a13, ...), 'L' lower
/// @param ap    n(n+1)/2 packed values; overwritten
/// @param w     n eigenvalues, ascending
/// @param z     ldz x n eigenvectors by column when jobz is 'V' (not referenced for 'N')
/// @param work  3n scratch values
/// @param info  0 on success; -i when argument i is invalid (checked by the wrapper, in
///              LAPACK's order: -1 jobz, -2 uplo, -3 n < 0, -7 ldz < 1 or, for 'V', ldz < n;
///              nothing is computed or printed then); > 0 when the iteration failed
ZEL_LAPACK_EXPORT void dspev(char jobz, char uplo, int n, double* ap, double* w, double* z, int ldz, double* work,
                             int& info);

}  // namespace lapack
}  // namespace zel
