// Building, copying and asking the same tree of texts, destroying it included. Each library says how it finds or
// makes the member under a key; the trees own their keys and texts.

#define RAPIDJSON_HAS_STDSTRING 1

#include <korvo/variant/variant.h>
#include <rapidjson/document.h>

#include <boost/json.hpp>
#include <nlohmann/json.hpp>

#include "bench.h"

namespace {

using namespace bench;

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
void addLibrary(const std::string& who) {
    const Pairs pairs = configuration(1000);
    const auto build = [pairs] {
        auto library = std::make_shared<Library>();
        for (const Pair& pair : pairs) find(*library, pair) = library->value(pair.value);
        return library;
    };
    const auto copy = [](const Library& library) { return std::make_shared<Library>(library); };
    const auto built = build(), copied = copy(*built);
    using Value = std::decay_t<decltype(find(*built, Pair()))>;
    require(copied->tree == built->tree, who + " makes other copies");
    for (const Pair& pair : pairs)
        require(find(*copied, pair) == Value(built->value(pair.value)), who + " lost a value");

    add("build a tree of 1,000 values", who, [=] { return build; });
    add("copy a tree of 1,000 values", who, [=] { return [=] { return copy(*built); }; });
    add("look 1,000 values up in a tree", who, [=] {
        return [=] {
            for (const Pair& pair : pairs) benchmark::DoNotOptimize(&find(*built, pair));
            return 0;
        };
    });
}

}  // namespace

void bench::addTreeRows() {
    addLibrary<Indexed<korvo::variant::Variant>>("ours");
    addLibrary<Indexed<nlohmann::json>>("nlohmann::json");
    addLibrary<Rapidjson>("RapidJSON");
    addLibrary<BoostJson>("Boost.JSON");
}
