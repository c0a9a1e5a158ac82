#pragma once

#include <string_view>

namespace KelView {

// The page of `kel view`: one HTML document with its scripts (three.js
// included) inlined, built from tools/kel/view/page when the tool is built.
std::string_view ViewPage();

}  // namespace KelView
