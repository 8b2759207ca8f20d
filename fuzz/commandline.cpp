// Any argument vector (zero bytes divide the input) against declarations: every argument is either an option with a
// value or collected as it stood, and the help can be printed.

#include "korvo/variant_utils/commandline.h"

#include <cstring>

#include "fuzz.h"

using namespace korvo::variant;

void check(const std::string& input) {
    static const bool silenced = std::freopen("/dev/null", "w", stdout) != nullptr;
    FUZZ_CHECK(silenced);
    std::vector<const char*> arguments;
    for (std::size_t i = 0; i <= input.size(); i += std::strlen(&input[i]) + 1)
        arguments.push_back(&input[i]);

    Variant options, result;
    AddParameter(options, 'p', "port", "An integer", 554);
    AddParameter(options, 'v', "verbose", "A boolean", false);
    AddParameter(options, 'g', "gain", "A double", 0.5);
    AddParameter(options, '\xe9', "", "A string", "text");
    if (*arguments[0] != '\0') AddParameter(options, *arguments[0], arguments[0], arguments[0], arguments[0]);
    ParseCommandLine(static_cast<int>(arguments.size()), arguments.data(), options, result);
    std::size_t next = 1;
    for (const auto& [index, argument] : result["unknownParameters"].Indexed()) {
        while (next < arguments.size() && argument != arguments[next]) ++next;
        FUZZ_CHECK(next++ < arguments.size());
    }
    const std::size_t given = arguments.size() - 1 - result["unknownParameters"].Size();
    FUZZ_CHECK(result["parameters"].Size() <= given);
    FUZZ_CHECK((result["parameters"].Size() > 0) == (given > 0));
    PrintHelp(arguments[0], options);
}
