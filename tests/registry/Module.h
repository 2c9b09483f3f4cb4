#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qel::test {

/// What a module that is opened at run time sees of the registries. Plain functions, so that a
/// program needs neither the library nor its headers to ask.
struct Module {
    /// The library's own registries: reader () and (name), writer () and (name, size).
    std::array<const void*, 4> registries;
    /// The registry of Codec.
    const void* codecs;

    /// Registers a reader of `size` bytes in the registry of readers with a block name. `name` must
    /// outlive the process's use of it.
    void (*addReader)(const char* name, std::uint64_t size);
    bool (*knowsReader)(const char* name);
    /// Size of the reader that the factory makes under `name`.
    std::uint64_t (*sizeOfReader)(const char* name);

    /// Registers a codec in the registry of codecs with a rate.
    void (*addCodec)(const char* name);
    bool (*knowsCodec)(const char* name);
    /// Rate of the codec that the factory makes with `rate` under `name`.
    int (*rateOfCodec)(const char* name, int rate);
};

/// Name of the function `const Module* ()` of each module.
inline constexpr const char* kModuleFunction = "qev_test_module";

}  // namespace qel::test
