#include <cstdio>
#include <string>

#include "actions.h"
#include "korvo/variant_utils/system_cfg.h"

namespace korvoctl {

// Where the library refuses or fails, it has said why.

ExitStatus printConfigurationValue(const Options& options) {
    SystemCfgManager store;
    std::string value;
    bool missing = false;
    if (!store.init() || !store.get(options.text("get"), &value, &missing)) return Failed;
    if (missing) return failed("there is no value under the key " + options.text("get"));
    // As it is stored: a value has no line breaks, and a script wants its very bytes.
    std::fwrite(value.data(), 1, value.size(), stdout);
    std::fputc('\n', stdout);
    return store.close(false, false) ? Done : Failed;
}

ExitStatus setConfigurationValue(const Options& options) {
    const std::string& assignment = options.text("set");
    const std::size_t equals = assignment.find('=');
    if (equals == std::string::npos) return wrongUsage("--set takes KEY=VALUE");
    SystemCfgManager store;
    if (!store.init()) return Failed;
    if (!store.set(assignment.substr(0, equals), assignment.substr(equals + 1), nullptr)) return Failed;
    return store.close(options.has("save"), options.has("force")) ? Done : Failed;
}

ExitStatus printConfiguration(const Options&) {
    SystemCfgManager store;
    korvo::variant::Variant tree;
    std::string text;
    if (!store.init() || !store.getVariant(tree)) return Failed;
    if (!tree.ToKVP(text, "=", "\n")) return failed("the configuration cannot be written as text");
    std::fwrite(text.data(), 1, text.size(), stdout);
    return store.close(false, false) ? Done : Failed;
}

}  // namespace korvoctl
