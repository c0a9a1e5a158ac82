#include "view/ViewServer.h"

#include <httplib.h>
#include <sys/socket.h>

#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "view/MessageCache.h"
#include "view/ViewAccess.h"
#include "view/ViewPage.h"
#include "view/ViewTake.h"

namespace KelView {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMaxRequestBody = 1024;
// A connection that sends nothing holds one of the bounded threads until its
// read times out: short times keep idle or stalled clients from starving the
// others.
constexpr int kKeepAliveSeconds = 2;
constexpr int kReadTimeoutSeconds = 2;
constexpr int kWriteTimeoutSeconds = 10;

// The page may run its own inline scripts and talk to this server, nothing
// else: no other origin, no frames around it, no plug-ins.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; img-src 'self' blob: data:; "
    "connect-src 'self'; worker-src blob:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// Answers 200 with `body`, sent as it is. Bodies given to a content
// provider are never compressed by the library: on loopback compression
// costs far more than it saves (brotli takes over half a second for the
// index of 100,000 atoms, which is sent uncompressed in 20 ms). The response
// holds a reference to the body while it is sent.
void SendBody(httplib::Response& res, std::shared_ptr<const std::string> body, const char* contentType) {
    res.status = 200;
    const std::size_t size = body->size();
    res.set_content_provider(size, contentType,
                             [body = std::move(body)](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                 return sink.write(body->data() + offset, std::min(length, body->size() - offset));
                             });
}

void SendJson(httplib::Response& res, const Json& body) {
    SendBody(res, std::make_shared<const std::string>(body.dump(-1, ' ', false, Json::error_handler_t::replace)),
             "application/json");
}

void SendError(httplib::Response& res, int status, const std::string& message) {
    res.status = status;
    res.set_content(Json{{"error", message}}.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

// A query number: decimal digits only, no sign or spaces, at most `max`.
// Missing, repeated, malformed or too large gives a message for a 400.
std::optional<std::uint64_t> QueryNumber(const httplib::Request& req, const char* name, std::uint64_t max,
                                         std::string* why) {
    if (req.get_param_value_count(name) != 1) {
        *why = std::string("give '") + name + "' once";
        return std::nullopt;
    }
    const std::string text = req.get_param_value(name);
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const bool digits = !text.empty() && text.size() <= 20 &&
                        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (!digits || ec != std::errc() || ptr != end || value > max) {
        *why = std::string("'") + name + "' must be a decimal number from 0 to " + std::to_string(max);
        return std::nullopt;
    }
    return value;
}

}  // namespace

struct ViewServer::Impl {
    ViewServerOptions options;
    std::vector<std::unique_ptr<ViewTake>> takes;
    MessageCache cache;
    httplib::Server server;
    std::unique_ptr<ViewAccess> access;
    int port = 0;
    std::shared_ptr<const std::string> page = std::make_shared<const std::string>(ViewPage());

    Impl(std::vector<TakeFile> files, ViewServerOptions o) : options(std::move(o)), cache(options.cacheBytes) {
        for (std::size_t i = 0; i < files.size(); ++i) {
            takes.push_back(std::make_unique<ViewTake>(static_cast<std::uint32_t>(i), std::move(files[i])));
        }
    }

    ViewTake* TakeOf(const httplib::Request& req, httplib::Response& res) {
        std::string why;
        const auto number = QueryNumber(req, "take", std::numeric_limits<std::uint32_t>::max(), &why);
        if (!number) {
            SendError(res, 400, why);
            return nullptr;
        }
        if (*number >= takes.size()) {
            SendError(res, 404,
                      "no take " + std::to_string(*number) + " (there are " + std::to_string(takes.size()) + ")");
            return nullptr;
        }
        ViewTake* take = takes[*number].get();
        if (!take->Opened()) {
            SendError(res, 404, "take " + std::to_string(*number) + " could not be opened");
            return nullptr;
        }
        return take;
    }

    httplib::Server::HandlerResponse Admit(const httplib::Request& req, httplib::Response& res) {
        if (req.method != "GET" && req.method != "HEAD") {
            SendError(res, 405, "only GET is answered");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (!access->HostAllowed(req.get_header_value("Host"))) {
            SendError(res, 403, "this server answers only requests addressed to it");
            return httplib::Server::HandlerResponse::Handled;
        }
        const std::string offered =
            req.has_header("X-Kel-Token") ? req.get_header_value("X-Kel-Token") : req.get_param_value("token");
        if (!access->TokenMatches(offered)) {
            SendError(res, 403, "a valid token is required");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    }

    void Atom(const httplib::Request& req, httplib::Response& res) {
        ViewTake* take = TakeOf(req, res);
        if (take == nullptr) {
            return;
        }
        std::string why;
        const auto stream = QueryNumber(req, "stream", std::numeric_limits<std::uint16_t>::max(), &why);
        const auto frame =
            stream ? QueryNumber(req, "frame", std::numeric_limits<std::uint32_t>::max(), &why) : std::nullopt;
        if (!stream || !frame) {
            SendError(res, 400, why);
            return;
        }
        if (!take->HasStream(static_cast<std::uint16_t>(*stream))) {
            SendError(res, 404, "the take has no stream " + std::to_string(*stream));
            return;
        }
        if (*frame >= take->NumFrames()) {
            SendError(res, 404,
                      "frame " + std::to_string(*frame) + " is out of range: the take has " +
                          std::to_string(take->NumFrames()) + " frame positions");
            return;
        }
        const AtomPlace place{take->Number(), static_cast<std::uint16_t>(*stream), static_cast<std::uint32_t>(*frame)};
        MessageCache::Message message = cache.Find(place);
        if (!message) {
            std::optional<std::string> read = take->ReadAtom(place.stream, place.frame);
            if (!read) {
                SendError(res, 404,
                          "stream " + std::to_string(*stream) + " holds no atom at frame " + std::to_string(*frame));
                return;
            }
            message = std::make_shared<const std::string>(std::move(*read));
            cache.Put(place, message);
        }
        // The cached message is shared: eviction while it is sent frees
        // nothing in use.
        SendBody(res, std::move(message), "application/octet-stream");
    }

    void Route() {
        server.set_pre_routing_handler(
            [this](const httplib::Request& req, httplib::Response& res) { return Admit(req, res); });
        server.set_post_routing_handler([](const httplib::Request& /*req*/, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_header("Referrer-Policy", "no-referrer");
            res.set_header("X-Frame-Options", "DENY");
            res.set_header("Cross-Origin-Resource-Policy", "same-origin");
            res.set_header("Cross-Origin-Opener-Policy", "same-origin");
            res.set_header("Content-Security-Policy", kContentSecurityPolicy);
        });
        server.set_error_handler([](const httplib::Request& /*req*/, httplib::Response& res) {
            if (res.body.empty()) {
                SendError(res, res.status, res.status == 404 ? "no such page" : "bad request");
            }
        });
        server.set_exception_handler(
            [](const httplib::Request& /*req*/, httplib::Response& res, std::exception_ptr /*error*/) {
                SendError(res, 500, "the server failed to answer this request");
            });
        server.Get("/", [this](const httplib::Request& /*req*/, httplib::Response& res) {
            SendBody(res, page, "text/html; charset=utf-8");
        });
        server.Get("/api/takes", [this](const httplib::Request& /*req*/, httplib::Response& res) {
            Json list = Json::array();
            for (const auto& take : takes) {
                list.push_back(take->Listing());
            }
            SendJson(res, Json{{"takes", std::move(list)}});
        });
        server.Get("/api/index", [this](const httplib::Request& req, httplib::Response& res) {
            if (ViewTake* take = TakeOf(req, res)) {
                SendJson(res, take->Index());
            }
        });
        server.Get("/api/summary", [this](const httplib::Request& req, httplib::Response& res) {
            if (ViewTake* take = TakeOf(req, res)) {
                SendJson(res, take->Summary());
            }
        });
        server.Get("/api/atom", [this](const httplib::Request& req, httplib::Response& res) { Atom(req, res); });
    }
};

ViewServer::ViewServer(std::vector<TakeFile> takes, ViewServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(takes), std::move(options))) {}

ViewServer::~ViewServer() = default;

bool ViewServer::Bind(std::string* error) {
    Impl& impl = *impl_;
    const int threads = std::max(impl.options.threads, 1);
    impl.server.new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<std::size_t>(threads)); };
    impl.server.set_payload_max_length(kMaxRequestBody);
    // Small answers on a kept-alive connection must not wait for the
    // client's delayed acknowledgement (Nagle's algorithm): 40 ms a request.
    impl.server.set_tcp_nodelay(true);
    impl.server.set_keep_alive_max_count(100);
    impl.server.set_keep_alive_timeout(kKeepAliveSeconds);
    impl.server.set_read_timeout(kReadTimeoutSeconds);
    impl.server.set_write_timeout(kWriteTimeoutSeconds);
    // SO_REUSEADDR only: a restarted server gets its port back, and no other
    // process can bind it beside this one (as SO_REUSEPORT would allow).
    int listening = -1;
    impl.server.set_socket_options([&listening](socket_t sock) {
        const int on = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        listening = sock;
    });
    if (impl.options.port == 0) {
        impl.port = impl.server.bind_to_any_port(impl.options.host);
    } else {
        impl.port = impl.server.bind_to_port(impl.options.host, impl.options.port) ? impl.options.port : -1;
    }
    if (impl.port <= 0) {
        *error = "cannot listen on " + impl.options.host + ":" + std::to_string(impl.options.port) +
                 " (is the port taken, or the address not this machine's?)";
        return false;
    }
    // The library listens with a backlog of 5: a page that opens its
    // connections while a few others arrive would have some refused and
    // retried seconds later. Listening again raises the backlog.
    ::listen(listening, SOMAXCONN);
    impl.access = std::make_unique<ViewAccess>(NewAccessToken(), impl.options.host, impl.port);
    impl.Route();
    return true;
}

std::string ViewServer::Url() const {
    const std::string& host = impl_->options.host;
    const bool ipv6 = host.find(':') != std::string::npos;
    return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(impl_->port) +
           "/?token=" + impl_->access->Token();
}

bool ViewServer::Run() { return impl_->server.listen_after_bind(); }

bool ViewServer::Running() const { return impl_->server.is_running(); }

void ViewServer::Stop() { impl_->server.stop(); }

}  // namespace KelView
