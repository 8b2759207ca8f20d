/**
 * @file
 * The configuration as text: lines, keys, the count of flash writes, and the way from the file's text to the
 * tree's and back. Also load(), parse(), keyFault() and valueFault() of the manager.
 */
#pragma once

#include <string>
#include <string_view>

#include "korvo/variant_utils/failure.h"

namespace korvo::configuration {

constexpr char flashCyclesKey[] = "system.flash.cycles";

/** The components of a key: `for (Components at{key}; at.next();)`. The empty key has one, which is empty. */
struct Components {
    /** Goes on to the next component; false after the last. */
    bool next();
    bool isLast() const { return end == key.size(); }
    std::string_view key;
    std::string name = {};
    std::size_t begin = 0, end = std::string_view::npos;  ///< of the component, in the key
};

/** Which rule a key breaks that get() refuses; null for one that may name a value. */
const char* pathFault(const std::string& key);

/** Whether a key has an index component that is not escaped. */
bool hasBareIndex(std::string_view key);

/** Turns the file's text into the one that the tree is loaded from. */
std::string treeText(const std::string& text, bool escapeIndexKeys);

/** Turns the text of a tree with escaped index components into the file's; false if that would not load. */
[[nodiscard]] bool toFileText(std::string& text);

/** Whether the text of the file at @p path loads. */
[[nodiscard]] bool loads(const std::string& text, const std::string& path, Failure* failure);

/** What a text holds, whether or not it loads. */
struct Contents {
    bool pairs = false;     ///< a line `key=value`
    bool settings = false;  ///< one other than the count of flash writes
    int largestCount = 0;   ///< of flash writes, 0 when no line has one
    int lastCount = 0;
    std::string_view lastValue = {};  ///< the last of them, as a piece of the text
};

Contents contentsOf(const std::string& text);

/** The integer at the beginning of a text; the nearest int, whatever the width of long. */
int clampedInt(const char* text);

/** Raises the count of flash writes in a text and keeps the rest. The result may not load. */
void raiseFlashWrites(std::string& text, int count);

}  // namespace korvo::configuration
