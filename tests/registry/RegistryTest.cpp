#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "Codec.h"
#include "InterfaceFactory.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SizedReader.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

using Reader = SharedMemoryBlockReaderIF;
using Writer = SharedMemoryBlockWriterIF;

/// Gives a registry back as it was.
template <typename Registry>
class KeptRegistry {
public:
    explicit KeptRegistry(Registry& registry) : registry_(registry), before_(registry) {}
    ~KeptRegistry() { registry_ = before_; }
    KeptRegistry(const KeptRegistry&) = delete;
    KeptRegistry& operator=(const KeptRegistry&) = delete;

private:
    Registry& registry_;
    Registry before_;
};

auto& Readers() {
    return IF<Reader>::ifConstructors<>;
}
auto& NamedReaders() {
    return IF<Reader>::ifConstructors<std::string_view>;
}
auto& Writers() {
    return IF<Writer>::ifConstructors<>;
}
auto& SizedWriters() {
    return IF<Writer>::ifConstructors<std::string_view, unsigned long>;
}

template <typename Entries>
void ExpectLibrarysEntries(const Entries& entries, const std::string& secondName) {
    EXPECT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries.count("DefaultIF"), 1U);
    EXPECT_EQ(entries.count(secondName), 1U);
    EXPECT_EQ(entries.bucket_count(), typename std::decay_t<Entries>(2).bucket_count());
    EXPECT_EQ(entries.max_load_factor(), 1.0F);
    for (const auto& [name, constructor] : entries) {
        EXPECT_TRUE(constructor) << name;
    }
}

TEST(Registry, HasRoomForTwoNamesAndHoldsTheLibrarysTwo) {
    ExpectLibrarysEntries(Readers(), "SharedMemoryReaderIF");
    ExpectLibrarysEntries(NamedReaders(), "SharedMemoryReaderIF");
    ExpectLibrarysEntries(Writers(), "SharedMemoryWriterIF");
    ExpectLibrarysEntries(SizedWriters(), "SharedMemoryWriterIF");
}

template <typename Entries>
std::vector<std::string_view> NamesInOrder(const Entries& entries) {
    std::vector<std::string_view> names;
    names.reserve(entries.size());
    for (const auto& entry : entries) {
        names.push_back(entry.first);
    }
    return names;
}

/// A map with two names shows them in an order that tells which came in first: `entries` must show
/// them like a map of its kind that is filled in the order given.
template <typename Entries>
void ExpectFilledInOrder(const Entries& entries, std::string_view first, std::string_view second) {
    const auto filled = [](std::string_view one, std::string_view other) {
        Entries made(2);
        made.emplace(one, nullptr);
        made.emplace(other, nullptr);
        return NamesInOrder(made);
    };
    ASSERT_NE(filled(first, second), filled(second, first));
    EXPECT_EQ(NamesInOrder(entries), filled(first, second));
}

TEST(Registry, IsFilledWithTheDefaultFirst) {
    ExpectFilledInOrder(Readers(), "DefaultIF", "SharedMemoryReaderIF");
    ExpectFilledInOrder(NamedReaders(), "DefaultIF", "SharedMemoryReaderIF");
    ExpectFilledInOrder(Writers(), "DefaultIF", "SharedMemoryWriterIF");
    ExpectFilledInOrder(SizedWriters(), "DefaultIF", "SharedMemoryWriterIF");
}

static_assert(
    std::is_same_v<decltype(IF<Writer>::ifConstructors<std::string_view, unsigned long>),
                   std::unordered_map<std::string_view, std::function<std::unique_ptr<Writer>(
                                                            std::string_view, unsigned long)>>>);
static_assert(std::is_same_v<decltype(IFConstructor<SharedMemoryBlockReader, std::string_view>("")),
                             std::unique_ptr<SharedMemoryBlockReader>>);

class RegisteredName : public testing::TestWithParam<const char*> {};

TEST_P(RegisteredName, KnownOrNotMakesADefaultConstructedReader) {
    const auto reader = InterfaceFactory::Create<Reader>(GetParam());
    ASSERT_NE(reader, nullptr);
    const Reader& object = *reader;
    EXPECT_EQ(typeid(object), typeid(SharedMemoryBlockReader));
    EXPECT_EQ(Thrown([&] { (void)reader->Size(); }),
              "Error: Accessed default constructed SharedMemoryBlockReader");
}

TEST_P(RegisteredName, KnownOrNotMakesADefaultConstructedWriter) {
    const auto writer = InterfaceFactory::Create<Writer>(GetParam());
    ASSERT_NE(writer, nullptr);
    const Writer& object = *writer;
    EXPECT_EQ(typeid(object), typeid(SharedMemoryBlockWriter));
    EXPECT_EQ(Thrown([&] { (void)writer->Size(); }),
              "Error: Accessed default constructed SharedMemoryBlockWriter");
}

TEST_P(RegisteredName, KnownOrNotMakesAWriterOfABlockAndAReaderOfIt) {
    const UniqueBlockName block;
    const auto writer = InterfaceFactory::Create<Writer, std::string_view, unsigned long>(
        GetParam(), block.Name(), 100);
    EXPECT_EQ(writer->Size(), 100U);
    writer->LockForWrite();
    writer->GetDataForWrite()[99] = 42;
    writer->UnlockForWrite();

    const auto reader =
        InterfaceFactory::Create<Reader, std::string_view>(GetParam(), block.Name());
    EXPECT_EQ(reader->Size(), 100U);
    reader->Lock();
    EXPECT_EQ(reader->GetData()[99], 42);
    reader->Unlock();
}

INSTANTIATE_TEST_SUITE_P(Names, RegisteredName,
                         testing::Values("DefaultIF", "SharedMemoryReaderIF",
                                         "SharedMemoryWriterIF", "registered nowhere", "",
                                         "defaultif"));

TEST(InterfaceFactory, PassesOnWhatAHandlesConstructorThrows) {
    const UniqueBlockName block;
    const std::string missing = Thrown([&] { const SharedMemoryBlockReader reader(block.Name()); });
    EXPECT_EQ(missing.find("failed to open shared memory: "), 0U);
    EXPECT_EQ(Thrown([&] {
                  (void)InterfaceFactory::Create<Reader, std::string_view>("SharedMemoryReaderIF",
                                                                           block.Name());
              }),
              missing);

    const std::string unnamed =
        Thrown<std::invalid_argument>([] { const SharedMemoryBlockWriter writer("", 1); });
    EXPECT_EQ(Thrown<std::invalid_argument>([] {
                  (void)InterfaceFactory::Create<Writer, std::string_view, unsigned long>(
                      "SharedMemoryWriterIF", "", 1);
              }),
              unnamed);
}

TEST(InterfaceFactory, PassesOnWhateverAConstructorThrows) {
    const KeptRegistry kept(Readers());
    Readers()["Throwing"] = []() -> std::unique_ptr<Reader> { throw 42; };
    try {
        (void)InterfaceFactory::Create<Reader>("Throwing");
        FAIL() << "nothing thrown";
    } catch (int number) {
        EXPECT_EQ(number, 42);
    }
}

TEST(InterfaceFactory, MakesWhatAClientRegisters) {
    const KeptRegistry kept(NamedReaders());
    std::string seen;
    NamedReaders()["Substitute"] = [&seen](std::string_view block) {
        seen = block;
        return std::make_unique<SizedReader>(7);
    };
    EXPECT_EQ((InterfaceFactory::Create<Reader, std::string_view>("Substitute", "a block")->Size()),
              7U);
    EXPECT_EQ(seen, "a block");
}

TEST(InterfaceFactory, TellsNamesApartByEveryByte) {
    const KeptRegistry kept(Readers());
    Readers()["Substitute"] = [] { return std::make_unique<SizedReader>(7); };
    for (const std::string_view name :
         {std::string_view("substitute"), std::string_view("Substitut"),
          std::string_view("Substitute\0", 11), std::string_view("Substitute ")}) {
        const auto reader = InterfaceFactory::Create<Reader>(name);
        EXPECT_NE(Thrown([&] { (void)reader->Size(); }), "nothing thrown") << name;
    }
}

TEST(InterfaceFactory, MakesAClientsReplacementOfALibrarysName) {
    const KeptRegistry kept(Readers());
    Readers()["DefaultIF"] = [] { return std::make_unique<SizedReader>(8); };
    EXPECT_EQ(InterfaceFactory::Create<Reader>("DefaultIF")->Size(), 8U);
    EXPECT_EQ(InterfaceFactory::Create<Reader>("registered nowhere")->Size(), 8U);
    EXPECT_NE(
        Thrown([] { (void)InterfaceFactory::Create<Reader>("SharedMemoryReaderIF")->Size(); }),
        "nothing thrown");
}

TEST(InterfaceFactory, KeepsRegistriesOfOtherArgumentsApart) {
    const KeptRegistry kept(NamedReaders());
    NamedReaders()["Substitute"] = [](std::string_view) {
        return std::make_unique<SizedReader>(7);
    };
    EXPECT_EQ(Readers().count("Substitute"), 0U);
    EXPECT_EQ(Thrown([] { (void)InterfaceFactory::Create<Reader>("Substitute")->Size(); }),
              "Error: Accessed default constructed SharedMemoryBlockReader");
}

TEST(InterfaceFactory, WithoutADefaultRefusesUnknownNamesOnly) {
    const KeptRegistry kept(Readers());
    Readers().erase("DefaultIF");
    EXPECT_EQ(Thrown<std::out_of_range>(
                  [] { (void)InterfaceFactory::Create<Reader>("registered nowhere"); }),
              "_Map_base::at");
    EXPECT_EQ(
        Thrown<std::out_of_range>([] { (void)InterfaceFactory::Create<Reader>("DefaultIF"); }),
        "_Map_base::at");
    EXPECT_NE(InterfaceFactory::Create<Reader>("SharedMemoryReaderIF"), nullptr);
}

TEST(InterfaceFactory, RefusesAnEntryWithoutAFunction) {
    const KeptRegistry kept(Writers());
    Writers()["Empty"] = nullptr;
    EXPECT_THROW((void)InterfaceFactory::Create<Writer>("Empty"), std::bad_function_call);
    EXPECT_NE(InterfaceFactory::Create<Writer>("registered nowhere"), nullptr);

    Writers()["DefaultIF"] = nullptr;
    EXPECT_THROW((void)InterfaceFactory::Create<Writer>("registered nowhere"),
                 std::bad_function_call);
}

class NamedCodec : public Codec {
public:
    NamedCodec(int rate, const std::string& name) : rate_(rate + static_cast<int>(name.size())) {}
    [[nodiscard]] int Rate() const override { return rate_; }

private:
    int rate_;
};

TEST(InterfaceFactory, MakesObjectsOfAClientsOwnInterface) {
    auto& codecs = IF<Codec>::ifConstructors<int, std::string>;
    const KeptRegistry kept(codecs);
    EXPECT_TRUE(codecs.empty());
    EXPECT_EQ(Thrown<std::out_of_range>(
                  [] { (void)InterfaceFactory::Create<Codec, int, std::string>("Named", 1, ""); }),
              "_Map_base::at");

    codecs["Named"] = IFConstructor<NamedCodec, int, std::string>;
    EXPECT_EQ((InterfaceFactory::Create<Codec, int, std::string>("Named", 40, "ab")->Rate()), 42);
}

TEST(InterfaceFactory, IsUsedByManyThreadsAtOnce) {
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 1000; ++round) {
                EXPECT_NE(InterfaceFactory::Create<Reader>("SharedMemoryReaderIF"), nullptr);
                EXPECT_NE(InterfaceFactory::Create<Writer>("registered nowhere"), nullptr);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace qel::test
