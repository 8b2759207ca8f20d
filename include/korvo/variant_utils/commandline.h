/**
 * @file
 * A program's command line: declare its options, print a help text from the declarations, parse the
 * arguments.
 *
 * @code
 * korvo::variant::Variant options, result;
 * AddParameter(options, 'p', "port", "Listening port", 554);
 * ParseCommandLine(argc, argv, options, result);
 * int port = OptionValue(options, result, "port");  // 554 without -p=... or --port=...
 * @endcode
 *
 * The declarations are a Variant that the host owns: "all" holds one record per declaration in order,
 * "byShortName" and "byLongName" the last record declared under a name. A record is a map with "longName",
 * "shortName", "description" and "defaultValue".
 *
 * Threads: the functions keep no state; no other thread may use the values passed to them during a call. A
 * text argument may alias a value that the call changes. Errors: the only exception is std::bad_alloc.
 */
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"

namespace korvo::variant {

/**
 * Declares one option. A name declared again replaces the earlier declaration for parsing; the help lists
 * both.
 *
 * Any names are accepted, but no argument can give the short names "=", "-" and the zero character, nor a
 * long name that holds "=" or "/" or stands in brackets, such as "[x]".
 *
 * @param definitions   the declarations so far; a new Variant for the first
 * @param shortName     the option's letter, as in `-p`; a character of any code
 * @param longName      the option's name without dashes, as in `--port`
 * @param description   the help's text about the option
 * @param defaultValue  the value of an option given without one; its type selects the help's format
 */
KORVO_VARIANT_UTILS_EXPORT void AddParameter(Variant& definitions, char shortName, const char* longName,
                                             const char* description, const Variant& defaultValue);

/**
 * Prints the help text to standard output: a usage line, one line per declaration in order of declaration, an
 * empty line. Numbers look the same in every locale.
 *
 * @param programName  the program's name in the usage line
 * @param definitions  the declarations; receives members it lacks, and is otherwise left alone
 */
KORVO_VARIANT_UTILS_EXPORT void PrintHelp(const char* programName, Variant& definitions);

/**
 * Parses an argument vector against the declarations. Parsing never fails: an argument that is no declared
 * option is logged as a warning and collected, and the host decides what that means.
 *
 * An option is `-c`, `-c=VALUE`, `--name` or `--name=VALUE`, split at the first "=". Without a value, or with
 * an empty one, it receives a copy of its declared default. If given twice, the later value counts. The
 * spelling of a value alone determines its type, whatever the locale and the type of the default:
 *
 * - Digits become an unsigned 64-bit integer, with "-" in front a signed one. They are hexadecimal after "0x"
 *   and octal after "0": `8080`, `-3`, `0x1F`, `010`. Beyond the signed 64-bit range they become its nearest
 *   limit: 18446744073709551615 becomes 9223372036854775807.
 * - A number with a "." becomes a double, `2.5`, or a signed 64-bit integer if it is whole and fits: `1.0`,
 *   `1.5e3`. One too large for a double becomes infinity.
 * - Anything else is a string, even what is almost a number: `08`, `1e3`, `0X1F`, `0b11`, `1_000`, `inf`.
 *
 * An option takes no value from the next argument, and letters do not combine: every argument without a "-"
 * in front is collected, and so is `-abc`. `--` has no special meaning: it is the option with the empty long
 * name.
 *
 * @param argc         the number of arguments, the program's name included; may be 0
 * @param argv         the arguments; null ones are skipped
 * @param definitions  the declarations
 * @param result       receives "parameters", a map from long names to values; "unknownParameters", an array
 *                     of the collected arguments, each whole; and "commandLine", a map with "executed", the
 *                     program's name as given, and "fullPath", its canonical path seen from the working
 *                     directory, or null where there is none (as for most programs found through PATH). Other
 *                     members stay; "parameters" and "unknownParameters" are made only when needed.
 */
KORVO_VARIANT_UTILS_EXPORT void ParseCommandLine(int argc, const char** argv, Variant& definitions,
                                                 Variant& result);

/**
 * The same for the `char**` of main(). A template, since a plain overload would make `{}` and a null pointer
 * ambiguous.
 */
template <class Character, std::enable_if_t<std::is_same<Character, char>::value, int> = 0>
void ParseCommandLine(int argc, Character** argv, Variant& definitions, Variant& result) {
    ParseCommandLine(argc, const_cast<const char**>(argv), definitions, result);
}

/**
 * A copy of an option's value in the @p result of ParseCommandLine(), or else of its declared default; null
 * for an option that is not declared. @p longName is without "/" and not in brackets.
 */
KORVO_VARIANT_UTILS_EXPORT Variant OptionValue(const Variant& definitions, const Variant& result,
                                               const char* longName);

/**
 * The values typed for an option by its long or short name, in order and byte for byte; empty where it had
 * none. ParseCommandLine() turns `--user=010` into the number 8; this returns `010`. The parameters
 * are those of ParseCommandLine() and OptionValue().
 */
KORVO_VARIANT_UTILS_EXPORT std::vector<std::string> OptionTexts(int argc, const char* const* argv,
                                                                const Variant& definitions,
                                                                const char* longName);

}  // namespace korvo::variant
