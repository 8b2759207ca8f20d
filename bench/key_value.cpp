// key=value text to a tree and back. A peer reads a text, finds the value under a key, and writes its tree.

#include <Poco/AutoPtr.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <confuse.h>
#include <glib.h>
#include <ini.h>
#include <korvo/variant/variant.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "bench.h"

namespace bench {
namespace {

using korvo::variant::Variant;

Variant read(const std::string& text) {
    Variant tree;
    require(tree.FromKVP(text, false, true, false), "FromKVP refused the text");
    return tree;
}
std::string write(const Variant& tree) {
    std::string text;
    require(tree.ToKVP(text, "=", "\n"), "ToKVP refused the tree");
    return text;
}

using PocoTree = Poco::AutoPtr<Poco::Util::PropertyFileConfiguration>;
PocoTree readWithPoco(const std::string& text) {
    std::istringstream stream(text);
    return new Poco::Util::PropertyFileConfiguration(stream);
}
std::string write(const PocoTree& tree) {
    std::ostringstream stream;
    tree->save(stream);
    return stream.str();
}

using BoostTree = boost::property_tree::ptree;
BoostTree readWithBoost(const std::string& text) {
    std::istringstream stream(text);
    BoostTree tree;
    boost::property_tree::read_ini(stream, tree);
    return tree;
}
std::string write(const BoostTree& tree) {
    std::ostringstream stream;
    boost::property_tree::write_ini(stream, tree);
    return stream.str();
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
int addLine(void* tree, const char* /*section*/, const char* name, const char* value) {
    MapTree* node = static_cast<MapTree*>(tree);
    const std::string key = name;
    for (std::size_t begin = 0, end; begin <= key.size(); begin = end + 1) {
        end = std::min(key.find('.', begin), key.size());
        node = &(*node)[key.substr(begin, end - begin)];
    }
    *node = std::string(value);
    return 1;
}
MapTree readWithInih(const std::string& text) {
    MapTree tree;
    require(ini_parse_string(text.c_str(), addLine, &tree) == 0, "inih refused the text");
    return tree;
}
void writeBelow(const MapTree& tree, std::string& path, std::string& text) {
    for (const auto& [key, member] : std::get<MapTree::Members>(tree)) {
        const std::size_t length = path.size();
        path += key;
        if (const auto* value = std::get_if<std::string>(&member)) {
            text.append(path).append("=").append(*value).append("\n");
        } else {
            writeBelow(member, path += '.', text);
        }
        path.resize(length);
    }
}
std::string write(const MapTree& tree) {
    std::string path, text;
    writeBelow(tree, path, text);
    return text;
}

using ConfuseTree = Owner<cfg_t, cfg_free>;
/** A reader for the keys of these pairs: libconfuse knows declared keys only. */
auto readerWithConfuse(const Pairs& pairs) {
    std::vector<cfg_opt_t> options;
    for (const Pair& pair : pairs) options.push_back(CFG_STR(pair.key.c_str(), nullptr, CFGF_NONE));
    options.push_back(CFG_END());
    return [options](const std::string& text) {
        ConfuseTree tree(cfg_init(const_cast<cfg_opt_t*>(options.data()), CFGF_NONE));
        require(cfg_parse_buf(tree.get(), text.c_str()) == CFG_SUCCESS, "libconfuse refused the text");
        return tree;
    };
}
std::string write(const ConfuseTree& tree) {
    char* data = nullptr;
    std::size_t length = 0;
    std::FILE* stream = ::open_memstream(&data, &length);
    (void)cfg_print(tree.get(), stream);
    (void)std::fclose(stream);
    return {Owner<char, std::free>(data).get(), length};
}

/** The keys and values of a text, whatever stands around them. */
std::map<std::string, std::string> pairsOf(const std::string& text) {
    std::map<std::string, std::string> pairs;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        const std::size_t separator = line.find_first_of("=: ");
        const std::size_t begin = line.find_first_not_of("=: \"", separator);
        if (begin == std::string::npos) continue;  // the head
        pairs[line.substr(0, separator)] = line.substr(begin, line.find_last_not_of('"') + 1 - begin);
    }
    return pairs;
}

/** Adds what one library does; a text for it begins with @p head and has @p quote around the values. */
template <class Read>
void addLibrary(int size, const char* who, Read readText, const char* head = "", const char* quote = "") {
    const Pairs& pairs = configuration(size);
    const std::string sorted = head + keyValueText(pairs, quote);
    const std::string unsorted = head + keyValueText(shuffled(pairs), quote);
    const auto expected = pairsOf(keyValueText(pairs));
    const auto addReading = [&](const char* work, const std::string& text) {
        require(pairsOf(write(readText(text))) == expected, std::string(who) + " changed a value");
        add(work, who, size, [=] { benchmark::DoNotOptimize(readText(text)); });
    };
    addReading("key=value text to a tree", sorted);
    addReading("key=value text to a tree, keys in no order", unsorted);
    const auto read = [=] { return readText(sorted); };
    add("tree to key=value text", who, size, read, [](auto& tree) { benchmark::DoNotOptimize(write(tree)); });
}

}  // namespace

void addKeyValueRows() {
    for (const int size : sizes) {
        addLibrary(size, ours, read);
        addLibrary(size, "POCO (flat)", readWithPoco);
        addLibrary(size, "Boost.PropertyTree (flat)", readWithBoost);
        addLibrary(size, "GLib (flat)", readWithGlib, "[all]\n");
        addLibrary(size, "inih, std::map", readWithInih);
        if (size <= 1000)
            addLibrary(size, "libconfuse (flat)", readerWithConfuse(configuration(size)), "", "\"");
    }
    note(
        "libconfuse is left out at 10000 keys: each key is searched among all, which takes more than a "
        "second");
}

}  // namespace bench
