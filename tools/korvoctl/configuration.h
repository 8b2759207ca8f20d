/** @file Reads and compares configurations, without the lock. */
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
 * Reads the working copy or the flash copy as the store does: a regular file with one name, through no link.
 * @return false, with errno set, when it cannot be read
 */
[[nodiscard]] bool readCopy(const std::string& path, std::string& text);

/**
 * Reads a whole file, which may be a pipe; "-" means standard input.
 * @return false, with errno set, when it cannot be read
 */
[[nodiscard]] bool readWhole(const std::string& name, std::string& text);

/** Why a file cannot be read, from errno; "-" is standard input. */
std::string describeRead(const std::string& name);

/** A fault as compilers print it: `FILE:LINE: REASON`. */
std::string describe(const std::string& name, const SystemCfgManager::Fault& fault);

/** Why get refuses a key; empty when it does not. */
std::string keyRefusal(const std::string& key);

/** Loads a file as the store does. False, with the reason printed, when it does not load. */
[[nodiscard]] bool loadFile(const std::string& path, Values& values);

/** A text, a number or a boolean as key=value text has it; for finite numbers, JSON has the same. */
std::string textOf(const korvo::variant::Variant& scalar);

/** The values of a tree; an empty map has none. */
Values valuesOf(const korvo::variant::Variant& tree);

/** The member of a tree under a dotted key; made, as null, where there is none. */
korvo::variant::Variant& at(korvo::variant::Variant& tree, const std::string& key);

/** The tree in which the values are nested as their keys are. */
korvo::variant::Variant nested(const Values& values);

/** Whether there are values below a key. */
bool isGroup(const Values& values, const std::string& key);

/** Removes what is under a key and below it. */
void remove(Values& values, const std::string& key);

/** The values under a key and below it; all for the empty key. */
Values part(const Values& values, const std::string& key);

/** Removes from two configurations the values that are the same in both. */
void subtractCommon(Values& before, Values& after);

/**
 * The lines, in key order, for what subtractCommon() left: `-KEY=VALUE` for before, `+KEY=VALUE` for after.
 */
std::string differenceLines(const Values& before, const Values& after);

}  // namespace korvoctl
