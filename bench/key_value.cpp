// key=value text to a tree and back. inih reports one line after the other; its host keeps a map of whole keys.

#include <ini.h>
#include <korvo/variant/variant.h>

#include <map>

#include "bench.h"

namespace {

using namespace bench;
using korvo::variant::Variant;

Variant readOurs(const std::string& text) {
    Variant tree;
    require(tree.FromKVP(text, false, true, false), "FromKVP refused the text");
    return tree;
}
std::string write(const Variant& tree) {
    std::string text;
    require(tree.ToKVP(text, "=", "\n"), "ToKVP refused the tree");
    return text;
}

using Map = std::map<std::string, std::string>;
int addLine(void* tree, const char* /*section*/, const char* name, const char* value) {
    (*static_cast<Map*>(tree))[name] = value;
    return 1;
}
Map readWithInih(const std::string& text) {
    Map tree;
    require(ini_parse_string(text.c_str(), addLine, &tree) == 0, "inih refused the text");
    return tree;
}
std::string write(const Map& tree) {
    std::string text;
    for (const auto& [key, value] : tree) text.append(key).append("=").append(value).append("\n");
    return text;
}

template <class Read>
void addLibrary(const std::string& who, Read readText) {
    const std::string text = keyValueText(configuration(1000));
    require(write(readText(text)) == text, who + " changed a value");
    add("load 1,000 sorted keys", who, [=] { return [=] { return readText(text); }; });
    add("write 1,000 keys", who, [=] { return [tree = readText(text)] { return write(tree); }; });
}

}  // namespace

void bench::addKeyValueRows() {
    addLibrary("ours", readOurs);
    addLibrary("inih", readWithInih);
}
