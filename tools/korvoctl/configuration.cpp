#include "configuration.h"

#include <cerrno>
#include <cstdio>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"
#include "messages.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

/** Sorts right after the keys of a group, which continue with a dot. */
constexpr char afterDot = '.' + 1;

/** All trees are made of key=value text: they have no indices and at most 64 levels. */
void collect(const Variant& tree, const std::string& prefix, Values& values) {
    for (const auto& member : tree) {
        const std::string key = prefix + std::string(member.first);
        const VariantType type = member.second;
        if (type == korvo::variant::TypeMap) {
            collect(member.second, key + '.', values);
        } else {
            values[key] = textOf(member.second);
        }
    }
}

/** The name of a file in messages. */
std::string shownName(const std::string& name) { return name == "-" ? "standard input" : name; }

}  // namespace

std::string workingCopyPath() { return korvo::utils::devicePath(korvo::utils::configurationPath); }

bool readCopy(const std::string& path, std::string& text) {
    korvo::utils::File file;
    return file.Initialize(path, korvo::utils::FILE_OPEN_MODE_READ_NOFOLLOW) && file.ReadStringAll(text);
}

bool readWhole(const std::string& name, std::string& text) {
    std::FILE* const file = name == "-" ? stdin : std::fopen(name.c_str(), "re");
    if (file == nullptr) return false;
    text.clear();
    char block[2048];
    std::size_t length = 0;
    while ((length = std::fread(block, 1, sizeof block, file)) > 0) text.append(block, length);
    const int error = std::ferror(file) != 0 ? errno : 0;
    if (file != stdin) (void)std::fclose(file);
    errno = error;
    return error == 0;
}

std::string describeRead(const std::string& name) {
    return describe({korvo::Step::Read, errno, shownName(name), 0, ""});
}

std::string describe(const std::string& name, const SystemCfgManager::Fault& fault) {
    return describe({korvo::Step::Load, 0, shownName(name), fault.line, fault.reason});
}

std::string keyRefusal(const std::string& key) {
    SystemCfgManager store;  // get takes some keys that keyFault() refuses
    return store.getSystemCfgValue(key, korvo::variant::TypeAny, nullptr) ? "" : describe(store.failure());
}

bool loadFile(const std::string& path, Values& values) {
    std::string text;
    Variant tree;
    std::vector<SystemCfgManager::Fault> faults;
    const bool isCopy = path == workingCopyPath() || path == flashCopyPath();
    bool read = isCopy && readCopy(path, text);
    // Whoever replaces a copy by a hard link removes the other name a moment later; reading it is harmless.
    if (!isCopy || (!read && errno == EMLINK)) read = korvo::utils::File::ReadStringAll(path, text);
    if (!read || !SystemCfgManager::load(text, tree, &faults)) {
        tell(read ? describe(path, faults.front()) : describeRead(path));
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

std::string textOf(const Variant& scalar) {
    const VariantType type = scalar;
    if (type == korvo::variant::TypeString) return static_cast<const std::string&>(scalar);
    Variant named;
    named["value"] = scalar;
    std::string text;
    (void)named.ToKVP(text, "=", "");
    return text.substr(text.find('=') + 1);
}

Variant& at(Variant& tree, const std::string& key) {
    std::vector<std::string> components;
    korvo::utils::split(key, ".", components);
    if (components.empty()) components.emplace_back();
    Variant* node = &tree;
    for (const std::string& component : components) node = &(*node)[component];
    return *node;
}

Variant nested(const Values& values) {
    Variant tree;
    tree.IsArray(false);
    for (const auto& [key, value] : values) at(tree, key) = value;
    return tree;
}

bool isGroup(const Values& values, const std::string& key) {
    return values.lower_bound(key + '.') != values.lower_bound(key + afterDot);
}

void remove(Values& values, const std::string& key) {
    values.erase(key);
    values.erase(values.lower_bound(key + '.'), values.lower_bound(key + afterDot));
}

Values part(const Values& values, const std::string& key) {
    if (key.empty()) return values;
    Values found(values.lower_bound(key + '.'), values.lower_bound(key + afterDot));
    const auto value = values.find(key);
    if (value != values.end()) found.insert(*value);
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
