#pragma once

#include <string>
#include <vector>

namespace KelView {

// A file the server may read, and the name the page shows for it.
struct TakeFile {
    std::string path;  // canonical: absolute, no symbolic links
    std::string name;  // as the user would recognise it: the path relative to the named directory, or as named
};

// The files that `kel view PATH...` may serve, decided once at start: every
// named regular file, and every container file (".kel") directly inside a
// named directory whose canonical path lies inside that directory (a
// symbolic link that leads out of it is left out). Nothing a client sends is
// ever resolved to a path: clients name takes by their index in this list.
// Fails (empty, `error` set) when a named path does not exist or is neither a
// file nor a directory, or when nothing is found to serve.
std::vector<TakeFile> FindTakeFiles(const std::vector<std::string>& paths, std::string* error);

}  // namespace KelView
