// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: a shared list of texts (for example the names of fields).
#pragma once

#include "basalt/strong_ptr.hpp"

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace Basalt {

class StringList : public ReferenceBase {
public:
  StringList() = default;
  StringList(std::initializer_list<std::string> items) : items_(items) {}

  void push_back(std::string item) { items_.push_back(std::move(item)); }
  bool contains(std::string_view item) const {
    return std::find(items_.begin(), items_.end(), item) != items_.end();
  }
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const std::string& operator[](std::size_t i) const { return items_[i]; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

private:
  std::vector<std::string> items_;
};

} // namespace Basalt
