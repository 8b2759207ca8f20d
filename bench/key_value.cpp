// key=value text to a tree and back. A peer names its tree and knows how to read, ask and write it.

#include <korvo/variant/variant.h>

#include <map>
#include <memory>
#include <sstream>

#include "bench.h"

#ifdef KORVO_BENCH_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#endif
#ifdef KORVO_BENCH_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif
#ifdef KORVO_BENCH_GLIB
#include <glib.h>
#endif
#ifdef KORVO_BENCH_INIH
#include <ini.h>
#endif
#ifdef KORVO_BENCH_CONFUSE
#include <confuse.h>
#endif

namespace bench {
namespace {

using korvo::variant::Variant;

/** What a peer that reads plain key=value text of any size need not say itself. */
struct PlainText {
    static constexpr int largest = 10000;
    explicit PlainText(const std::vector<Pair>& /*pairs*/) {}
    static std::string text(const std::vector<Pair>& pairs) { return keyValueText(pairs); }
};

struct Korvo : PlainText {
    using PlainText::PlainText;
    static Variant read(const std::string& text) {
        Variant tree;
        require(tree.FromKVP(text, false, true, false), "FromKVP refused the text");
        return tree;
    }
    static std::string get(Variant& tree, const Pair& pair) {
        return tree[pair.path[0]][pair.path[1]][pair.path[2]];
    }
    static std::string write(const Variant& tree) {
        std::string text;
        require(tree.ToKVP(text, "=", "\n"), "ToKVP refused the tree");
        return text;
    }
};

#ifdef KORVO_BENCH_POCO
struct PocoProperties : PlainText {
    using PlainText::PlainText;
    using Tree = Poco::AutoPtr<Poco::Util::PropertyFileConfiguration>;
    static Tree read(const std::string& text) {
        std::istringstream stream(text);
        return new Poco::Util::PropertyFileConfiguration(stream);
    }
    static std::string get(const Tree& tree, const Pair& pair) { return tree->getRawString(pair.key, ""); }
    static std::string write(const Tree& tree) {
        std::ostringstream stream;
        tree->save(stream);
        return stream.str();
    }
};
#endif

#ifdef KORVO_BENCH_BOOST
struct BoostTree : PlainText {
    using PlainText::PlainText;
    using Tree = boost::property_tree::ptree;
    static Tree read(const std::string& text) {
        std::istringstream stream(text);
        Tree tree;
        boost::property_tree::read_ini(stream, tree);
        return tree;
    }
    static std::string get(const Tree& tree, const Pair& pair) {
        return tree.get<std::string>(Tree::path_type(pair.key, '/'));
    }
    static std::string write(const Tree& tree) {
        std::ostringstream stream;
        boost::property_tree::write_ini(stream, tree);
        return stream.str();
    }
};
#endif

#ifdef KORVO_BENCH_GLIB
struct GlibKeyFile : PlainText {
    using PlainText::PlainText;
    struct Free {
        void operator()(GKeyFile* file) const { g_key_file_free(file); }
    };
    using Tree = std::unique_ptr<GKeyFile, Free>;
    static std::string text(const std::vector<Pair>& pairs) { return "[all]\n" + keyValueText(pairs); }
    static Tree read(const std::string& text) {
        Tree tree(g_key_file_new());
        require(
            g_key_file_load_from_data(tree.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr) != 0,
            "GKeyFile refused the text");
        return tree;
    }
    static std::string get(const Tree& tree, const Pair& pair) {
        const std::unique_ptr<char, decltype(&g_free)> value(
            g_key_file_get_value(tree.get(), "all", pair.key.c_str(), nullptr), g_free);
        return value != nullptr ? value.get() : "";
    }
    static std::string write(const Tree& tree) {
        gsize length = 0;
        const std::unique_ptr<char, decltype(&g_free)> text(g_key_file_to_data(tree.get(), &length, nullptr),
                                                            g_free);
        return {text.get(), length};
    }
};
#endif

#ifdef KORVO_BENCH_INIH
struct Inih : PlainText {
    using PlainText::PlainText;
    struct Tree {
        std::map<std::string, Tree> members;
        std::string value;
    };
    static int store(void* root, const char* /*section*/, const char* name, const char* value) {
        Tree* node = static_cast<Tree*>(root);
        const std::string key = name;
        for (std::size_t begin = 0; begin <= key.size();) {
            const std::size_t end = std::min(key.find('.', begin), key.size());
            node = &node->members[key.substr(begin, end - begin)];
            begin = end + 1;
        }
        node->value = value;
        return 1;
    }
    static Tree read(const std::string& text) {
        Tree tree;
        require(ini_parse_string(text.c_str(), store, &tree) == 0, "inih refused the text");
        return tree;
    }
    static std::string get(Tree& tree, const Pair& pair) {
        return tree.members[pair.path[0]].members[pair.path[1]].members[pair.path[2]].value;
    }
    static void writeBelow(const Tree& tree, std::string& path, std::string& text) {
        for (const auto& [key, member] : tree.members) {
            const std::size_t length = path.size();
            path += key;
            if (member.members.empty()) {
                text.append(path).append("=").append(member.value).append("\n");
            } else {
                path += '.';
                writeBelow(member, path, text);
            }
            path.resize(length);
        }
    }
    static std::string write(const Tree& tree) {
        std::string path;
        std::string text;
        writeBelow(tree, path, text);
        return text;
    }
};
#endif

#ifdef KORVO_BENCH_CONFUSE
/** It knows declared keys only, and searches them one after the other. */
struct Confuse {
    static constexpr int largest = 1000;
    struct Free {
        void operator()(cfg_t* tree) const { cfg_free(tree); }
    };
    using Tree = std::unique_ptr<cfg_t, Free>;
    explicit Confuse(const std::vector<Pair>& pairs) : names(pairs) {
        for (const Pair& pair : names) options.push_back(CFG_STR(pair.key.c_str(), nullptr, CFGF_NONE));
        options.push_back(CFG_END());
    }
    static std::string text(const std::vector<Pair>& pairs) {
        std::string text;
        for (const Pair& pair : pairs) text += pair.key + "=\"" + pair.value + "\"\n";
        return text;
    }
    Tree read(const std::string& text) {
        Tree tree(cfg_init(options.data(), CFGF_NONE));
        require(cfg_parse_buf(tree.get(), text.c_str()) == CFG_SUCCESS, "libconfuse refused the text");
        return tree;
    }
    static std::string get(const Tree& tree, const Pair& pair) {
        return cfg_getstr(tree.get(), pair.key.c_str());
    }
    static std::string write(const Tree& tree) {
        char* data = nullptr;
        std::size_t length = 0;
        std::FILE* stream = ::open_memstream(&data, &length);
        (void)cfg_print(tree.get(), stream);
        (void)std::fclose(stream);
        const std::unique_ptr<char, decltype(&std::free)> text(data, std::free);
        return {text.get(), length};
    }
    std::vector<Pair> names;
    std::vector<cfg_opt_t> options;
};
#endif

/** Whether a text gives a tree with all the pairs, and the tree a text that gives them again. */
template <class Peer>
bool givesAll(Peer& peer, const std::vector<Pair>& pairs, const std::string& text) {
    auto tree = peer.read(text);
    const std::string written = peer.write(tree);
    auto again = peer.read(written);
    for (const Pair& pair : pairs) {
        if (Peer::get(tree, pair) != pair.value || Peer::get(again, pair) != pair.value) return false;
    }
    return true;
}

template <class Peer>
void addPeer(const char* who) {
    for (const int size : sizes) {
        if (size > Peer::largest) {
            note(std::string(who) + " is left out at " + std::to_string(size) +
                 " keys: each key is searched among all, which takes more than a second");
            continue;
        }
        const std::vector<Pair> pairs = configuration(size);
        const auto peer = std::make_shared<Peer>(pairs);
        const auto addRead = [&](const char* work, const std::string& text) {
            require(givesAll(*peer, pairs, text), std::string(who) + " lost a key");
            add(work, who, size, [peer, text] {
                auto tree = peer->read(text);
                benchmark::DoNotOptimize(tree);
            });
        };
        addRead("key=value text to a tree", Peer::text(pairs));
        addRead("key=value text to a tree, keys in no order", Peer::text(shuffled(pairs)));
        using Tree = decltype(peer->read(std::string()));
        const auto tree = std::make_shared<Tree>(peer->read(Peer::text(pairs)));
        add("tree to key=value text", who, size, [peer, tree] {
            std::string text = peer->write(*tree);
            benchmark::DoNotOptimize(text);
        });
    }
}

}  // namespace

void addKeyValueRows() {
    addPeer<Korvo>(ours);
#ifdef KORVO_BENCH_POCO
    addPeer<PocoProperties>("POCO (flat)");
#endif
#ifdef KORVO_BENCH_BOOST
    addPeer<BoostTree>("Boost.PropertyTree (flat)");
#endif
#ifdef KORVO_BENCH_GLIB
    addPeer<GlibKeyFile>("GLib (flat)");
#endif
#ifdef KORVO_BENCH_INIH
    addPeer<Inih>("inih, std::map");
#endif
#ifdef KORVO_BENCH_CONFUSE
    addPeer<Confuse>("libconfuse (flat)");
#endif
}

}  // namespace bench
