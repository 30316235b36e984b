// The root directory under which every fixed path of the system lies.
#pragma once

#include <string>
#include <string_view>

namespace jx {

// The root: "--root DIR" when a binary was given one, else JOULIX_ROOT, else "/".
// Read once; setRoot is for entry code and tests, before the paths are used.
const std::string& root();
void setRoot(const std::string& dir);
// An absolute documented path placed under the root; with the root "/" it is the path itself.
std::string rootPath(std::string_view absolutePath);

}  // namespace jx
