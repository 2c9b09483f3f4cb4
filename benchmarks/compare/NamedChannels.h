#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Transport.h"

namespace qel::bench {

/// A transport whose ends find each other by a name.
/// @tparam SenderType, ReceiverType  made of (const std::string& name, const Cell&)
template <typename SenderType, typename ReceiverType>
class NamedChannels final : public Transport {
public:
    using Remove = std::function<void(const std::string&)>;

    /// @param remove  removes what a channel leaves; must not throw
    NamedChannels(const Cell& cell, Remove remove)
        : cell_(cell), remove_(std::move(remove)), names_{UniqueName(0), UniqueName(1)} {}

    ~NamedChannels() override {
        for (const std::string& name : names_) {
            remove_(name);
        }
    }

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        return std::make_unique<SenderType>(names_.at(channel), cell_);
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        return std::make_unique<ReceiverType>(names_.at(channel), cell_);
    }

private:
    Cell cell_;
    Remove remove_;
    std::array<std::string, 2> names_;
};

/// @see NamedChannels
template <typename SenderType, typename ReceiverType>
[[nodiscard]] Kind NamedKind(
    const char* name, std::function<void(const std::string&)> remove = [](const std::string&) {},
    std::function<std::optional<std::string>(const Cell&)> refusal = CarriesAll) {
    return {name,
            [remove](const Cell& cell) {
                return std::make_unique<NamedChannels<SenderType, ReceiverType>>(cell, remove);
            },
            std::move(refusal)};
}

}  // namespace qel::bench
