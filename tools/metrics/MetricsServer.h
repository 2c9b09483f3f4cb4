#pragma once

#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <cstdint>
#include <memory>
#include <string>

namespace qel {

/// Where to listen, as the user writes it: "127.0.0.1:9464".
class ListenAddress {
public:
    /// @throws std::invalid_argument unless `text` is an IPv4 address and a port, 0 for any
    explicit ListenAddress(const std::string& text);

    [[nodiscard]] const std::string& Host() const noexcept { return host_; }
    [[nodiscard]] std::string Text() const;

    /// Why nothing can listen there: the error of an attempt; 0 if it succeeds.
    [[nodiscard]] int ErrorOfListening() const;

private:
    std::string host_;
    in_addr address_{};
    std::uint16_t port_ = 0;
};

/// Serves what `source` collects by HTTP, at /metrics, until it is destroyed. `source` is asked
/// from threads of the server, several of them at once.
class MetricsServer {
public:
    /// @throws std::runtime_error when it cannot listen there
    MetricsServer(const ListenAddress& address, std::shared_ptr<prometheus::Collectable> source);

    /// Where the metrics are: "http://127.0.0.1:9464/metrics".
    [[nodiscard]] const std::string& Url() const noexcept { return url_; }

private:
    std::shared_ptr<prometheus::Collectable> source_;
    std::unique_ptr<prometheus::Exposer> exposer_;
    std::string url_;
};

}  // namespace qel
