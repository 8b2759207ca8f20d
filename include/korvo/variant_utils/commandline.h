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
 * Threads: the functions keep no state. The values handed to them must not be used by another thread
 * meanwhile. Arguments may be texts of the values that a call changes. Errors: nothing is thrown but
 * std::bad_alloc.
 */
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"

namespace korvo::variant {

/**
 * Declares one option.
 *
 * Nothing is checked: any character is a short name and any text a long name. Some of them no argument can
 * give, so that the option has only its other name: the short names "=", "-" and the zero character; a long
 * name that holds "=" or "/", or that stands in brackets, such as "[x]". A name declared again replaces the
 * earlier declaration for parsing; the help lists both.
 *
 * @param definitions   the declarations so far; a new Variant for the first
 * @param shortName     the option's letter, as in `-p`; a character of any code
 * @param longName      the option's name without dashes, as in `--port`
 * @param description   what the help says of it
 * @param defaultValue  what an option given without a value receives; the help shows it by its type
 */
KORVO_VARIANT_UTILS_EXPORT void AddParameter(Variant& definitions, char shortName, const char* longName,
                                             const char* description, const Variant& defaultValue);

/**
 * Prints the help text to standard output: a usage line, one line per declaration in order of declaration, an
 * empty line. Numbers look the same in every locale.
 *
 * @param programName  what the usage line calls the program
 * @param definitions  the declarations; given the members that they lack, otherwise left alone
 */
KORVO_VARIANT_UTILS_EXPORT void PrintHelp(const char* programName, Variant& definitions);

/**
 * Parses an argument vector against the declarations.
 *
 * An option is `-c`, `-c=VALUE`, `--name` or `--name=VALUE`. Only what follows the first "=" is its value;
 * without one, or with an empty one, the option receives a copy of its declared default. Of an option that is
 * given twice the later value counts. The type of a value depends on how it is written, in every locale
 * alike, and never on the type of the default:
 *
 * - Digits become an unsigned 64-bit integer, with "-" in front a signed one. They are hexadecimal after "0x"
 *   and octal after "0": `8080`, `-3`, `0x1F`, `010`. What no signed 64-bit integer can hold becomes the
 *   nearest one: 18446744073709551615 becomes 9223372036854775807.
 * - A number with a "." becomes a double, `2.5`, or a signed 64-bit integer when it is whole and fits into
 *   one: `1.0`, `1.5e3`. One too large for a double becomes infinity.
 * - Anything else is a string, also what is almost a number: `08`, `1e3`, `0X1F`, `0b11`, `1_000`, `inf`.
 *
 * Parsing never fails. What is no declared option is logged as a warning and collected; the host decides what
 * that means. So every argument that does not begin with "-" is collected, also one that follows an option,
 * and several letters after one "-" are. `--` has no special meaning: it is the option with the empty long
 * name.
 *
 * @param argc         the number of arguments, the program's name included; 0 is survived
 * @param argv         the arguments; null ones among them are skipped
 * @param definitions  the declarations
 * @param result       receives "parameters", a map from long names to values; "unknownParameters", an array
 *                     of the arguments that match no declaration, each whole; and "commandLine", a map with
 *                     "executed", the program's name as given, and "fullPath", its canonical path seen from
 *                     the working directory, or null where there is none (often so for a program found
 *                     through PATH). What else the value holds stays; "parameters" and "unknownParameters"
 *                     are made only when needed.
 */
KORVO_VARIANT_UTILS_EXPORT void ParseCommandLine(int argc, const char** argv, Variant& definitions,
                                                 Variant& result);

/**
 * The same for the `char**` of main(). A template, because a plain overload would make `{}` and a null pointer
 * ambiguous.
 */
template <class Character, std::enable_if_t<std::is_same<Character, char>::value, int> = 0>
void ParseCommandLine(int argc, Character** argv, Variant& definitions, Variant& result) {
    ParseCommandLine(argc, const_cast<const char**>(argv), definitions, result);
}

/**
 * What an option is set to: the value that ParseCommandLine() found, or else the declared default.
 *
 * @param definitions  the declarations
 * @param result       what ParseCommandLine() made of the arguments
 * @param longName     the option's long name, without "/" and not in brackets
 * @return a copy; null for an option that is not declared
 */
KORVO_VARIANT_UTILS_EXPORT Variant OptionValue(const Variant& definitions, const Variant& result,
                                               const char* longName);

/**
 * What was typed for an option, byte for byte: where ParseCommandLine() makes the number 8 of `--user=010`,
 * this has the text `010`. An option that was given twice shows as two texts.
 *
 * @param argc         as for ParseCommandLine()
 * @param argv         as for ParseCommandLine()
 * @param definitions  the declarations
 * @param longName     the option's long name; what was given by its short name counts too
 * @return a text for each time that the option was given, in order; empty where it had no value
 */
KORVO_VARIANT_UTILS_EXPORT std::vector<std::string> OptionTexts(int argc, const char* const* argv,
                                                                const Variant& definitions,
                                                                const char* longName);

}  // namespace korvo::variant
