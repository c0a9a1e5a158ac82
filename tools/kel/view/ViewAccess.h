#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace KelView {

// A new secret for the server's address: 32 bytes from the kernel's random
// source, as 64 hexadecimal digits. Throws std::runtime_error when the
// kernel gives none.
std::string NewAccessToken();

// Whether `host` (lower case) names this machine's loopback interface.
bool IsLoopbackHost(const std::string& host);

// Who may ask the server anything: a request that carries the token and
// names, in its Host header, the address the server listens on.
class ViewAccess {
public:
    // `listenHost` is the address given to the server (loopback unless the
    // user said otherwise), `port` the port it got.
    ViewAccess(std::string token, const std::string& listenHost, int port);

    // Compares in time independent of where the texts differ.
    bool TokenMatches(std::string_view offered) const noexcept;
    // Whether `host` (the Host header) names this server: a loopback name of
    // a loopback server, or the address it was given, with its port.
    bool HostAllowed(std::string_view host) const;

    const std::string& Token() const noexcept { return token_; }

private:
    std::string token_;
    std::vector<std::string> hosts_;  // lower case, "name:port"
};

}  // namespace KelView
