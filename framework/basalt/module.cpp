// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: opening the parts of the libraries that load large dependencies.
#include "basalt/module.hpp"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

namespace Basalt {

namespace {

// What the dynamic loader says about its last failure.
std::string loaderError() {
  const char* words = ::dlerror();
  return words ? words : "no reason given";
}

// The directory of the loaded object that holds address.
std::filesystem::path directoryOf(const void* address) {
  Dl_info info{};
  if (::dladdr(address, &info) == 0 || !info.dli_fname)
    throw std::runtime_error("cannot tell which library asks for a module: " + loaderError());
  return std::filesystem::path(info.dli_fname).parent_path();
}

} // namespace

void* moduleEntry(const std::string& file, const char* entry, const void* anchor) {
  const std::string path = (directoryOf(anchor) / file).string();
  // RTLD_NOW: a module lacking a symbol fails here, with its name, rather than at some later
  // call; RTLD_LOCAL: its dependencies' symbols stay out of the way of the program's own.
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    // The loader's words begin with the path when it is the object itself that is missing.
    std::string words = loaderError();
    if (words.rfind(path + ": ", 0) == 0)
      words.erase(0, path.size() + 2);
    throw std::runtime_error("cannot open " + path + ": " + words);
  }
  ::dlerror();
  void* found = ::dlsym(handle, entry);
  if (!found)
    throw std::runtime_error(path + " lacks " + entry + ": " + loaderError());
  return found;
}

} // namespace Basalt
