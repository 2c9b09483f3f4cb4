#include "InterfaceFactory.h"

#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"

namespace qel {
namespace {

/// A registry in which "DefaultIF" and `name` make an `Implementation`.
template <typename Interface, typename Implementation, typename... Args>
typename IF<Interface>::template Constructors<Args...> Named(std::string_view name) {
    constexpr std::size_t kRoom = 2;
    typename IF<Interface>::template Constructors<Args...> constructors(kRoom);
    constructors.emplace("DefaultIF", IFConstructor<Implementation, Args...>);
    constructors.emplace(name, IFConstructor<Implementation, Args...>);
    return constructors;
}

}  // namespace

template <>
template <>
IF<SharedMemoryBlockReaderIF>::Constructors<> IF<SharedMemoryBlockReaderIF>::ifConstructors<> =
    Named<SharedMemoryBlockReaderIF, SharedMemoryBlockReader>("SharedMemoryReaderIF");
template <>
template <>
IF<SharedMemoryBlockReaderIF>::Constructors<std::string_view>
    IF<SharedMemoryBlockReaderIF>::ifConstructors<std::string_view> =
        Named<SharedMemoryBlockReaderIF, SharedMemoryBlockReader, std::string_view>(
            "SharedMemoryReaderIF");
template <>
template <>
IF<SharedMemoryBlockWriterIF>::Constructors<> IF<SharedMemoryBlockWriterIF>::ifConstructors<> =
    Named<SharedMemoryBlockWriterIF, SharedMemoryBlockWriter>("SharedMemoryWriterIF");
template <>
template <>
IF<SharedMemoryBlockWriterIF>::Constructors<std::string_view, unsigned long>
    IF<SharedMemoryBlockWriterIF>::ifConstructors<std::string_view, unsigned long> =
        Named<SharedMemoryBlockWriterIF, SharedMemoryBlockWriter, std::string_view, unsigned long>(
            "SharedMemoryWriterIF");

template std::unique_ptr<SharedMemoryBlockReaderIF>
    InterfaceFactory::Create<SharedMemoryBlockReaderIF>(std::string_view);
template std::unique_ptr<SharedMemoryBlockReaderIF>
    InterfaceFactory::Create<SharedMemoryBlockReaderIF, std::string_view>(std::string_view,
                                                                          std::string_view);
template std::unique_ptr<SharedMemoryBlockWriterIF>
    InterfaceFactory::Create<SharedMemoryBlockWriterIF>(std::string_view);
template std::unique_ptr<SharedMemoryBlockWriterIF>
InterfaceFactory::Create<SharedMemoryBlockWriterIF, std::string_view, unsigned long>(
    std::string_view, std::string_view, unsigned long);

}  // namespace qel
