// kel batch: the Python module's kel.batch (Dask) run from the tool. The tool
// replaces itself with the interpreter the module was built for, running
// `-m kel.batch` with every argument after "batch", and points it at the
// module of its own build tree or installation.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "Command.h"

namespace KelTool {

namespace {

namespace fs = std::filesystem;

#if KEL_HAS_PYTHON_MODULE
// The directory that holds this tool's `kel` package: <build>/python beside
// the build tree's tools/kel/kel, or <prefix>/<site dir> for <prefix>/bin/kel.
// Empty when neither holds one (the interpreter may still find an installed
// one on its own path).
std::string PackageDirectory(const fs::path& tool) {
    const fs::path dir = tool.parent_path();
    for (const fs::path& candidate : {dir / ".." / ".." / "python", dir / ".." / KEL_PYTHON_SITE_DIR}) {
        std::error_code ec;
        if (fs::is_regular_file(candidate / "kel" / "batch.py", ec)) {
            return candidate.lexically_normal().string();
        }
    }
    return {};
}
#endif

int RunBatch(const std::vector<std::string>& arguments) {
#if KEL_HAS_PYTHON_MODULE
    std::error_code ec;
    const fs::path tool = fs::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return Fail("cannot find the kel tool's own path: " + ec.message());
    }
    if (const std::string package = PackageDirectory(tool); !package.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): single-threaded here, and the process is replaced next
        const char* before = std::getenv("PYTHONPATH");
        const std::string path = package + (before != nullptr && *before != '\0' ? ":" + std::string(before) : "");
        ::setenv("PYTHONPATH", path.c_str(), 1);
    }
    // kel.dask.copy runs this very tool on the workers it starts.
    ::setenv("KEL_TOOL", tool.c_str(), 0);
    std::vector<std::string> words{KEL_PYTHON_EXECUTABLE, "-m", "kel.batch"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    ::execv(KEL_PYTHON_EXECUTABLE, argv.data());
    return Fail(std::string("cannot run ") + KEL_PYTHON_EXECUTABLE + ": " + std::strerror(errno));
#else
    (void)arguments;
    return Fail("this kel was built without the Python module (KEL_BUILD_PYTHON=OFF), which kel batch runs");
#endif
}

}  // namespace

Command AddBatchCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    CLI::App* app = root.add_subcommand(
        "batch",
        "Verify, copy or summarise many files on a Dask cluster: kel batch verify|copy|info PATH... "
        "[--scheduler ADDRESS] [--workers N] (kel batch --help lists the options; runs the Python module kel.batch)");
    // Every word after "batch" is kel.batch's, --help and the options that
    // kel itself knows included.
    app->prefix_command();
    app->fallthrough(false);
    app->set_help_flag();
    return {app, [app] { return RunBatch(app->remaining()); }};
}

}  // namespace KelTool
