#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SomeSnapshot.h"
#include "TopState.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

class TopKeys : public testing::Test {
protected:
    void Type(const std::string& text) {
        for (const char character : text) {
            Press(state_, {Key::Kind::Character, character}, snapshot_);
        }
    }
    void Push(Key::Kind kind) { Press(state_, {kind}, snapshot_); }

    [[nodiscard]] std::vector<std::string> Shown() const {
        std::vector<std::string> names;
        for (const RingRow* ring : ShownRings(snapshot_, state_)) {
            names.push_back(ring->name);
        }
        return names;
    }

    Snapshot snapshot_ = SomeSnapshot();
    TopState state_;
};

TEST_F(TopKeys, OrderTheRings) {
    snapshot_.rings.resize(3);
    snapshot_.rings[2] = snapshot_.rings[0];
    snapshot_.rings[2].name = "zero";
    snapshot_.rings[2].nodes[0].figures.bytesPerSecond = 500e6;
    snapshot_.rings[2].nodes[1].latency = 9;
    EXPECT_THAT(Shown(), ElementsAre("audio", "camera", "zero"));
    Type("r");
    EXPECT_THAT(Shown(), ElementsAre("zero", "camera", "audio"));
    Type("f");
    EXPECT_THAT(Shown(), ElementsAre("camera", "audio", "zero"));
    Type("l");
    EXPECT_THAT(Shown(), ElementsAre("zero", "camera", "audio"));
    Type("n");
    EXPECT_THAT(Shown(), ElementsAre("audio", "camera", "zero"));
    for (const char* const order : {"rate", "fill", "latency", "name"}) {
        Type("s");
        EXPECT_STREQ(NameOf(state_.order), order);
    }
}

TEST_F(TopKeys, FilterByPartOfTheName) {
    Type("/am");
    EXPECT_TRUE(state_.edits);
    EXPECT_THAT(Shown(), ElementsAre("camera", "damaged"));
    Type("q");
    EXPECT_FALSE(state_.quits);
    EXPECT_THAT(Shown(), ElementsAre());
    Push(Key::Kind::Erase);
    Type("\xc3\xa4");
    Push(Key::Kind::Erase);
    EXPECT_EQ(state_.filter, "am");
    Push(Key::Kind::Enter);
    EXPECT_FALSE(state_.edits);
    EXPECT_THAT(Shown(), ElementsAre("camera", "damaged"));
    Push(Key::Kind::Escape);
    EXPECT_EQ(Shown().size(), snapshot_.rings.size());
    Type("/am");
    Push(Key::Kind::Escape);
    EXPECT_FALSE(state_.edits);
    EXPECT_EQ(state_.filter, "");
    Type("/");
    Push(Key::Kind::Erase);
    EXPECT_EQ(state_.filter, "");
}

TEST_F(TopKeys, SelectRingsAndShowTheirDetails) {
    EXPECT_EQ(PlaceOfSelected(ShownRings(snapshot_, state_), state_), 0U);
    Push(Key::Kind::Up);
    EXPECT_EQ(state_.selected, "audio");
    Push(Key::Kind::Down);
    EXPECT_EQ(state_.selected, "camera");
    Push(Key::Kind::Enter);
    EXPECT_EQ(state_.view, TopState::View::Details);
    Push(Key::Kind::Down);
    EXPECT_EQ(state_.selected, "camera");
    EXPECT_EQ(state_.scrolled, 1U);
    Push(Key::Kind::Home);
    EXPECT_EQ(state_.scrolled, 0U);
    Push(Key::Kind::Enter);
    EXPECT_EQ(state_.view, TopState::View::List);
    Push(Key::Kind::End);
    EXPECT_EQ(state_.selected, "quick");
    Push(Key::Kind::Down);
    EXPECT_EQ(state_.selected, "quick");
    EXPECT_FALSE(state_.follows);
    Push(Key::Kind::Home);
    EXPECT_EQ(state_.selected, "audio");
    EXPECT_TRUE(state_.follows);
}

TEST_F(TopKeys, EnterWithoutARingDoesNothing) {
    snapshot_.rings.clear();
    for (const auto kind : {Key::Kind::Enter, Key::Kind::Down, Key::Kind::Up, Key::Kind::End}) {
        Push(kind);
        EXPECT_EQ(state_.view, TopState::View::List);
        EXPECT_EQ(state_.selected, "");
    }
}

TEST_F(TopKeys, PauseHelpAndQuit) {
    Type(" ");
    EXPECT_TRUE(state_.isPaused);
    Type("p");
    EXPECT_FALSE(state_.isPaused);
    Type("?");
    EXPECT_EQ(state_.view, TopState::View::Help);
    Push(Key::Kind::Escape);
    EXPECT_EQ(state_.view, TopState::View::List);
    Type("xyz\n\x01");
    EXPECT_FALSE(state_.quits);
    Type("q");
    EXPECT_TRUE(state_.quits);
}

}  // namespace
}  // namespace qel::test
