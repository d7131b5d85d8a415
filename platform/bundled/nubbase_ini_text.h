// nubbase_ini_text.h - prepares the text of an ini file for the parser, which drops the lines it does not understand
// and some comments, so that a save keeps them.
#ifndef TARN_PLATFORM_BUNDLED_NUBBASE_INI_TEXT_H
#define TARN_PLATFORM_BUNDLED_NUBBASE_INI_TEXT_H

#include <string>
#include <string_view>

namespace IniText {

constexpr char kBlanks[] = " \t\n";

// One line end ("\n") whatever the file uses. Lines that are neither entry, section nor comment are hidden in comments;
// a comment above a section that the file has had before, or behind a section's name, moves below that name. A zero
// byte, as a crash can leave it in a file, ends a line.
[[nodiscard]] std::string Prepare(std::string_view raw);

// Brings the hidden lines of a prepared text back.
[[nodiscard]] std::string Restore(std::string_view prepared);

// The text up to the end of its last line that is neither blank nor a comment.
[[nodiscard]] size_t BodyLength(std::string_view prepared);

// Whether the file's first key is written "key = value" rather than "key=value".
[[nodiscard]] bool UsesSpaces(std::string_view prepared);

} // namespace IniText

#endif
