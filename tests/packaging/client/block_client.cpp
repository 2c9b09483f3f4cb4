// Sends a word through a block of its own, whose two ends it creates by interface and name.

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>

#include "InterfaceFactory.h"

namespace {

using Reader = qel::SharedMemoryBlockReaderIF;
using Writer = qel::SharedMemoryBlockWriterIF;

/// A reader of the client's own, known under a name of its own.
class FixedReader : public Reader {
    void DoLock() override {}
    bool DoTryLock() override { return true; }
    void DoUnlock() override {}
    const unsigned char* DoGetData() override { return nullptr; }
    std::uint64_t DoSize() override { return 42; }
};

struct RemovedAtEnd {
    const std::string& name;
    ~RemovedAtEnd() { ::unlink(("/tmp/" + name + "_shm.lock").c_str()); }
};

std::string Across(const std::string& name, const std::string& text) {
    const auto writer = qel::InterfaceFactory::Create<Writer, std::string_view, unsigned long>(
        "SharedMemoryWriterIF", name, text.size());
    writer->LockForWrite();
    std::copy(text.begin(), text.end(), writer->GetDataForWrite());
    writer->UnlockForWrite();

    const auto reader =
        qel::InterfaceFactory::Create<Reader, std::string_view>("SharedMemoryReaderIF", name);
    reader->Lock();
    const unsigned char* const data = reader->GetData();
    std::string received(data, data + reader->Size());
    reader->Unlock();
    return received;
}

/// The size that a reader of the client's own states.
std::uint64_t SizeOfFixed(const std::string& name) {
    qel::IF<Reader>::ifConstructors<std::string_view>["Fixed"] = [](std::string_view) {
        return std::make_unique<FixedReader>();
    };
    return qel::InterfaceFactory::Create<Reader, std::string_view>("Fixed", name)->Size();
}

}  // namespace

int main() {
    const std::string name = "qev-test-block-client-" + std::to_string(::getpid());
    const RemovedAtEnd removed{name};
    try {
        if (SizeOfFixed(name) != 42) {
            return 1;
        }
        std::cout << Across(name, "across") << '\n';
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
