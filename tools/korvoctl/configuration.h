/** @file Configurations as korvoctl looks at them: without the lock, and compared with one another. */
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "korvo/utils/flash.h"
#include "korvo/variant/variant.h"
#include "korvo/variant_utils/system_cfg.h"

namespace korvoctl {

/** The values of a configuration by their dotted keys. */
using Values = std::map<std::string, std::string>;

std::string workingCopyPath();
using korvo::utils::flashCopyPath;

/**
 * Reads a whole file, which may be a pipe; "-" means standard input.
 * @return false, with errno set, when it cannot be read
 */
[[nodiscard]] bool readWhole(const std::string& name, std::string& text);

/** The name of a file as messages have it: "-" is standard input. */
std::string shownName(const std::string& name);

/** A fault as compilers tell it: `FILE:LINE: REASON`. */
std::string describe(const std::string& name, const SystemCfgManager::Fault& fault);

/**
 * Why the configuration in a file cannot be used: the reason that it cannot be read, its first fault, or that
 * it holds no values.
 */
std::string firstFault(const std::string& path);

/**
 * Loads the configuration in a file as the store does. False, with the reason told, when it does not load.
 */
[[nodiscard]] bool loadFile(const std::string& path, Values& values);

/** The values of a tree of strings. */
Values valuesOf(const korvo::variant::Variant& tree);

/** The tree in which the values are nested as their keys are. */
korvo::variant::Variant nested(const Values& values);

/** Whether there are values below a key. */
bool isGroup(const Values& values, const std::string& key);

/** The part of the values that has this key or is below it; all for the empty key. */
Values part(const Values& values, const std::string& key);

/** Removes from two configurations what both have, under the same key with the same value. */
void subtractCommon(Values& before, Values& after);

/**
 * What subtractCommon() left as lines in the order of the keys: `-KEY=VALUE` for before, `+KEY=VALUE` for
 * after.
 */
std::string differenceLines(const Values& before, const Values& after);

}  // namespace korvoctl
