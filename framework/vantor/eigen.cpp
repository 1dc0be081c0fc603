// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: the threshold Jacobi eigen solver for 3 x 3 symmetric matrices.
#include "vantor/eigen.hpp"

#include <cmath>

namespace Vantor {

namespace {

// Annihilates a[p][q] (p != q) of the symmetric matrix a by one Jacobi rotation and accumulates
// the rotation into the columns p and q of v (the Numerical Recipes formulation).
void rotate(double a[3][3], double v[3][3], int p, int q) {
  const double apq = a[p][q];
  const double theta = (a[q][q] - a[p][p]) / (2.0 * apq);
  // For a huge theta, theta^2 would overflow; t is then 1 / (2 theta) to working precision.
  const double t =
      std::fabs(theta) > 1e150
          ? 1.0 / (2.0 * theta)
          : (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
  const double c = 1.0 / std::sqrt(t * t + 1.0);
  const double s = t * c;

  a[p][p] -= t * apq;
  a[q][q] += t * apq;
  a[p][q] = a[q][p] = 0.0;
  for (int r = 0; r < 3; ++r) {
    if (r == p || r == q)
      continue;
    const double arp = a[r][p], arq = a[r][q];
    a[r][p] = a[p][r] = c * arp - s * arq;
    a[r][q] = a[q][r] = s * arp + c * arq;
  }
  for (int r = 0; r < 3; ++r) {
    const double vrp = v[r][p], vrq = v[r][q];
    v[r][p] = c * vrp - s * vrq;
    v[r][q] = s * vrp + c * vrq;
  }
}

} // namespace

template <>
void UnsortedEigenVectors<3, double>(LowerTriangular<3, double>& A, Quadratic<3, double>& V,
                                     Row<3, double>& values, double precision) {
  double a[3][3], v[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      a[i][j] = A(i, j);

  const double S =
      2.0 * (a[1][0] * a[1][0] + a[2][0] * a[2][0]) + a[2][1] * a[2][1] + a[1][1] * a[1][1];
  const double t0 = std::sqrt(2.0 * S);
  const double finalThreshold = precision * t0 / 3.0;
  bool finite = true;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      finite = finite && std::isfinite(a[i][j]);

  if (finite && S > 0.0 && t0 > finalThreshold) {
    static constexpr int pairs[3][2] = {{1, 0}, {2, 0}, {2, 1}};
    double t = t0;
    do {
      t /= 3.0;
      // Each sweep zeroes the pairs it rotates; the bound only guards against rounding cycles.
      for (int sweep = 0; sweep < 64; ++sweep) {
        bool rotated = false;
        for (const auto& pq : pairs)
          if (a[pq[0]][pq[1]] != 0.0 && std::fabs(a[pq[0]][pq[1]]) >= t) {
            rotate(a, v, pq[0], pq[1]);
            rotated = true;
          }
        if (!rotated)
          break;
      }
    } while (t > finalThreshold);
  }

  for (int i = 0; i < 3; ++i) {
    values[i] = a[i][i];
    for (int j = 0; j < 3; ++j) {
      V(i, j) = v[i][j];
      if (j <= i)
        A(i, j) = a[i][j];
    }
  }
}

} // namespace Vantor
