#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Texts on their way to a screen, into JSON and out of a script line.

bool isUtf8(std::string_view text);

std::string base64(std::string_view bytes);
/// None when `text` is not base64 with its padding.
std::optional<std::string> fromBase64(std::string_view text);

/// One line that a terminal can show: control characters and bytes that are not UTF-8 as \xNN.
std::string printable(std::string_view text);

/// Columns on the screen that a printable text takes: its UTF-8 characters.
std::size_t screenWidth(std::string_view text);

/// Splits a script line as a shell would: blanks separate, '…' is literal, "…" and a backslash
/// quote, # begins a comment. Throws a Failure (usage) when a quote is left open.
std::vector<std::string> splitWords(std::string_view line);
