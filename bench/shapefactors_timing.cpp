// SPDX-License-Identifier: BSD-3-Clause
// The C++ side of the Python overhead measurement (python_bench.py): loads the bundle it is given
// and prints the best of RUNS runs (3 unless given) of shape factors (normals, linearity,
// sphericity) in seconds, the same run the Python script times on the same file.
#include "io/files.hpp"
#include "quorvel/features/features.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: shapefactors_timing BUNDLE [RUNS]\n");
    return 2;
  }
  auto grid = Quorvel::Files::load(argv[1]);
  double best = 1e9;
  const int runs = argc == 3 ? std::max(1, std::atoi(argv[2])) : 3;
  for (int run = 0; run < runs; ++run) {
    Quorvel::ShapeFactorComputationParameterBox box;
    box.normalvector = box.linearity = box.sphericity = true;
    const auto start = std::chrono::steady_clock::now();
    Quorvel::shapeFactorComputation(grid, box, nullptr);
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::printf("%.6f\n", best);
  return 0;
}
