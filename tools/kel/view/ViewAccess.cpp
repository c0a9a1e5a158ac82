#include "view/ViewAccess.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <stdexcept>

namespace KelView {

namespace {

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

}  // namespace

bool IsLoopbackHost(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string NewAccessToken() {
    std::array<std::uint8_t, 32> bytes{};
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::getrandom(bytes.data() + got, bytes.size() - got, 0);
        if (n <= 0) {
            throw std::runtime_error("the kernel gave no random bytes for the access token");
        }
        got += static_cast<std::size_t>(n);
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string token;
    for (const std::uint8_t b : bytes) {
        token += kHex[b >> 4];
        token += kHex[b & 0xFU];
    }
    return token;
}

ViewAccess::ViewAccess(std::string token, const std::string& listenHost, int port) : token_(std::move(token)) {
    const std::string suffix = ":" + std::to_string(port);
    const std::string host = Lower(listenHost);
    if (IsLoopbackHost(host)) {
        for (const char* name : {"127.0.0.1", "localhost", "[::1]"}) {
            hosts_.push_back(name + suffix);
        }
    }
    // An IPv6 address is written in brackets in a Host header.
    const bool ipv6 = host.find(':') != std::string::npos;
    hosts_.push_back((ipv6 ? "[" + host + "]" : host) + suffix);
}

bool ViewAccess::TokenMatches(std::string_view offered) const noexcept {
    // Every byte of the expected token is compared whatever the offered text
    // holds; only its length (public: always 64) shows in the time taken.
    unsigned difference = offered.size() == token_.size() ? 0U : 1U;
    for (std::size_t i = 0; i < token_.size(); ++i) {
        const char o = i < offered.size() ? offered[i] : '\0';
        difference |= static_cast<unsigned>(static_cast<unsigned char>(o) ^ static_cast<unsigned char>(token_[i]));
    }
    return difference == 0;
}

bool ViewAccess::HostAllowed(std::string_view host) const {
    const std::string lower = Lower(host);
    return std::find(hosts_.begin(), hosts_.end(), lower) != hosts_.end();
}

}  // namespace KelView
