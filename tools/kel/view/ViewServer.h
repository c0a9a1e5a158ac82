#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "view/TakeCatalog.h"

namespace KelView {

struct ViewServerOptions {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: a free port
    int threads = 16;
    std::size_t cacheBytes = std::size_t{256} << 20U;
};

// The HTTP server of `kel view`: the page and the data of the takes it was
// given, to requests that carry its token and name it in their Host header.
class ViewServer {
public:
    ViewServer(std::vector<TakeFile> takes, ViewServerOptions options);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Binds the address; false with `error` set when that fails.
    bool Bind(std::string* error);
    // The address to open, with the token: "http://HOST:PORT/?token=...".
    std::string Url() const;
    // Answers requests until Stop(); false when the server could not run.
    bool Run();
    // Whether Run() is listening (and Stop() has something to stop).
    bool Running() const;
    // Lets Run() return once the requests in flight are answered. Any thread.
    void Stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace KelView
