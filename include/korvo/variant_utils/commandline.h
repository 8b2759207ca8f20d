/**
 * @file
 * A program's command line: declare its options, print a help text from the declarations, parse the
 * arguments.
 *
 * @code
 * korvo::variant::Variant options, result;
 * AddParameter(options, 'p', "port", "Listening port", 554);
 * ParseCommandLine(argc, argv, options, result);
 * int port = result["parameters"]["port"];
 * @endcode
 *
 * The declarations are a Variant that the host owns: "all" holds one record per declaration in order,
 * "byShortName" and "byLongName" the last record declared under a name. A record is a map with "longName",
 * "shortName", "description" and "defaultValue".
 *
 * Threads: the functions keep no state. The values handed to them must not be used by another thread
 * meanwhile. Errors: nothing is thrown but std::bad_alloc.
 */
#pragma once

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"

namespace korvo::variant {

/**
 * Declares one option.
 *
 * Nothing is checked: any character is a short name and any text a long name. A name declared again replaces
 * the earlier declaration for parsing; the help lists both.
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
 * An option is `-c`, `-c=VALUE`, `--name` or `--name=VALUE`. Only what stands behind "=" is its value;
 * without one, or with an empty one, the option receives a copy of its declared default. What is written like
 * a number becomes one, in every locale alike: `8080` an unsigned 64-bit integer, `-3` a signed one, `0x1F`
 * hexadecimal, `010` octal, `2.5` a double, and `1.0` the signed integer 1. Anything else is held as a
 * string, whatever the type of the default.
 *
 * Parsing never fails. What is no declared option is logged as a warning and collected; the host decides what
 * that means.
 *
 * @param argc         the number of arguments, the program's name included; 0 is survived
 * @param argv         the arguments
 * @param definitions  the declarations
 * @param result       receives "parameters", a map from long names to values; "unknownParameters", an array of
 *                     the arguments that match no declaration, each whole; and "commandLine", a map with
 *                     "executed", the program's name as given, and "fullPath", its canonical path, or null where
 *                     there is none. What else the value holds stays; "parameters" and "unknownParameters" are
 *                     made only when needed.
 */
KORVO_VARIANT_UTILS_EXPORT void ParseCommandLine(int argc, const char** argv, Variant& definitions,
                                                 Variant& result);

}  // namespace korvo::variant
