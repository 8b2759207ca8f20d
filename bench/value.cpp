// Building, copying and asking the same tree of the same values, destroying it included. Each library says
// how it finds or makes the member under a key; the trees own their keys and texts.

#include <korvo/variant/variant.h>

#include <memory>
#include <variant>

#include "bench.h"

#ifdef KORVO_BENCH_NLOHMANN
#include <nlohmann/json.hpp>
#endif
#ifdef KORVO_BENCH_JSONCPP
#include <json/json.h>
#endif
#ifdef KORVO_BENCH_RAPIDJSON
#include <rapidjson/document.h>
#endif
#ifdef KORVO_BENCH_BOOST_JSON
#include <boost/json.hpp>
#endif

namespace bench {
namespace {

using Scalar = std::variant<bool, int, double, std::string>;

struct Leaf {
    std::vector<std::string> path;
    Scalar value;
};

/** The leaves of a configuration with the types that their texts look like. */
std::vector<Leaf> leaves(int count) {
    std::vector<Leaf> result;
    for (const Pair& pair : configuration(count)) {
        const bool digits = pair.value.find_first_not_of("0123456789") == std::string::npos;
        const bool fraction = pair.value.find_first_not_of("0123456789.") == std::string::npos &&
                              pair.value.find('.') == pair.value.rfind('.');
        Scalar value = pair.value;
        if (pair.path.back() == "enabled")
            value = true;
        else if (digits)
            value = std::stoi(pair.value);
        else if (fraction)
            value = std::stod(pair.value);
        result.push_back({pair.path, value});
    }
    return result;
}

/** A library whose values are assigned to, and whose operator[] finds or makes a member. */
template <class Value>
struct Indexed {
    using Node = Value;
    Node& root() { return tree; }
    Node& child(Node& node, const std::string& key) { return node[key]; }
    template <class Held>
    void set(Node& node, const Held& value) {
        node = value;
    }
    static bool equals(const Node& node, const Scalar& value) {
        return std::visit([&](const auto& scalar) { return node == Node(scalar); }, value);
    }
    Node tree;
};

#ifdef KORVO_BENCH_RAPIDJSON
struct Rapidjson {
    using Node = rapidjson::Value;
    Rapidjson() = default;
    Rapidjson(const Rapidjson& other) { tree.CopyFrom(other.tree, tree.GetAllocator()); }
    Rapidjson& operator=(const Rapidjson&) = delete;
    static Node view(const std::string& text) {
        return Node(rapidjson::StringRef(text.data(), static_cast<rapidjson::SizeType>(text.size())));
    }
    Node owned(const std::string& text) {
        return Node(text.data(), static_cast<rapidjson::SizeType>(text.size()), tree.GetAllocator());
    }
    Node& root() { return tree; }
    Node& child(Node& node, const std::string& key) {
        if (!node.IsObject()) node.SetObject();
        const auto found = node.FindMember(view(key));
        if (found != node.MemberEnd()) return found->value;
        node.AddMember(owned(key), Node(), tree.GetAllocator());
        return (node.MemberEnd() - 1)->value;
    }
    template <class Value>
    void set(Node& node, const Value& value) {
        node = Node(value);
    }
    void set(Node& node, const std::string& text) { node = owned(text); }
    static bool equals(const Node& node, const Scalar& value) {
        if (const auto* text = std::get_if<std::string>(&value)) return node == view(*text);
        if (const auto* number = std::get_if<int>(&value)) return node.GetInt() == *number;
        if (const auto* real = std::get_if<double>(&value)) return node == Node(*real);
        return node == Node(std::get<bool>(value));
    }
    rapidjson::Document tree;
};
#endif

#ifdef KORVO_BENCH_BOOST_JSON
struct BoostJson : Indexed<boost::json::value> {
    Node& child(Node& node, const std::string& key) {
        if (!node.is_object()) node.emplace_object();
        return node.get_object()[key];
    }
};
#endif

template <class Library>
typename Library::Node& find(Library& library, const Leaf& leaf) {
    typename Library::Node* node = &library.root();
    for (const std::string& key : leaf.path) node = &library.child(*node, key);
    return *node;
}

template <class Library>
void build(Library& library, const std::vector<Leaf>& all) {
    for (const Leaf& leaf : all) {
        auto& node = find(library, leaf);
        std::visit([&](const auto& value) { library.set(node, value); }, leaf.value);
    }
}

template <class Library>
bool holdsAll(Library& library, const std::vector<Leaf>& all) {
    for (const Leaf& leaf : all) {
        if (!Library::equals(find(library, leaf), leaf.value)) return false;
    }
    return true;
}

template <class Library>
void addLibrary(const std::string& who) {
    for (const int size : sizes) {
        const auto all = std::make_shared<std::vector<Leaf>>(leaves(size));
        const auto filled = std::make_shared<Library>();
        build(*filled, *all);
        Library copied(*filled);
        require(holdsAll(*filled, *all) && holdsAll(copied, *all), who + " holds other values");
        add("value: build a tree, destroy it", who, size, [all] {
            Library library;
            build(library, *all);
            benchmark::DoNotOptimize(library);
        });
        add("value: copy a tree, destroy the copy", who, size, [filled] {
            Library copy(*filled);
            benchmark::DoNotOptimize(copy);
        });
        add("value: look every leaf up", who, size, [all, filled] {
            for (const Leaf& leaf : *all) benchmark::DoNotOptimize(&find(*filled, leaf));
        });
    }
}

}  // namespace

void addValueRows() {
    addLibrary<Indexed<korvo::variant::Variant>>(ours);
#ifdef KORVO_BENCH_NLOHMANN
    addLibrary<Indexed<nlohmann::json>>("nlohmann::json");
#endif
#ifdef KORVO_BENCH_JSONCPP
    addLibrary<Indexed<Json::Value>>("jsoncpp");
#endif
#ifdef KORVO_BENCH_RAPIDJSON
    addLibrary<Rapidjson>("RapidJSON");
#endif
#ifdef KORVO_BENCH_BOOST_JSON
    addLibrary<BoostJson>("Boost.JSON");
#endif
}

}  // namespace bench
