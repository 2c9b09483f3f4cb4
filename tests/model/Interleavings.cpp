#include "Interleavings.h"

#include <xxhash.h>

#include <algorithm>
#include <cstdlib>

namespace qel::test {
namespace {

constexpr std::size_t kStackSize = std::size_t{128} << 10U;

Interleavings* theSearch = nullptr;  // a new context takes no pointer

std::uint64_t Mixed(std::uint64_t hash, std::uint64_t value) {
    return XXH3_64bits_withSeed(&value, sizeof value, hash);
}

}  // namespace

Interleavings::Interleavings(const void* memory, std::size_t length)
    : memory_(memory), length_(length) {}

Interleavings::Result Interleavings::SearchAll(const Setup& setup, unsigned preemptions) {
    preemptionsAllowed_ = preemptions;
    random_ = nullptr;
    choices_.clear();
    seen_.clear();
    return Search(setup, [this] { return NextOrder(); });
}

Interleavings::Result Interleavings::SearchRandomly(const Setup& setup, unsigned seed,
                                                    std::uint64_t runs) {
    std::mt19937 random(seed);
    preemptionsAllowed_ = kAnyNumber;
    random_ = &random;
    return Search(setup, [runs]() mutable { return --runs != 0; });
}

Interleavings::Result Interleavings::Search(const Setup& setup,
                                            const std::function<bool()>& nextRun) {
    theSearch = this;
    failure_.clear();
    Result result;
    do {
        RunOnce(setup, result);
    } while (failure_.empty() && nextRun());
    result.states = seen_.size();
    result.failure = failure_;
    result.schedule = failure_.empty() ? "" : schedule_;
    return result;
}

void Interleavings::RunOnce(const Setup& setup, Result& result) {
    const Run run = setup();
    Begin(run);
    std::size_t next = 0;
    while (failure_.empty() && ChooseNext(next)) {
        SwitchTo(next);
    }
    if (failure_.empty()) {
        failure_ = run.atEnd();
    }
    isRunning_ = false;
    ++result.runs;
    result.steps = std::max<std::uint64_t>(result.steps, schedule_.size());
}

void Interleavings::Begin(const Run& run) {
    nodes_.resize(run.nodes.size());
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
        if (nodes_[i] == nullptr) {
            nodes_[i] = std::make_unique<Node>();
            nodes_[i]->stack.resize(kStackSize);
        }
        Node& node = *nodes_[i];
        node.body = run.nodes[i];
        node.history = node.historyBeforeAttempt = 0;
        node.changesBeforeAttempt = 0;
        node.waits = false;
        node.done = false;
        getcontext(&node.context);
        node.context.uc_stack.ss_sp = node.stack.data();
        node.context.uc_stack.ss_size = node.stack.size();
        node.context.uc_link = &scheduler_;
        makecontext(&node.context, &Interleavings::Enter, 0);
    }
    changes_ = 0;
    current_ = nodes_.size();
    depth_ = 0;
    preemptionsLeft_ = preemptionsAllowed_;
    schedule_.clear();
    isKnown_ = false;
    isRunning_ = true;
}

void Interleavings::Enter() {
    Node& node = *theSearch->nodes_[theSearch->current_];
    node.body();
    node.done = true;
}

void Interleavings::SwitchTo(std::size_t node) {
    current_ = node;
    swapcontext(&scheduler_, &nodes_[node]->context);
}

bool Interleavings::CanGoOn(const Node& node) const {
    return !node.done && (!node.waits || changes_ > node.changesBeforeAttempt);
}

bool Interleavings::ChooseNext(std::size_t& next) {
    std::vector<std::size_t>& able = able_;
    able.clear();
    const bool currentIsAble = current_ < nodes_.size() && CanGoOn(*nodes_[current_]);
    if (currentIsAble) {
        able.push_back(current_);
    }
    if (!currentIsAble || preemptionsLeft_ > 0) {
        for (std::size_t i = 0; i < nodes_.size(); ++i) {
            if (i != current_ && CanGoOn(*nodes_[i])) {
                able.push_back(i);
            }
        }
    }
    if (able.empty()) {
        for (const auto& node : nodes_) {
            if (!node->done) {
                failure_ = "nobody can go on";
            }
        }
        return false;
    }
    if (random_ == nullptr && depth_ == choices_.size() && !isKnown_) {
        isKnown_ = SeenBefore();
    }
    const std::size_t choice = able.size() == 1 ? 0 : Choose(able.size());
    if (currentIsAble && choice != 0 && preemptionsLeft_ != kAnyNumber) {
        --preemptionsLeft_;
    }
    next = able[choice];
    nodes_[next]->waits = false;
    schedule_ += static_cast<char>('0' + next);
    return true;
}

std::size_t Interleavings::Choose(std::size_t count) {
    if (random_ != nullptr) {
        // Long turns and short ones.
        return (*random_)() % 3 != 0 ? 0 : (*random_)() % count;
    }
    if (isKnown_) {
        return 0;
    }
    if (depth_ == choices_.size()) {
        choices_.push_back({0, count});
    }
    return choices_[depth_++].taken;
}

/// Makes the last choice differently that can be.
bool Interleavings::NextOrder() {
    while (!choices_.empty() && choices_.back().taken + 1 == choices_.back().count) {
        choices_.pop_back();
    }
    if (choices_.empty()) {
        return false;
    }
    ++choices_.back().taken;
    return true;
}

bool Interleavings::SeenBefore() {
    std::uint64_t state = XXH3_64bits(memory_, length_);
    for (const auto& node : nodes_) {
        state = Mixed(state, node->history);
        const bool missedNothing = changes_ == node->changesBeforeAttempt;
        state = Mixed(state,
                      (node->done ? 4U : 0U) + (node->waits ? 2U : 0U) + (missedNothing ? 1U : 0U));
    }
    if (preemptionsAllowed_ != kAnyNumber) {
        state = Mixed(state, current_ * 1000 + preemptionsLeft_);
    }
    return !seen_.insert(state).second;
}

void Interleavings::Step() {
    Note(0);  // where the node stands is part of the state
    GiveTurn();
}

void Interleavings::GiveTurn() {
    ucontext_t& here = nodes_[current_]->context;
    const std::size_t giver = current_;
    std::size_t next = 0;
    if (!failure_.empty() || !ChooseNext(next)) {
        swapcontext(&here, &scheduler_);
    } else if (next != giver) {
        current_ = next;
        swapcontext(&here, &nodes_[next]->context);
    }
}

void Interleavings::Note(std::uint64_t value) {
    std::uint64_t& history = nodes_[current_]->history;
    history = Mixed(history, value);
}

void Interleavings::NoteChange() {
    ++changes_;
    ++nodes_[current_]->changesBeforeAttempt;  // which is nothing to wait for
}

void Interleavings::Forget(std::uint64_t position) {
    nodes_[current_]->history = Mixed(0, position);
}

void Interleavings::BeginAttempt() {
    Node& node = *nodes_[current_];
    node.historyBeforeAttempt = node.history;
    node.changesBeforeAttempt = changes_;
}

void Interleavings::AwaitChange() {
    Node& node = *nodes_[current_];
    node.history = node.historyBeforeAttempt;
    node.waits = true;
    GiveTurn();
}

void Interleavings::Fail(const std::string& text) {
    failure_ = text;
    GiveTurn();
    std::abort();  // nobody comes back to a failed run
}

}  // namespace qel::test
