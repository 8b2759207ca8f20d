// Any sequence of store operations, against a plain map from dotted keys to texts.

#include <fuzzer/FuzzedDataProvider.h>

#include <map>

#include "fuzz.h"
#include "korvo/variant_utils/system_cfg.h"

namespace {

using Model = std::map<std::string, std::string>;

/** Returns false for what the store must refuse. */
bool set(Model& model, const std::string& key, const std::string& value) {
    if (SystemCfgManager::keyFault(key) != nullptr || SystemCfgManager::valueFault(value) != nullptr)
        return false;
    for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', dot + 1))
        if (model.count(key.substr(0, dot)) != 0) return false;
    // "/" comes next to ".": these are all keys below this one.
    model.erase(model.lower_bound(key + '.'), model.lower_bound(key + '/'));
    model[key] = value;
    return true;
}

void reload(SystemCfgManager& store, Model& model) {
    FUZZ_CHECK(store.init());
    for (auto& [key, value] : model) {
        if (value == "enabled" || value == "enable" || value == "on") value = "1";
        if (value == "disabled" || value == "disable" || value == "off") value = "0";
    }
}

std::string someKey(FuzzedDataProvider& input) {
    if (input.ConsumeIntegralInRange(0, 9) == 0) return input.ConsumeRandomLengthString(80);
    std::string key;
    do {
        if (!key.empty()) key += '.';
        key += input.PickValueInArray({"a", "bc", "1", "_1", "#", "", "x=", "[a]", "d/e", "é"});
    } while (input.ConsumeBool() && key.size() < 300);
    return key;
}

std::string someValue(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) return input.ConsumeRandomLengthString(40);
    return input.PickValueInArray({"on", "off", "enabled", "online", "007", "-3", "=on", ""});
}

void step(FuzzedDataProvider& input, SystemCfgManager& store, Model& model) {
    std::string key = someKey(input), value = someValue(input), found;
    const auto known = model.find(key);
    const bool isNew = known == model.end();
    const std::string before = isNew ? "" : known->second;
    bool flag = false;
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            FUZZ_CHECK(store.get(key, &found, &flag) ? flag == isNew
                                                     : SystemCfgManager::keyFault(key) != nullptr);
            FUZZ_CHECK(found == before);
            break;
        case 1:
            FUZZ_CHECK(store.close(input.ConsumeBool(), false));
            reload(store, model);
            model.erase("system.flash.cycles");
            FUZZ_CHECK(store.get("system.flash.cycles", &found, &flag));
            if (!flag) model["system.flash.cycles"] = found;
            break;
        case 2:
            FUZZ_CHECK(store.write());
            break;
        default:
            const bool accepted = set(model, key, value);
            FUZZ_CHECK(store.set(key, value, &flag) == accepted);
            FUZZ_CHECK(!accepted || flag == (isNew || before != value));
    }
}

}  // namespace

void check(const std::string& text) {
    static const test::Device device;
    device.write("tmp/system.cfg", "");
    FuzzedDataProvider input(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    Model model;
    SystemCfgManager store;
    FUZZ_CHECK(store.init());
    while (input.remaining_bytes() > 0) step(input, store, model);
    FUZZ_CHECK(store.close(false, false));
    reload(store, model);

    korvo::variant::Variant tree, expected;
    std::string lines;
    for (const auto& [key, value] : model) lines += key + '=' + value + '\n';
    FUZZ_CHECK(expected.FromKVP(lines, true, true, true));
    expected.IsArray(false);
    FUZZ_CHECK(store.getVariant(tree) && tree == expected);
}
