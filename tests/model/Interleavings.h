#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace qel::test {

/// Runs a few nodes in one thread, one step of one node at a time, in every order.
///
/// The nodes say where a step ends (`Step`); between two steps a node runs alone. A search repeats
/// the whole run with another order until all orders were seen. Orders that lead to a state that
/// was seen before are not followed again: a state is the memory that the nodes share and, for each
/// node, what it has read since it last declared that nothing of that matters any more
/// (`Forget`).
class Interleavings {
public:
    /// One run: what the nodes do, and what must hold at its end. Made anew for each run.
    struct Run {
        std::vector<std::function<void()>> nodes;
        std::function<std::string()> atEnd;  ///< what is wrong, if anything
    };
    using Setup = std::function<Run()>;

    struct Result {
        std::uint64_t runs = 0;
        std::uint64_t states = 0;  ///< that were followed
        std::uint64_t steps = 0;   ///< of the longest run
        std::string failure;       ///< empty if all was well
        std::string schedule;      ///< who made each step of the failing run
    };

    static constexpr unsigned kAnyNumber = ~0U;

    /// @param memory  what the nodes share, and whatever else a state has
    Interleavings(const void* memory, std::size_t length);

    /// All orders in which a node that could go on loses its turn at most `preemptions` times.
    Result SearchAll(const Setup& setup, unsigned preemptions = kAnyNumber);
    /// `runs` random orders.
    Result SearchRandomly(const Setup& setup, unsigned seed, std::uint64_t runs);

    /// The node that runs.
    [[nodiscard]] std::size_t Current() const { return current_; }
    [[nodiscard]] bool IsRunning() const { return isRunning_; }

    /// Lets others go first.
    void Step();
    /// The node has read `value`.
    void Note(std::uint64_t value);
    /// The node changed what others may wait for.
    void NoteChange();
    /// What the node does from here on depends on shared memory and `position` alone.
    void Forget(std::uint64_t position);
    /// An attempt begins, which may be refused.
    void BeginAttempt();
    /// The attempt was refused and left nothing: the node goes on when somebody else has changed
    /// something.
    void AwaitChange();
    /// Ends the search. The nodes are left as they stand: nothing is unwound, because the code
    /// under test takes accesses to memory for operations that do not throw.
    [[noreturn]] void Fail(const std::string& text);

private:
    struct Node {
        ucontext_t context;
        std::vector<unsigned char> stack;
        std::function<void()> body;
        std::uint64_t history;
        std::uint64_t historyBeforeAttempt;
        std::uint64_t changesBeforeAttempt;
        bool waits;
        bool done;
    };
    struct Choice {
        std::size_t taken;
        std::size_t count;
    };

    static void Enter();

    Result Search(const Setup& setup, const std::function<bool()>& nextRun);
    void RunOnce(const Setup& setup, Result& result);
    void Begin(const Run& run);
    void SwitchTo(std::size_t node);
    void GiveTurn();
    /// Who makes the next step; false: nobody can, or nobody needs to.
    bool ChooseNext(std::size_t& next);
    std::size_t Choose(std::size_t count);
    [[nodiscard]] bool CanGoOn(const Node& node) const;
    [[nodiscard]] bool SeenBefore();
    [[nodiscard]] bool NextOrder();

    const void* memory_;
    std::size_t length_;
    std::vector<std::unique_ptr<Node>> nodes_;
    ucontext_t scheduler_{};
    std::vector<std::size_t> able_;  ///< to go on, the one that runs first
    std::size_t current_ = 0;        ///< the number of nodes before the first step
    bool isRunning_ = false;
    bool isKnown_ = false;  ///< the rest of the run was seen before, and is only brought to its end
    std::uint64_t changes_ = 0;
    std::string failure_;
    std::string schedule_;

    std::vector<Choice> choices_;
    std::size_t depth_ = 0;
    unsigned preemptionsAllowed_ = kAnyNumber;
    unsigned preemptionsLeft_ = kAnyNumber;
    std::unordered_set<std::uint64_t> seen_;
    std::mt19937* random_ = nullptr;
};

}  // namespace qel::test
