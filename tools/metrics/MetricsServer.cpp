#include "MetricsServer.h"

#include <CivetServer.h>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "File.h"

namespace qel {
ListenAddress::ListenAddress(const std::string& text) {
    const auto colon = text.find(':');
    host_ = text.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    const char* const end = port.data() + port.size();
    const auto [rest, error] = std::from_chars(port.data(), end, port_);
    if (inet_pton(AF_INET, host_.c_str(), &address_) != 1 || error != std::errc() || rest != end) {
        throw std::invalid_argument(
            fmt::format("{} is not an IPv4 address and a port, such as 127.0.0.1:9464", text));
    }
}

std::string ListenAddress::Text() const {
    return fmt::format("{}:{}", host_, port_);
}

int ListenAddress::ErrorOfListening() const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr = address_;
    const File socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int reuse = 1;  // as the server does
    const bool listens =
        socket.IsOpen() &&
        setsockopt(socket.Fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == 0 &&
        bind(socket.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        listen(socket.Fd(), 1) == 0;
    return listens ? 0 : errno;
}

MetricsServer::MetricsServer(const ListenAddress& address,
                             std::shared_ptr<prometheus::Collectable> source)
    : source_(std::move(source)) {
    const std::vector<std::string> options{"listening_ports",    address.Text(), "num_threads", "4",
                                           "request_timeout_ms", "3000"};
    try {
        exposer_ = std::make_unique<prometheus::Exposer>(options);
    } catch (const CivetException& failure) {
        const int error = address.ErrorOfListening();
        throw std::runtime_error(
            error == 0 ? fmt::format("cannot listen on {}: {}", address.Text(), failure.what())
                       : fmt::format("cannot listen on {}: {}({})", address.Text(), error,
                                     std::strerror(error)));
    }
    exposer_->RegisterCollectable(source_);
    const auto port = static_cast<unsigned>(exposer_->GetListeningPorts().at(0));
    url_ = fmt::format("http://{}:{}/metrics", address.Host(), port);
}

}  // namespace qel
