#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "QevExport.h"
#include "SharedMemoryBlockReaderIF.h"
#include "SharedMemoryBlockWriterIF.h"

namespace qel {

/// Holds the registries of one interface: named constructors, one registry for each list of
/// constructor arguments.
///
/// The library fills the registries of the block handles while it is loaded. A program may add
/// names of its own, and registries for interfaces of its own:
/// @code
/// IF<SharedMemoryBlockReaderIF>::ifConstructors<std::string_view>["Fake"] =
///     IFConstructor<FakeReader, std::string_view>;
/// @endcode
///
/// Each of the library's registries is one object in the whole process, also for modules that are
/// opened at run time. So is a registry of another interface, as long as the interface and the
/// types of the arguments have default visibility and every module is compiled with g++. Modules
/// from clang++ share such a registry only when they are opened with RTLD_GLOBAL; otherwise let one
/// library define it, as is done for the library's own below.
///
/// A key must outlive its entry: use string literals. A module that has registered a constructor
/// must stay open.
///
/// Thread use: adding and removing names is not synchronised. Do it before other threads create
/// handles; creating alone is free.
template <typename Interface>
class QEV_EXPORT IF {
public:
    template <typename... Args>
    using Constructor = std::function<std::unique_ptr<Interface>(Args...)>;
    template <typename... Args>
    using Constructors = std::unordered_map<std::string_view, Constructor<Args...>>;

    template <typename... Args>
    static Constructors<Args...> ifConstructors;
};

template <typename Interface>
template <typename... Args>
QEV_EXPORT typename IF<Interface>::template Constructors<Args...> IF<Interface>::ifConstructors;

// The library's own registries stand in the library alone, so that there is one of each.
template <>
template <>
QEV_EXPORT IF<SharedMemoryBlockReaderIF>::Constructors<>
    IF<SharedMemoryBlockReaderIF>::ifConstructors<>;
template <>
template <>
QEV_EXPORT IF<SharedMemoryBlockReaderIF>::Constructors<std::string_view>
    IF<SharedMemoryBlockReaderIF>::ifConstructors<std::string_view>;
template <>
template <>
QEV_EXPORT IF<SharedMemoryBlockWriterIF>::Constructors<>
    IF<SharedMemoryBlockWriterIF>::ifConstructors<>;
template <>
template <>
QEV_EXPORT IF<SharedMemoryBlockWriterIF>::Constructors<std::string_view, unsigned long>
    IF<SharedMemoryBlockWriterIF>::ifConstructors<std::string_view, unsigned long>;

/// Makes an `Implementation`; what a registry holds.
template <typename Implementation, typename... Args>
std::unique_ptr<Implementation> IFConstructor(Args... args) {
    return std::make_unique<Implementation>(args...);
}

/// Creates objects by interface and name.
class QEV_EXPORT InterfaceFactory {
public:
    /// Calls the constructor that is registered for `Interface` and `Args` under `name`, or else
    /// under "DefaultIF".
    /// @return the new object, the caller's
    /// @throws std::out_of_range  if neither name is registered
    /// @throws std::bad_function_call  if the entry holds no function
    /// What the constructor throws passes unchanged.
    template <typename Interface, typename... Args>
    [[nodiscard]] static std::unique_ptr<Interface> Create(std::string_view name, Args... args) {
        const auto& constructors = IF<Interface>::template ifConstructors<Args...>;
        auto found = constructors.find(name);
        if (found == constructors.end()) {
            found = constructors.find("DefaultIF");
        }
        if (found == constructors.end()) {
            throw std::out_of_range("_Map_base::at");
        }
        return found->second(std::move(args)...);
    }
};

extern template QEV_EXPORT std::unique_ptr<SharedMemoryBlockReaderIF>
    InterfaceFactory::Create<SharedMemoryBlockReaderIF>(std::string_view);
extern template QEV_EXPORT std::unique_ptr<SharedMemoryBlockReaderIF>
    InterfaceFactory::Create<SharedMemoryBlockReaderIF, std::string_view>(std::string_view,
                                                                          std::string_view);
extern template QEV_EXPORT std::unique_ptr<SharedMemoryBlockWriterIF>
    InterfaceFactory::Create<SharedMemoryBlockWriterIF>(std::string_view);
extern template QEV_EXPORT std::unique_ptr<SharedMemoryBlockWriterIF>
InterfaceFactory::Create<SharedMemoryBlockWriterIF, std::string_view, unsigned long>(
    std::string_view, std::string_view, unsigned long);

}  // namespace qel
