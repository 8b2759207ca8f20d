// key=value text to a tree and back. The trees of the peers are flat: one level of whole keys, in no groups.

#include <glib.h>
#include <ini.h>
#include <korvo/variant/variant.h>

#include <algorithm>
#include <map>
#include <random>

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

using GlibTree = Owner<GKeyFile, g_key_file_free>;
GlibTree readWithGlib(const std::string& text) {
    GlibTree tree(g_key_file_new());
    require(g_key_file_load_from_data(tree.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr) != 0,
            "GKeyFile refused the text");
    return tree;
}
std::string write(const GlibTree& tree) {
    gsize length = 0;
    const Owner<char, g_free> text(g_key_file_to_data(tree.get(), &length, nullptr));
    return {text.get(), length};
}

/** inih tells of one line after the other; the tree is the host's. */
using InihTree = std::map<std::string, std::string>;
int addLine(void* tree, const char* /*section*/, const char* name, const char* value) {
    (*static_cast<InihTree*>(tree))[name] = value;
    return 1;
}
InihTree readWithInih(const std::string& text) {
    InihTree tree;
    require(ini_parse_string(text.c_str(), addLine, &tree) == 0, "inih refused the text");
    return tree;
}
std::string write(const InihTree& tree) {
    std::string text;
    for (const auto& [key, value] : tree) text.append(key).append("=").append(value).append("\n");
    return text;
}

/** Adds what one library does; a text for it begins with @p head. */
template <class Read>
void addLibrary(const std::string& who, Read readText, const std::string& head = {}) {
    for (const int size : sizes) {
        Pairs pairs = configuration(size);
        const std::string sorted = head + keyValueText(pairs);
        std::shuffle(pairs.begin(), pairs.end(), std::mt19937(1));  // the same order in each run
        const std::string unsorted = head + keyValueText(pairs);
        for (const std::string& text : {sorted, unsorted}) {
            // Some write in the order in which they have read.
            const std::string written = write(readText(text));
            require(written == text || written == sorted, who + " changed a value");
            const char* const order = text == sorted ? "" : ", keys in no order";
            const auto readAll = [=] { benchmark::DoNotOptimize(readText(text)); };
            add(std::string("key=value text to a tree") + order, who, size, readAll);
        }
        const auto filled = [=] { return readText(sorted); };
        const auto writeAll = [](const auto& tree) { benchmark::DoNotOptimize(write(tree)); };
        add("tree to key=value text", who, size, filled, writeAll);
    }
}

}  // namespace

void bench::addKeyValueRows() {
    addLibrary(ours, readOurs);
    addLibrary("GLib", readWithGlib, "[all]\n");
    addLibrary("inih and std::map", readWithInih);
}
