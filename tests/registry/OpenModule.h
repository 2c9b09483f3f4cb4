#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "Module.h"

namespace qel::test {

/// Opens the module at `path`. It stays open: what it registers points into it.
inline const Module& OpenModule(const std::string& path, int binding) {
    void* const handle = ::dlopen(path.c_str(), RTLD_NOW | binding);
    if (handle == nullptr) {
        throw std::runtime_error(::dlerror());
    }
    auto* const function = reinterpret_cast<const Module* (*)()>(::dlsym(handle, kModuleFunction));
    if (function == nullptr) {
        throw std::runtime_error(::dlerror());
    }
    return *function();
}

}  // namespace qel::test
