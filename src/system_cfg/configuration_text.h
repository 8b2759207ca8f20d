/**
 * @file
 * The configuration as text: its lines, what the file's text is to the tree and the tree's to the file, and
 * the count of flash writes. Which lines do not load, and which keys and values are refused, and why, is told
 * by the functions of SystemCfgManager that are defined beside these.
 */
#pragma once

#include <string>
#include <string_view>

namespace korvo::configuration {

constexpr char flashCyclesKey[] = "system.flash.cycles";

/** Whether a key has an index component that is not escaped. */
bool hasBareIndex(std::string_view key);

/** Turns the file's text into the one that the tree is loaded from. */
void toTreeText(std::string& text, bool escapeIndexKeys);

/** Turns the text of a tree with escaped index components into the file's; false when it would not load. */
[[nodiscard]] bool toFileText(std::string& text);

/** Whether a text of the file loads. */
bool loads(const std::string& text);

/** Whether any line of a text is a pair. */
bool holdsSettings(const std::string& text);

/** The integer that a text stands for; the nearest int, whatever the width of long. */
int clampedInt(const char* text);

/** The largest count of flash writes that a line of the text tells, 0 when none does. */
int flashWritesIn(const std::string& text);

/**
 * Raises the count of flash writes in a text that loads, and leaves the rest as it is; false when it would
 * not load any more.
 */
[[nodiscard]] bool raiseFlashWrites(std::string& text, int count);

}  // namespace korvo::configuration
