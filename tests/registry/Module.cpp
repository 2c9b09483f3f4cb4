#include "Module.h"

#include "Codec.h"
#include "InterfaceFactory.h"
#include "SizedReader.h"

namespace qel::test {
namespace {

using Reader = SharedMemoryBlockReaderIF;
using Writer = SharedMemoryBlockWriterIF;

class PlainCodec : public Codec {
public:
    explicit PlainCodec(int rate) : rate_(rate) {}
    [[nodiscard]] int Rate() const override { return rate_; }

private:
    int rate_;
};

const Module kModule = {
    {&IF<Reader>::ifConstructors<>, &IF<Reader>::ifConstructors<std::string_view>,
     &IF<Writer>::ifConstructors<>, &IF<Writer>::ifConstructors<std::string_view, unsigned long>},
    &IF<Codec>::ifConstructors<int>,
    [](const char* name, std::uint64_t size) {
        IF<Reader>::ifConstructors<std::string_view>[name] = [size](std::string_view) {
            return std::make_unique<SizedReader>(size);
        };
    },
    [](const char* name) { return IF<Reader>::ifConstructors<std::string_view>.count(name) == 1; },
    [](const char* name) {
        return InterfaceFactory::Create<Reader, std::string_view>(name, "no block")->Size();
    },
    [](const char* name) { IF<Codec>::ifConstructors<int>[name] = IFConstructor<PlainCodec, int>; },
    [](const char* name) { return IF<Codec>::ifConstructors<int>.count(name) == 1; },
    [](const char* name, int rate) {
        return InterfaceFactory::Create<Codec, int>(name, rate)->Rate();
    },
};

}  // namespace
}  // namespace qel::test

extern "C" QEV_EXPORT const qel::test::Module* qev_test_module() {
    return &qel::test::kModule;
}
