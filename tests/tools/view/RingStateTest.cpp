#include <gtest/gtest.h>

#include <vector>

#include "RingState.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 5000;

RingFields Initialised() {
    RingFields fields;
    fields.initialised = 1;
    return fields;
}

RingFields Empty() {
    RingFields fields = Initialised();
    fields.avail[0] = kSize;
    return fields;
}

RingState State(const RingFields& fields, bool moves, const std::vector<ObjectUser>& users) {
    return RingStateOf(fields, kSize, moves, users, ProcessSurvey());
}

TEST(RingStates, AreToldByTheFieldsAndByWhatMoves) {
    RingFields wrong = Empty();
    wrong.wIdx[0] = kSize;
    EXPECT_EQ(State(RingFields(), true, {}), RingState::Fresh);
    EXPECT_EQ(State(Initialised(), true, {}), RingState::NeverInitialised);
    EXPECT_EQ(State(wrong, true, {}), RingState::Desynchronised);
    EXPECT_EQ(State(Empty(), true, {}), RingState::Live);
    EXPECT_EQ(State(Empty(), false, {}), RingState::Orphaned);
}

TEST(RingStates, WhoCanOnlyLookDoesNotUseTheRing) {
    ObjectUser looks;
    looks.maps = true;
    looks.descriptors.push_back({3, false});
    ObjectUser maps;
    maps.mapsToWrite = true;
    ObjectUser opens;
    opens.descriptors.push_back({3, true});
    EXPECT_EQ(State(Empty(), false, {looks}), RingState::Orphaned);
    EXPECT_EQ(State(Empty(), false, {looks, maps}), RingState::Idle);
    EXPECT_EQ(State(Empty(), false, {opens}), RingState::Idle);
}

TEST(RingStates, HaveTexts) {
    EXPECT_EQ(TextOf(RingState::Live), "live");
    EXPECT_EQ(TextOf(RingState::Idle), "idle");
    EXPECT_EQ(TextOf(RingState::Orphaned), "orphaned");
    EXPECT_EQ(TextOf(RingState::Unseen), "unseen");
    EXPECT_EQ(TextOf(RingState::Fresh), "fresh");
    EXPECT_EQ(TextOf(RingState::NeverInitialised), "never initialised");
    EXPECT_EQ(TextOf(RingState::Desynchronised), "desynchronised");
}

}  // namespace
}  // namespace qel::test
