// Shell tasks: JXUtilities::openTask runs a command line through /bin/sh. These
// helpers put untrusted text (file names) into such a command line as data.
#pragma once

#include <string>
#include <string_view>

namespace jx {

// The text to place between double quotes so that the shell reads it back
// unchanged: '"', '$', '`' and '\' get a backslash, everything else (a newline
// too) is literal inside double quotes. Text without those characters is returned as it is.
std::string shellEscapedForDoubleQuotes(std::string_view text);

// One shell word that reads back as the text: unchanged when it holds only
// characters the shell gives no meaning to, otherwise single-quoted.
std::string shellWord(std::string_view text);

}  // namespace jx
