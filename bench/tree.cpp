// Building, copying, comparing and asking the same tree of the same texts, destroying it included. Each
// library says how it finds or makes the member under a key; the trees own their keys and texts.

#define RAPIDJSON_HAS_STDSTRING 1

#include <json/json.h>
#include <korvo/variant/variant.h>
#include <rapidjson/document.h>

#include <boost/json.hpp>
#include <map>
#include <nlohmann/json.hpp>
#include <variant>

#include "bench.h"

namespace {

using namespace bench;

/** The tree that one writes with the standard library alone. */
struct MapTree : std::variant<bool, int, double, std::string, std::map<std::string, MapTree>> {
    using Members = std::map<std::string, MapTree>;
    using variant::variant;
    using variant::operator=;
    MapTree& operator[](const std::string& key) {
        auto* members = std::get_if<Members>(this);
        return (members != nullptr ? *members : emplace<Members>())[key];
    }
};

/** A library whose values are assigned to, and whose operator[] finds or makes a member. */
template <class Value>
struct Indexed {
    Value& child(Value& node, const std::string& key) { return node[key]; }
    const std::string& value(const std::string& text) { return text; }
    Value tree;
};

struct BoostJson : Indexed<boost::json::value> {
    boost::json::value& child(boost::json::value& node, const std::string& key) {
        return (node.is_object() ? node.get_object() : node.emplace_object())[key];
    }
};

/** It wants to be told where copies of texts live, and makes no members by itself. */
struct Rapidjson {
    using Value = rapidjson::Value;
    Rapidjson() = default;
    Rapidjson(const Rapidjson& other) { tree.CopyFrom(other.tree, tree.GetAllocator()); }
    Value& child(Value& node, const std::string& key) {
        if (!node.IsObject()) node.SetObject();
        const auto found = node.FindMember(key);
        if (found != node.MemberEnd()) return found->value;
        node.AddMember(value(key), Value(), tree.GetAllocator());
        return (node.MemberEnd() - 1)->value;
    }
    Value value(const std::string& text) { return Value(text, tree.GetAllocator()); }
    rapidjson::Document tree;
};

template <class Library>
auto& find(Library& library, const Pair& pair) {
    return library.child(library.child(library.child(library.tree, pair.path[0]), pair.path[1]),
                         pair.path[2]);
}

template <class Library>
Library build(const Pairs& pairs) {
    Library library;
    for (const Pair& pair : pairs) find(library, pair) = library.value(pair.value);
    return library;
}

template <class Library>
void addLibrary(const std::string& who) {
    using Value = std::decay_t<decltype(find(std::declval<Library&>(), Pair()))>;
    for (const int size : sizes) {
        const Pairs pairs = configuration(size);
        const auto filled = [pairs] { return build<Library>(pairs); };
        const auto twice = [filled] { return std::pair(filled(), filled()); };
        const auto isSame = [](const auto& two) { return two.first.tree == two.second.tree; };
        const auto lookUp = [pairs](Library& tree) {
            for (const Pair& pair : pairs) benchmark::DoNotOptimize(&find(tree, pair));
        };

        auto two = twice();
        for (const Pair& pair : pairs)
            require(find(two.first, pair) == Value(two.second.value(pair.value)),
                    who + " holds another value");
        require(isSame(std::pair(two)), who + " makes other trees or copies");

        add("value: build a tree, destroy it", who, size, [filled] { benchmark::DoNotOptimize(filled()); });
        add("value: copy a tree, destroy the copy", who, size, filled,
            [](const Library& tree) { benchmark::DoNotOptimize(Library(tree)); });
        add("value: compare two trees", who, size, twice,
            [isSame](const auto& trees) { benchmark::DoNotOptimize(isSame(trees)); });
        add("value: look every leaf up", who, size, filled, lookUp);
    }
}

}  // namespace

void bench::addTreeRows() {
    addLibrary<Indexed<korvo::variant::Variant>>(ours);
    addLibrary<Indexed<MapTree>>("std::map");
    addLibrary<Indexed<nlohmann::json>>("nlohmann::json");
    addLibrary<Indexed<Json::Value>>("jsoncpp");
    addLibrary<Rapidjson>("RapidJSON");
    addLibrary<BoostJson>("Boost.JSON");
}
