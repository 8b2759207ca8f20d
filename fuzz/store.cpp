// Any sequence of store operations, against a plain map from dotted keys to texts.

#include <fuzzer/FuzzedDataProvider.h>

#include <map>
#include <vector>

#include "fuzz.h"
#include "korvo/variant_utils/system_cfg.h"

namespace {

/** What the store must hold. */
class Model {
  public:
    /** False for what the store must refuse. */
    bool set(const std::string& key, const std::string& value) {
        if (SystemCfgManager::keyFault(key) != nullptr || SystemCfgManager::valueFault(value) != nullptr)
            return false;
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

    /** Loading takes whole boolean words for digits. */
    void reload() {
        for (auto& [key, value] : values) {
            if (value == "enabled" || value == "enable" || value == "on") value = "1";
            if (value == "disabled" || value == "disable" || value == "off") value = "0";
        }
    }

    std::map<std::string, std::string> values;
};

std::string oneOf(FuzzedDataProvider& input, const std::vector<std::string>& texts) {
    return texts[input.ConsumeIntegralInRange<std::size_t>(0, texts.size() - 1)];
}

std::string someKey(FuzzedDataProvider& input) {
    if (input.ConsumeProbability<float>() < 0.1F) return input.ConsumeRandomLengthString(80);
    std::string key;
    do {
        key +=
            (key.empty() ? "" : ".") + oneOf(input, {"a", "bc", "1", "_1", "#", "", "x=", "[a]", "d/e", "é"});
    } while (input.ConsumeBool() && key.size() < 300);
    return key;
}

std::string someValue(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) return input.ConsumeRandomLengthString(40);
    return oneOf(input, {"on", "off", "enabled", "online", "007", "-3", "=on", ""});
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
            const bool accepted = store.get(key, &value, &flag);
            FUZZ_CHECK(accepted || SystemCfgManager::keyFault(key) != nullptr);
            FUZZ_CHECK(!accepted || flag == (known == model.values.end()));
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
    korvo::variant::Variant tree, expected;
    std::string text;
    for (const auto& [key, value] : model.values) text += key + '=' + value + '\n';
    FUZZ_CHECK(expected.FromKVP(text, true, true, true));
    expected.IsArray(false);
    FUZZ_CHECK(store.getVariant(tree) && tree == expected);
    return 0;
}
