#include "configuration.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"
#include "messages.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

/** Nests no deeper than key=value text may. */
void collect(const Variant& tree, const std::string& prefix, Values& values) {
    for (const auto& member : tree) {
        const std::string key = prefix + std::string(member.first);
        const VariantType type = member.second;
        if (type == korvo::variant::TypeMap) {
            collect(member.second, key + '.', values);
        } else if (type == korvo::variant::TypeString) {
            values[key] = static_cast<const std::string&>(member.second);
        }
    }
}

[[nodiscard]] bool load(const std::string& path, Variant& tree, std::string& reason) {
    std::string text;
    if (!korvo::utils::File::ReadStringAll(path, text)) {
        reason = "cannot read " + path + ": " + systemError(errno);
        return false;
    }
    std::vector<SystemCfgManager::Fault> faults;
    if (SystemCfgManager::load(text, tree, &faults)) return true;
    reason = describe(path, faults.front());
    return false;
}

}  // namespace

std::string workingCopyPath() { return korvo::utils::devicePath(korvo::utils::configurationPath); }

bool readWhole(const std::string& name, std::string& text) {
    const auto close = [](std::FILE* open) { return std::fclose(open); };
    std::unique_ptr<std::FILE, decltype(close)> opened(nullptr, close);
    if (name != "-") {
        opened.reset(std::fopen(name.c_str(), "re"));
        if (opened == nullptr) return false;
    }
    std::FILE* const file = opened != nullptr ? opened.get() : stdin;
    text.clear();
    char block[4096];
    std::size_t length = 0;
    while ((length = std::fread(block, 1, sizeof block, file)) > 0) text.append(block, length);
    return std::ferror(file) == 0;
}

std::string shownName(const std::string& name) { return name == "-" ? "standard input" : name; }

std::string describe(const std::string& name, const SystemCfgManager::Fault& fault) {
    return shownName(name) + ':' + (fault.line != 0 ? std::to_string(fault.line) + ": " : " ") + fault.reason;
}

std::string firstFault(const std::string& path) {
    Variant tree;
    std::string reason;
    if (!load(path, tree, reason)) return reason;
    return path + (valuesOf(tree).empty() ? ": it holds no KEY=VALUE" : ": it loads by now");
}

bool loadFile(const std::string& path, Values& values) {
    Variant tree;
    std::string reason;
    if (!load(path, tree, reason)) {
        tell(reason);
        return false;
    }
    values = valuesOf(tree);
    return true;
}

Values valuesOf(const Variant& tree) {
    Values values;
    collect(tree, "", values);
    return values;
}

Variant nested(const Values& values) {
    Variant tree;
    tree.IsArray(false);
    for (const auto& [key, value] : values) {
        std::vector<std::string> components;
        korvo::utils::split(key, ".", components);
        if (components.empty()) components.emplace_back();
        Variant* node = &tree;
        for (const std::string& component : components) node = &(*node)[component];
        *node = value;
    }
    return tree;
}

bool isGroup(const Values& values, const std::string& key) {
    const auto next = values.lower_bound(key + '.');
    return next != values.end() && next->first.compare(0, key.size() + 1, key + '.') == 0;
}

Values part(const Values& values, const std::string& key) {
    if (key.empty()) return values;
    Values found;
    const auto value = values.find(key);
    if (value != values.end()) found.insert(*value);
    const std::string group = key + '.';
    for (auto member = values.lower_bound(group);
         member != values.end() && member->first.compare(0, group.size(), group) == 0; ++member)
        found.insert(found.end(), *member);
    return found;
}

void subtractCommon(Values& before, Values& after) {
    for (auto value = before.begin(); value != before.end();) {
        const auto other = after.find(value->first);
        if (other != after.end() && other->second == value->second) {
            after.erase(other);
            value = before.erase(value);
        } else {
            ++value;
        }
    }
}

std::string differenceLines(const Values& before, const Values& after) {
    std::map<std::string, std::string> lines;
    const auto add = [&](char sign, const Values& values) {
        for (const auto& [key, value] : values)
            lines[key].append(1, sign).append(key).append(1, '=').append(value).append(1, '\n');
    };
    add('-', before);
    add('+', after);
    std::string text;
    for (const auto& line : lines) text += line.second;
    return text;
}

}  // namespace korvoctl
