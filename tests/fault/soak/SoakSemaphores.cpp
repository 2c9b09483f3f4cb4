#include "SoakSemaphores.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "SemaphoreMultiLockHelper.h"

namespace qel::test {
namespace {

constexpr int kSeveral = 3;
constexpr std::chrono::seconds kLong{100};

}  // namespace

SoakSemaphores::SoakSemaphores(std::string units, std::string gate, unsigned node, SoakBoard& board)
    : unitsName_(std::move(units)),
      gateName_(std::move(gate)),
      board_(board),
      figures_(board.nodes.at(node)) {
    Open();
}

void SoakSemaphores::Open() {
    units_.emplace(unitsName_, kSoakUnits);
    gate_.emplace(gateName_, 1);
    figures_.openings += 2;
}

void SoakSemaphores::CountIn(int units) {
    const int taken = board_.taken += units;
    if (taken > board_.units) {
        throw std::runtime_error("semaphore: " + std::to_string(taken) + " units taken");
    }
    figures_.units += static_cast<std::uint64_t>(units);
}

void SoakSemaphores::CountOut(int units) {
    board_.taken -= units;
}

void SoakSemaphores::Turn(std::uint64_t number) {
    switch (number % 6) {
        case 0:
        case 1:
        case 2:
            TakeOne(number % 6);
            break;
        case 3:
        case 4:
            TakeSeveral(number % 6 == 3);
            break;
        default:
            KeepOrReturn();
            break;
    }
}

void SoakSemaphores::TakeOne(std::uint64_t way) {
    if (way == 0) {
        units_->Wait();
    } else if (way == 1) {
        units_->TimedWait(kLong);
    } else if (!units_->TryWait()) {
        return;
    }
    CountIn(1);
    CountOut(1);
    units_->Post();
}

void SoakSemaphores::TakeSeveral(bool waiting) {
    SemaphoreMultiLockHelper several{*units_, kSeveral};
    if (waiting) {
        gate_->Wait();
        several.Lock();
        gate_->Post();
    } else if (!several.TryLock()) {
        return;
    }
    CountIn(kSeveral);
    CountOut(kSeveral);
    several.Unlock();
}

void SoakSemaphores::KeepOrReturn() {
    if (keeps_) {
        CountOut(1);
        units_->Post();
        keeps_ = false;
    } else if (units_->TryWait()) {
        CountIn(1);
        keeps_ = true;
    }
}

void SoakSemaphores::Reopen(std::uint64_t number) {
    const bool surplus = number % 2 == 0;  // one that the closing handle takes back
    if (surplus) {
        ++board_.units;
        units_->Post();
    }
    Close();
    if (surplus) {
        --board_.units;
    }
    Open();
}

void SoakSemaphores::Close() {
    if (keeps_) {
        CountOut(1);  // given back by the handle
        keeps_ = false;
    }
    units_.reset();
    gate_.reset();
}

}  // namespace qel::test
