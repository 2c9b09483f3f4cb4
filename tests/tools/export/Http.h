#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>

namespace qel::test {

/// A socket that is closed at the end.
class Socket {
public:
    Socket() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { (void)close(fd_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    [[nodiscard]] int Fd() const { return fd_; }

    [[nodiscard]] bool Connect(std::uint16_t port) const {
        const sockaddr_in address = Local(port);
        return connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    /// Listens on a free port.
    /// @return the port; 0 where that is not possible
    [[nodiscard]] std::uint16_t Listen() const {
        sockaddr_in address = Local(0);
        socklen_t size = sizeof address;
        auto* const plain = reinterpret_cast<sockaddr*>(&address);
        const bool listens = bind(fd_, plain, size) == 0 && listen(fd_, 1) == 0 &&
                             getsockname(fd_, plain, &size) == 0;
        return listens ? ntohs(address.sin_port) : std::uint16_t{0};
    }

private:
    static sockaddr_in Local(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    int fd_;
};

/// All that a server of this machine answers, headers and body.
inline std::string HttpGet(std::uint16_t port, const std::string& path) {
    const Socket socket;
    EXPECT_TRUE(socket.Connect(port));
    const std::string request =
        "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(write(socket.Fd(), request.data(), request.size()),
              static_cast<ssize_t>(request.size()));
    std::string answer;
    std::array<char, 4096> part{};
    for (ssize_t count = 1; count > 0;) {
        count = read(socket.Fd(), part.data(), part.size());
        answer.append(part.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return answer;
}

}  // namespace qel::test
