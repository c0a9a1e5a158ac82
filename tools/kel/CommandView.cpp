#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>

#include "Command.h"
#include "view/TakeCatalog.h"
#include "view/ViewAccess.h"
#include "view/ViewServer.h"

extern char** environ;

namespace KelTool {

namespace {

struct ViewCommandOptions {
    std::vector<std::string> paths;
    std::string host = "127.0.0.1";
    int port = 0;
    bool noBrowser = false;
};

// Opens `url` in the desktop's browser with xdg-open, without waiting for
// it; says so when there is none.
void OpenBrowser(const std::string& url) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string program = "xdg-open";
    std::vector<char*> argv{program.data(), const_cast<char*>(url.c_str()), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, "xdg-open", &actions, nullptr, argv.data(), environ) != 0) {
        std::cerr << "kel view: no browser could be started (xdg-open): open the address above\n";
    }
    posix_spawn_file_actions_destroy(&actions);
}

int RunView(const ViewCommandOptions& options) {
    std::string error;
    std::vector<KelView::TakeFile> takes = KelView::FindTakeFiles(options.paths, &error);
    if (takes.empty()) {
        return Fail(error);
    }
    // SIGINT and SIGTERM are blocked in every thread and taken by this one
    // (sigtimedwait), which stops the server. A client that goes away must not kill the process.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigset_t previousMask;
    pthread_sigmask(SIG_BLOCK, &stopSignals, &previousMask);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previousPipe {};
    sigaction(SIGPIPE, &ignore, &previousPipe);

    KelView::ViewServerOptions serverOptions;
    serverOptions.host = options.host;
    serverOptions.port = options.port;
    KelView::ViewServer server(std::move(takes), serverOptions);
    int status = kExitOk;
    if (!server.Bind(&error)) {
        status = Fail(error);
    } else {
        // The server answers on a thread of its own; the address is printed
        // once it is listening, so whoever reads it can connect at once, and
        // a stop signal from then on always finds a running server to stop.
        std::atomic<bool> ended{false};
        bool ran = false;
        std::thread serving([&server, &ended, &ran] {
            ran = server.Run();
            ended.store(true);
        });
        while (!server.Running() && !ended.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (!ended.load()) {
            std::cout << server.Url() << std::endl;
            if (!KelView::IsLoopbackHost(options.host)) {
                std::cerr << "kel view: warning: listening on " << options.host
                          << ", not only this machine: anyone who can reach it and learns the address above can "
                             "read these takes\n";
            }
            if (!options.noBrowser) {
                OpenBrowser(server.Url());
            }
        }
        // Waits for a stop signal, looking every 200 ms whether the server
        // ended on its own.
        const timespec tick{0, 200'000'000};
        while (!ended.load()) {
            if (sigtimedwait(&stopSignals, nullptr, &tick) > 0) {
                server.Stop();
                break;
            }
        }
        serving.join();
        if (!ran) {
            status = Fail("the server stopped unexpectedly");
        } else {
            std::cerr << "kel view: stopped\n";
        }
    }
    sigaction(SIGPIPE, &previousPipe, nullptr);
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    return status;
}

}  // namespace

Command AddViewCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<ViewCommandOptions>();
    CLI::App* app = root.add_subcommand(
        "view", "Serve takes to a page in the browser: time lines, every camera's picture, meshes and cameras in 3D");
    app->add_option("PATH", options->paths, "Container files, or directories of them")->required();
    app->add_option("--port", options->port, "The port to listen on (default 0: a free one)")
        ->check(CLI::Range(0, 65535));
    app->add_option("--host", options->host,
                    "The address to listen on (default 127.0.0.1; any other is reachable from elsewhere)");
    app->add_flag("--no-browser", options->noBrowser, "Print the address but do not open a browser");
    return {app, [options] { return RunView(*options); }};
}

}  // namespace KelTool
