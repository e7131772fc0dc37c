// Interpolation of metrics: the two-metric interpolation `mix` (simultaneous reduction
// of both tensors, then linear interpolation of the sizes 1 / sqrt(eigenvalue) in the
// common basis) and the weighted combinations of the four metrics or sizes of a TH4.
// Metrics are packed upper by columns: M11, M12, M22, M13, M23, M33.
#pragma once

#include <cfloat>
#include <cmath>

#include "locate/solve3.h"
#include "zel/lapack.h"
#include "zel/matrix.h"

namespace elfes {

using metric6 = zel::symmetric_fixed<double, 3>;

/// A weight w is negligible when |w| < 1e-12; the share left after k weights when
/// |1 - their sum| < sqrt(k) x 1e-12.
constexpr double negligible_weight = 1e-12;
constexpr double negligible_share[4] = {1e-12, 1e-12, 1.4142135623730952e-12, 1.7320508075688772e-12};

/// e^T M e for packed M.
inline double quadratic_form(const double* m, const double* e) {
  return m[0] * e[0] * e[0] + 2 * m[1] * e[0] * e[1] + m[2] * e[1] * e[1] + 2 * m[3] * e[0] * e[2] +
         2 * m[4] * e[1] * e[2] + m[5] * e[2] * e[2];
}

/// True when the smallest eigenvalue of packed m (by dspev) is strictly positive.
inline bool metric_is_valid(const double* m) {
  double ap[6], w[3], unused[9], work[9];
  for (unsigned k = 0; k < 6; ++k) ap[k] = m[k];
  int info = 0;
  zel::lapack::dspev('N', 'U', 3, ap, w, unused, 3, work, info);
  return info == 0 && w[0] > 0;
}

/// True when 0 < value < DBL_MAX (a usable size or diagonal value).
inline bool in_open_range(double value) { return value > 0 && value < DBL_MAX; }

/// Cholesky factor A = L L^T of packed a, l = (L11, L21, L22, L31, L32, L33); false
/// unless a is positive definite.
inline bool cholesky3(const double* a, double* l) {
  if (!(a[0] > 0)) return false;
  const double l11 = std::sqrt(a[0]);
  const double l21 = a[1] / l11, l31 = a[3] / l11;
  const double d2 = a[0] * a[2] - a[1] * a[1];
  if (!(d2 > 0)) return false;
  const double root_d2 = std::sqrt(d2);
  const double l22 = root_d2 / l11;
  const double l32 = (a[4] * a[0] - a[3] * a[1]) / (root_d2 * l11);
  const double rest = a[5] - l31 * l31 - l32 * l32;
  if (!(rest >= 0)) return false;
  const double l33 = std::sqrt(rest);
  if (l11 * l22 * l33 == 0) return false;
  l[0] = l11, l[1] = l21, l[2] = l22, l[3] = l31, l[4] = l32, l[5] = l33;
  return true;
}

/// The metric that moves from a (t = 0) to b (t = 1), linear in the sizes along the
/// basis that diagonalises both. For t outside [0, 1] the sizes must stay in
/// (0, DBL_MAX), else out is zero. Fails (false) when a is not positive definite, the
/// eigen solver fails, or a diagonal value of a or b leaves (0, DBL_MAX).
inline bool mix(const metric6& a, const metric6& b, double t, metric6& out) {
  const double* A = a.data();
  const double* B = b.data();
  double l[6];
  if (!cholesky3(A, l)) return false;
  // G = adj(L), lower triangular: the congruence needs no division by det L.
  double g[9] = {};  // column major
  g[0] = l[2] * l[5];
  g[1] = -l[1] * l[5];
  g[2] = l[1] * l[4] - l[2] * l[3];
  g[4] = l[0] * l[5];
  g[5] = -l[0] * l[4];
  g[8] = l[0] * l[2];
  // C = G B G^T, packed upper.
  const double full_b[9] = {B[0], B[1], B[3], B[1], B[2], B[4], B[3], B[4], B[5]};
  double gb[9];
  for (unsigned i = 0; i < 3; ++i)
    for (unsigned j = 0; j < 3; ++j)
      gb[i + 3 * j] = g[i] * full_b[3 * j] + g[i + 3] * full_b[1 + 3 * j] + g[i + 6] * full_b[2 + 3 * j];
  double c[6];
  for (unsigned k = 0, idx = 0; k < 3; ++k)
    for (unsigned j = 0; j <= k; ++j, ++idx) c[idx] = gb[j] * g[k] + gb[j + 3] * g[k + 3] + gb[j + 6] * g[k + 6];

  double mu[3], z[9], work[9];
  int info = 0;
  zel::lapack::dspev('V', 'U', 3, c, mu, z, 3, work, info);
  if (info != 0) return false;
  const double det_l = l[0] * l[2] * l[5];
  const double to_generalised = 1.0 / (det_l * det_l);
  for (double& m : mu) m *= to_generalised;
  // A rotation: z3 = z1 x z2.
  z[6] = z[1] * z[5] - z[2] * z[4];
  z[7] = z[2] * z[3] - z[0] * z[5];
  z[8] = z[0] * z[4] - z[1] * z[3];

  // e_i = G^T z_i, the columns of E.
  double e[9];
  for (unsigned i = 0; i < 3; ++i) {
    const double* zi = z + 3 * i;
    double* ei = e + 3 * i;
    for (unsigned r = 0; r < 3; ++r) ei[r] = g[3 * r] * zi[0] + g[3 * r + 1] * zi[1] + g[3 * r + 2] * zi[2];
    const double length2 = ei[0] * ei[0] + ei[1] * ei[1] + ei[2] * ei[2];
    if (length2 != 0 && length2 != 1) {
      const double inv = 1.0 / std::sqrt(length2);
      for (unsigned r = 0; r < 3; ++r) ei[r] *= inv;
    }
  }
  double q[9];
  inverse3(e, q);

  double diag_a[3], diag_b[3], h[3];
  for (unsigned i = 0; i < 3; ++i) {
    diag_a[i] = quadratic_form(A, e + 3 * i);
    diag_b[i] = mu[i] * diag_a[i];
  }
  for (unsigned i = 0; i < 3; ++i)
    if (!in_open_range(diag_a[i]) || !in_open_range(diag_b[i])) return false;
  for (unsigned i = 0; i < 3; ++i) {
    const double ha = 1.0 / std::sqrt(diag_a[i]), hb = 1.0 / std::sqrt(diag_b[i]);
    h[i] = ha + t * (hb - ha);
  }
  if (t < 0 || t > 1) {
    const double smallest = std::fmin(std::fmin(h[0], h[1]), h[2]);
    const double largest = std::fmax(std::fmax(h[0], h[1]), h[2]);
    if (!(smallest > 0) || !(largest < DBL_MAX)) {
      out = metric6();
      return false;
    }
  }
  // d_i = 1 / h_i^2, saturated per size outside (2^-511, 2^512) where the square would
  // underflow or overflow.
  constexpr double tiny = 1.4916681462400413e-154, huge = 1.3407807929942596e154;
  double d[3];
  const bool plain = h[0] > tiny && h[0] < huge && h[1] > tiny && h[1] < huge && h[2] > tiny && h[2] < huge;
  for (unsigned i = 0; i < 3; ++i)
    d[i] = plain ? 1.0 / (h[i] * h[i]) : h[i] <= tiny ? DBL_MAX : h[i] > huge ? 0.0 : 1.0 / (h[i] * h[i]);
  // out = Q^T diag(d) Q.
  for (unsigned k = 0, idx = 0; k < 3; ++k)
    for (unsigned j = 0; j <= k; ++j, ++idx)
      out[idx] = q[3 * j] * q[3 * k] * d[0] + q[1 + 3 * j] * q[1 + 3 * k] * d[1] + q[2 + 3 * j] * q[2 + 3 * k] * d[2];
  return true;
}

/// One stage of a chain: x when t is negligible, y when 1 - t is (y gathering
/// nb_in_y weights), else mix(x, y, t).
inline bool mix_stage(const metric6& x, const metric6& y, double t, unsigned nb_in_y, metric6& out) {
  if (std::fabs(t) < negligible_weight) {
    out = x;
    return true;
  }
  if (std::fabs(1 - t) < negligible_share[nb_in_y]) {
    out = y;
    return true;
  }
  return mix(x, y, t, out);
}

/// Which of the four barycentric weights take part: lambda0..2 unless negligible,
/// lambda3 unless the share left after the others that take part is negligible.
inline void significant_weights(const double* lambda, bool* significant) {
  unsigned count = 0;
  double sum = 0;
  for (unsigned i = 0; i < 3; ++i) {
    significant[i] = !(std::fabs(lambda[i]) < negligible_weight);
    if (significant[i]) {
      sum += lambda[i];
      ++count;
    }
  }
  significant[3] = !(std::fabs(1 - sum) < negligible_share[count]);
}

/// The metric at barycentric weights lambda[0..3] (lambda3 = 1 - the others) of four
/// node metrics: M01 = mix(M0, M1, l1 / (l0 + l1)), M012 = mix(M2, M01, (l0 + l1) /
/// (l0 + l1 + l2)), M = mix(M3, M012, l0 + l1 + l2), nodes with negligible weights left
/// out (the stages renormalised over the others) and a lone node copied.
/// False (out unspecified) when a mix fails.
inline bool combine_metrics(const metric6* m, const double* lambda, metric6& out) {
  bool significant[4];
  significant_weights(lambda, significant);
  metric6 acc;
  double weight = 0;
  unsigned nb = 0;  // weights gathered in acc
  for (unsigned i = 0; i < 4; ++i) {
    if (!significant[i]) continue;
    if (nb == 0) {
      acc = m[i];
      weight = lambda[i];
      nb = 1;
      continue;
    }
    metric6 next;
    bool ok;
    if (i == 1) {
      ok = mix_stage(acc, m[1], lambda[1] / (lambda[0] + lambda[1]), 1, next);
    } else {
      const double t = i == 3 && nb == 3 ? weight : weight / (weight + lambda[i]);
      ok = mix_stage(m[i], acc, t, nb, next);
    }
    if (!ok) return false;
    acc = next;
    weight += lambda[i];
    ++nb;
  }
  out = acc;
  return true;
}

/// The size at barycentric weights lambda[0..3] of four node sizes: the highest node
/// taking part is the base, h = h_base + sum lambda_i (h_i - h_base) over the others
/// (ascending). False when a size taking part is not > 0 or the result leaves (0, DBL_MAX).
inline bool combine_sizes(const double* size, const double* lambda, double& out) {
  bool significant[4];
  significant_weights(lambda, significant);
  unsigned base = 3;
  while (!significant[base]) --base;
  const double hb = size[base];
  if (!(hb > 0)) return false;
  double h = hb;
  for (unsigned i = 0; i < base; ++i) {
    if (!significant[i]) continue;
    if (!(size[i] > 0)) return false;
    h += lambda[i] * (size[i] - hb);
  }
  if (!in_open_range(h)) return false;
  out = h;
  return true;
}

// The list 0 ... #nodes - 1 for the metric overloads without one; false when out of memory.
inline bool every_node(const zel::dense2D<double>& coords, zel::dense1D<unsigned, 8>& nodes) {
  if (!nodes.resize(coords.cols())) return false;
  for (std::size_t n = 0; n < nodes.size(); ++n) nodes[n] = static_cast<unsigned>(n);
  return true;
}

}  // namespace elfes
