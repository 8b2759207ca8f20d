// Any argument vector (zero bytes divide the input) against declarations: every argument is either an option with a
// value or collected as it stood, and the help can be printed.

#include "korvo/variant_utils/commandline.h"

#include <cstring>

#include "fuzz.h"

using namespace korvo::variant;

namespace {

Variant declarations(const std::string& name) {
    Variant options;
    AddParameter(options, 'p', "port", "An integer", 554);
    AddParameter(options, 'v', "verbose", "A boolean", false);
    AddParameter(options, 'g', "gain", "A double", 0.5);
    AddParameter(options, '\xe9', "", "A string", "text");
    if (!name.empty()) AddParameter(options, name[0], name.c_str(), name.c_str(), name);
    return options;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool silenced = std::freopen("/dev/null", "w", stdout) != nullptr;
    FUZZ_CHECK(silenced);
    fuzz::beSilent();
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<const char*> arguments;
    for (std::size_t i = 0; i <= size; i += std::strlen(&text[i]) + 1) arguments.push_back(&text[i]);

    Variant options = declarations(arguments[0]), result;
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
    return 0;
}
