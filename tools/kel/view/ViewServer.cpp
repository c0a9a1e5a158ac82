#include "view/ViewServer.h"

#include <httplib.h>

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

void SendJson(httplib::Response& res, int status, const Json& body) {
    res.status = status;
    res.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void SendError(httplib::Response& res, int status, const std::string& message) {
    SendJson(res, status, Json{{"error", message}});
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
        // The response owns a reference to the cached message while it is
        // sent, so eviction meanwhile frees nothing in use.
        res.status = 200;
        res.set_content_provider(message->size(), "application/octet-stream",
                                 [message](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                     return sink.write(message->data() + offset,
                                                       std::min(length, message->size() - offset));
                                 });
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
        server.Get("/", [](const httplib::Request& /*req*/, httplib::Response& res) {
            const std::string_view page = ViewPage();
            res.set_content(page.data(), page.size(), "text/html; charset=utf-8");
        });
        server.Get("/api/takes", [this](const httplib::Request& /*req*/, httplib::Response& res) {
            Json list = Json::array();
            for (const auto& take : takes) {
                list.push_back(take->Listing());
            }
            SendJson(res, 200, Json{{"takes", std::move(list)}});
        });
        server.Get("/api/index", [this](const httplib::Request& req, httplib::Response& res) {
            if (ViewTake* take = TakeOf(req, res)) {
                SendJson(res, 200, take->Index());
            }
        });
        server.Get("/api/summary", [this](const httplib::Request& req, httplib::Response& res) {
            if (ViewTake* take = TakeOf(req, res)) {
                SendJson(res, 200, take->Summary());
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
    impl.server.set_keep_alive_max_count(100);
    impl.server.set_keep_alive_timeout(kKeepAliveSeconds);
    impl.server.set_read_timeout(kReadTimeoutSeconds);
    impl.server.set_write_timeout(kWriteTimeoutSeconds);
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

void ViewServer::Stop() { impl_->server.stop(); }

}  // namespace KelView
