#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "Plan.h"

namespace qel {

/// The way that frames go from one process to another. It is made before the processes are, and
/// removes what they leave when they are gone.
class Transport {
public:
    virtual ~Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    /// Name of the element that sends, and of the one that receives.
    [[nodiscard]] const std::string& Name() const { return name_; }

    /// What stands behind the writer's source, as gst-launch-1.0 takes it.
    [[nodiscard]] virtual std::string Sending() const = 0;

    /// What stands before the reader's sink.
    [[nodiscard]] virtual std::string Receiving() const = 0;

    /// How often the bytes of a frame are copied on the writer's side at least.
    [[nodiscard]] virtual unsigned WriterCopies() const { return 1; }

    /// How often they are copied on the reader's side if they do not end in shared memory there.
    [[nodiscard]] virtual unsigned ReaderCopies() const { return 1; }

    /// Called in each process, to let go of what belongs to the other.
    virtual void BecomeWriter() {}
    virtual void BecomeReader() {}

    /// Called when both processes have ended, however.
    /// @param writer  the writer's process
    virtual void Remove(pid_t writer) noexcept = 0;

protected:
    explicit Transport(std::string name) : name_(std::move(name)) {}

private:
    std::string name_;
};

/// What `MakeTransport` takes, in the order of the report; the first is what ratios refer to.
[[nodiscard]] const std::vector<std::string>& TransportKinds();

/// @param kind  one of `TransportKinds`
/// @param name  of no object yet
/// @throws RingError, std::invalid_argument
[[nodiscard]] std::unique_ptr<Transport> MakeTransport(const std::string& kind,
                                                       const std::string& name, const Plan& plan);

}  // namespace qel
