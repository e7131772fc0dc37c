// Small dense 3 x 3 linear algebra by cofactors: the determinant averaged over the
// three column expansions, the inverse from the adjugate, and a solver with iterative
// refinement. A singular matrix gives the zero solution instead of a failure.
// Matrices are column major: a[i + 3 * j] is row i, column j.
#pragma once

#include <cmath>

namespace elfes {

/// Cofactors c[i + 3j] = (-1)^(i+j) minor(i, j) of a; returns the determinant as the
/// mean of the three column expansions sum_i a(i, j) c(i, j), which evens out their
/// rounding.
inline double cofactors3(const double* a, double* c) {
  c[0] = a[4] * a[8] - a[7] * a[5];
  c[1] = a[6] * a[5] - a[3] * a[8];
  c[2] = a[3] * a[7] - a[6] * a[4];
  c[3] = a[7] * a[2] - a[1] * a[8];
  c[4] = a[0] * a[8] - a[6] * a[2];
  c[5] = a[6] * a[1] - a[0] * a[7];
  c[6] = a[1] * a[5] - a[4] * a[2];
  c[7] = a[3] * a[2] - a[0] * a[5];
  c[8] = a[0] * a[4] - a[3] * a[1];
  const double by_column0 = a[0] * c[0] + a[1] * c[1] + a[2] * c[2];
  const double by_column1 = a[3] * c[3] + a[4] * c[4] + a[5] * c[5];
  const double by_column2 = a[6] * c[6] + a[7] * c[7] + a[8] * c[8];
  return (by_column0 + by_column1 + by_column2) * 0.3333333333333333;
}

/// 1 / det, or 0 for an exactly singular matrix.
inline double inverse_determinant(double det) { return det != 0 ? 1.0 / det : 0.0; }

/// y = adj(a) v * scale, adj(a)(i, j) being the cofactor c(j, i).
inline void adjugate_times(const double* c, const double* v, double scale, double* y) {
  for (unsigned i = 0; i < 3; ++i) y[i] = (c[3 * i] * v[0] + c[3 * i + 1] * v[1] + c[3 * i + 2] * v[2]) * scale;
}

/// The inverse of a from its adjugate, inv[i + 3j]; the adjugate itself when the
/// determinant is exactly 0. Returns the determinant.
inline double inverse3(const double* a, double* inv) {
  double c[9];
  const double det = cofactors3(a, c);
  const double scale = det != 0 ? 1.0 / det : 1.0;
  for (unsigned i = 0; i < 3; ++i)
    for (unsigned j = 0; j < 3; ++j) inv[i + 3 * j] = c[j + 3 * i] * scale;
  return det;
}

/// Solves a x = b by the adjugate, then refines at most `refinements` times
/// (r = b - a x, x += adj(a) r / det), stopping once every |dx_i| <= 1e-12 |x_i|.
/// A singular a (det exactly 0) gives x = 0. Returns the determinant.
inline double solve3(const double* a, const double* b, double* x, unsigned refinements) {
  double c[9];
  const double det = cofactors3(a, c);
  const double inv_det = inverse_determinant(det);
  adjugate_times(c, b, inv_det, x);
  for (unsigned round = 0; round < refinements; ++round) {
    double r[3], dx[3];
    for (unsigned i = 0; i < 3; ++i) r[i] = b[i] - (a[i] * x[0] + a[i + 3] * x[1] + a[i + 6] * x[2]);
    adjugate_times(c, r, inv_det, dx);
    bool small = true;
    for (unsigned i = 0; i < 3; ++i) {
      x[i] += dx[i];
      if (!(std::fabs(dx[i]) <= 1e-12 * std::fabs(x[i]))) small = false;
    }
    if (small) break;
  }
  return det;
}

}  // namespace elfes
