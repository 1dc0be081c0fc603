// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: small matrices and the symmetric eigen solver.
#pragma once

namespace Vantor {

// A symmetric N x N matrix stored as its lower triangle, row by row: for N = 3 the six values
// a00, a10, a11, a20, a21, a22.
template <int N, class T>
struct LowerTriangular {
  T values[N * (N + 1) / 2]{};

  // Element (i, j) of the symmetric matrix, either triangle.
  T& operator()(int i, int j) { return i >= j ? values[i * (i + 1) / 2 + j] : (*this)(j, i); }
  const T& operator()(int i, int j) const {
    return i >= j ? values[i * (i + 1) / 2 + j] : (*this)(j, i);
  }
};

// An N x N matrix, row-major.
template <int N, class T>
struct Quadratic {
  T values[N * N]{};

  T& operator()(int row, int column) { return values[row * N + column]; }
  const T& operator()(int row, int column) const { return values[row * N + column]; }
};

// A row of N values.
template <int N, class T>
struct Row {
  T values[N]{};

  T& operator[](int i) { return values[i]; }
  const T& operator[](int i) const { return values[i]; }
};

// Eigenvalues and eigenvectors of a symmetric matrix by the threshold Jacobi method. A is
// destroyed (it ends nearly diagonal). values[k] is the k-th diagonal entry of the rotated
// matrix, in matrix order, not sorted; its eigenvector is column k of V: (V(0,k), V(1,k),
// V(2,k)), unit length, the columns orthonormal.
//
// The threshold starts at t0 = sqrt(2 S), S = 2 (a10^2 + a20^2) + a21^2 + a11^2 (the diagonal
// a11 in the place of a second a21^2 only shapes the threshold schedule), and is divided by 3
// per level; at each level the off-diagonal pairs (1,0), (2,0), (2,1) whose magnitude reaches
// the threshold are annihilated, sweep after sweep until none is, down to precision * t0 / 3.
// A matrix with S not above 0, or with non-finite entries, is left unrotated (V the identity).
template <int N, class T>
void UnsortedEigenVectors(LowerTriangular<N, T>& A, Quadratic<N, T>& V, Row<N, T>& values,
                          double precision);

template <>
void UnsortedEigenVectors<3, double>(LowerTriangular<3, double>& A, Quadratic<3, double>& V,
                                     Row<3, double>& values, double precision);

} // namespace Vantor
