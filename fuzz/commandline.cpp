// Any argument vector (zero bytes divide the input) against fixed declarations: every argument is either an
// option with a value or collected as it stood.

#include "korvo/variant_utils/commandline.h"

#include <fcntl.h>
#include <unistd.h>

#include <iterator>
#include <vector>

#include "fuzz.h"

using namespace korvo::variant;

namespace {

/** The help of the declarations goes nowhere, but is formatted. */
bool silenceStandardOutput() {
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    return ::dup2(nowhere, STDOUT_FILENO) >= 0;
}

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
    static const bool silenced = silenceStandardOutput();
    FUZZ_CHECK(silenced);
    fuzz::beSilent();
    std::vector<std::string> arguments(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back() += static_cast<char>(data[i]);
        }
    }
    std::vector<const char*> vector;
    for (const std::string& argument : arguments) vector.push_back(argument.c_str());

    Variant options = declarations(arguments[0]);
    Variant result;
    ParseCommandLine(static_cast<int>(vector.size()), vector.data(), options, result);
    Variant& unknown = result["unknownParameters"];
    Variant& known = result["parameters"];
    const auto collected = static_cast<std::size_t>(std::distance(unknown.num_begin(), unknown.num_end()));
    const auto options_given = static_cast<std::size_t>(std::distance(known.begin(), known.end()));
    FUZZ_CHECK(collected + options_given <= vector.size() - 1);
    FUZZ_CHECK((collected < vector.size() - 1) == (options_given > 0));
    std::size_t next = 1;
    for (auto argument = unknown.num_begin(); argument != unknown.num_end(); ++argument) {
        while (next < arguments.size() && Variant(arguments[next]) != argument->second) ++next;
        FUZZ_CHECK(next++ < arguments.size());
    }
    PrintHelp(vector[0], options);
    return 0;
}
