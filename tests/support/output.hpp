// SPDX-License-Identifier: BSD-3-Clause
// Checks on captured standard output.
#pragma once

#include <gtest/gtest.h>

#include <string>

// Success when text holds part; the failure shows both.
inline testing::AssertionResult holds(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "\"" << part << "\" not in:\n" << text;
}
