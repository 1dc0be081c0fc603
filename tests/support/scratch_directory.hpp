// SPDX-License-Identifier: BSD-3-Clause
// A test fixture with a scratch directory of its own, removed after each test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <unistd.h>

class ScratchDirectory : public testing::Test {
protected:
  void SetUp() override {
    dir = std::filesystem::temp_directory_path() /
          ("quorvel-" + std::to_string(::getpid()) + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->test_suite_name() + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  std::string file(const std::string& name) const { return (dir / name).string(); }
  std::size_t filesInDir() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir),
                                                  std::filesystem::directory_iterator()));
  }

  std::filesystem::path dir;
};
