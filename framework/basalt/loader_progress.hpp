// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: progress reporting of long operations.
#pragma once

#include "basalt/strong_ptr.hpp"

#include <string>

namespace Basalt {

// Progress interface accepted by long operations as const StrongPtr<LoaderProgress>&; an empty
// pointer means nobody listens. Called from the thread that drives the operation only.
class LoaderProgress : public ReferenceBase {
public:
  // fraction runs from 0 to 1; what names the current step.
  virtual void progress(double fraction, const std::string& what) = 0;
};

// Writes "<what>: <percent>%" followed by a carriage return, so the line is overwritten.
class ConsoleProgress final : public LoaderProgress {
public:
  void progress(double fraction, const std::string& what) override;
};

} // namespace Basalt
