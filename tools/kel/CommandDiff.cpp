#include <KEL/ReadKEL2File.h>

#include <iostream>
#include <map>
#include <memory>
#include <utility>

#include "AtomDifference.h"
#include "Command.h"

namespace KelTool {

namespace {

struct DiffOptions {
    std::string a;
    std::string b;
    std::size_t maxLines = 20;
};

using Key = std::pair<std::uint16_t, std::uint32_t>;

std::unique_ptr<KEL::ReadKEL2File> Open(const std::string& path, std::string* error) {
    auto reader = std::make_unique<KEL::ReadKEL2File>(path.c_str());
    if (const KEL::KelErrorCode code = reader->Initialize(); code != KEL::KEL_OK) {
        *error = CannotOpen(path, *reader, code);
        return nullptr;
    }
    return reader;
}

// Every (stream, frame) of a file, with its position in file order (the
// first one written, as readers return it).
std::map<Key, std::uint64_t> Keys(const KEL::ReadKEL2File& reader) {
    std::map<Key, std::uint64_t> keys;
    const auto listed = reader.ListAtoms();
    for (std::uint64_t i = 0; i < listed.size(); ++i) {
        keys.try_emplace(Key{listed[i].streamId, listed[i].frameNr}, i);
    }
    return keys;
}

std::string Name(const Key& key) {
    return "stream " + std::to_string(key.first) + " frame " + std::to_string(key.second);
}

int RunDiff(const DiffOptions& options) {
    std::string error;
    const auto a = Open(options.a, &error);
    const auto b = a ? Open(options.b, &error) : nullptr;
    if (!b) {
        return Fail(error);
    }
    const auto keysA = Keys(*a);
    const auto keysB = Keys(*b);
    std::uint64_t same = 0;
    std::uint64_t differ = 0;
    std::uint64_t onlyA = 0;
    std::uint64_t onlyB = 0;
    std::size_t lines = 0;
    const auto say = [&](const std::string& line) {
        if (lines++ < options.maxLines) {
            std::cout << line << "\n";
        }
    };
    for (const auto& [key, position] : keysA) {
        const auto other = keysB.find(key);
        if (other == keysB.end()) {
            ++onlyA;
            say("only in " + options.a + ": " + Name(key));
            continue;
        }
        const auto x = a->GetAtomAt(position);
        const auto y = b->GetAtomAt(other->second);
        const std::string difference = x && y ? AtomDifference(*x, *y) : std::string("an atom is damaged");
        if (difference.empty()) {
            ++same;
        } else {
            ++differ;
            say(Name(key) + " differs: " + difference);
        }
    }
    for (const auto& [key, position] : keysB) {
        if (keysA.count(key) == 0) {
            ++onlyB;
            say("only in " + options.b + ": " + Name(key));
        }
    }
    if (lines > options.maxLines) {
        std::cout << "... and " << (lines - options.maxLines) << " more\n";
    }
    std::cout << same << " atom(s) the same, " << differ << " differ, " << onlyA << " only in " << options.a << ", "
              << onlyB << " only in " << options.b << "\n";
    return differ + onlyA + onlyB == 0 ? kExitOk : kExitFailure;
}

}  // namespace

Command AddDiffCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<DiffOptions>();
    CLI::App* app = root.add_subcommand(
        "diff", "Compare two container files atom by atom (content, not bytes); exit 1 when they differ");
    app->add_option("A", options->a, "The first .kel file")->required();
    app->add_option("B", options->b, "The second .kel file")->required();
    app->add_option("--max-lines", options->maxLines, "Differences listed (default 20)")->type_name("N");
    return {app, [options] { return RunDiff(*options); }};
}

}  // namespace KelTool
