// Any sequence of store operations, against a plain map from dotted keys to texts.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "fuzz.h"
#include "korvo/variant_utils/system_cfg.h"

namespace {

/** What the store must hold. */
class Model {
  public:
    /** False for what the store must refuse. */
    bool set(const std::string& key, const std::string& value) {
        const bool breaksLine = value.find_first_of(std::string("\n\0", 2)) != std::string::npos ||
                                (!value.empty() && value.back() == '\r');
        if (!isAcceptable(key) || looksMistyped(key) || breaksLine) return false;
        for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', dot + 1)) {
            if (values.count(key.substr(0, dot)) != 0) return false;
        }
        const std::string group = key + '.';
        auto below = values.lower_bound(group);
        while (below != values.end() && below->first.compare(0, group.size(), group) == 0)
            below = values.erase(below);
        values[key] = value;
        return true;
    }

    static bool isAcceptable(const std::string& key) {
        const std::string dotted = '.' + key + '.';
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
        return std::none_of(key.begin(), key.end(), isControl) &&
               key.find_first_of("/[]=") == std::string::npos && dotted.find("..") == std::string::npos &&
               dotted.find(".#") == std::string::npos && std::count(key.begin(), key.end(), '.') < 64;
    }

    /** Keys that are read but not set. */
    static bool looksMistyped(const std::string& key) {
        const std::string dotted = '.' + key + '.';
        if (dotted.find(". ") != std::string::npos || dotted.find(" .") != std::string::npos) return true;
        return key.compare(0, 3, "\xef\xbb\xbf") == 0;
    }

    /** Loading takes whole boolean words for digits. */
    void reload() {
        static const std::set<std::string> on = {"enabled", "enable", "on"};
        static const std::set<std::string> off = {"disabled", "disable", "off"};
        for (auto& entry : values) {
            if (on.count(entry.second) != 0) entry.second = "1";
            if (off.count(entry.second) != 0) entry.second = "0";
        }
    }

    std::map<std::string, std::string> values;
};

std::string someKey(FuzzedDataProvider& input) {
    static const std::vector<std::string> components = {"a",  "bc",  "1",   "_1",       "#",    "",
                                                        "x=", "[a]", "d/e", "\xc3\xa9", "flash"};
    if (input.ConsumeProbability<float>() < 0.1F) return input.ConsumeRandomLengthString(80);
    std::string key = components[input.ConsumeIntegralInRange<std::size_t>(0, components.size() - 1)];
    while (input.ConsumeBool() && key.size() < 300) {
        key += '.' + components[input.ConsumeIntegralInRange<std::size_t>(0, components.size() - 1)];
    }
    return key;
}

std::string someValue(FuzzedDataProvider& input) {
    static const std::vector<std::string> words = {"on", "off", "enabled", "online", "007", "-3", "=on", ""};
    if (input.ConsumeBool()) return words[input.ConsumeIntegralInRange<std::size_t>(0, words.size() - 1)];
    return input.ConsumeRandomLengthString(40);
}

void step(FuzzedDataProvider& input, SystemCfgManager& store, Model& model) {
    const std::string key = someKey(input);
    const auto known = model.values.find(key);
    bool flag = false;
    switch (input.ConsumeIntegralInRange(0, 4)) {
        case 0: {
            const std::string value = someValue(input);
            const bool changes = known == model.values.end() || known->second != value;
            const bool accepted = model.set(key, value);
            FUZZ_CHECK(store.set(key, value, &flag) == accepted);
            FUZZ_CHECK(!accepted || flag == changes);
            break;
        }
        case 1: {
            const int number = input.ConsumeIntegral<int>();
            FUZZ_CHECK(store.set(key, number, nullptr) == model.set(key, std::to_string(number)));
            break;
        }
        case 2: {
            std::string value;
            FUZZ_CHECK(store.get(key, &value, &flag) == Model::isAcceptable(key));
            FUZZ_CHECK(!Model::isAcceptable(key) || flag == (known == model.values.end()));
            FUZZ_CHECK(value == (known == model.values.end() ? "" : known->second));
            break;
        }
        case 3: {
            const bool save = input.ConsumeBool();
            FUZZ_CHECK(store.close(save, false));
            FUZZ_CHECK(store.init());
            model.values.erase("system.flash.cycles");
            std::string cycles;
            FUZZ_CHECK(store.get("system.flash.cycles", &cycles, &flag));
            if (!flag) model.values["system.flash.cycles"] = cycles;
            model.reload();
            break;
        }
        default:
            FUZZ_CHECK(store.write());
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::DeviceTree device;
    fuzz::beSilent();
    device.write("tmp/system.cfg", "");
    FuzzedDataProvider input(data, size);
    Model model;
    SystemCfgManager store;
    FUZZ_CHECK(store.init());
    while (input.remaining_bytes() > 0) step(input, store, model);
    FUZZ_CHECK(store.close(false, false));

    FUZZ_CHECK(store.init());
    model.reload();
    korvo::variant::Variant tree;
    std::string text;
    std::string expected;
    FUZZ_CHECK(store.getVariant(tree) && tree.ToKVP(text, "=", "\n"));
    korvo::variant::Variant expectedTree;
    for (const auto& [key, value] : model.values) expected += key + '=' + value + '\n';
    FUZZ_CHECK(expectedTree.FromKVP(expected, true, true, true));
    expectedTree.IsArray(false);
    FUZZ_CHECK(tree == expectedTree);
    return 0;
}
