/** @file What the benchmarks have in common: how a row is named and timed, and the data that all work on. */
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace bench {

/** The name under which this library's own times stand. */
inline const char ours[] = "ours";

/** The sizes, tenfold each, at which rows show how their cost grows. */
inline constexpr int sizes[] = {100, 1000, 10000};

/** Ends the program when two sides that are to be compared do not do the same. */
void require(bool same, std::string_view what);

/** Adds a line that is to stand below the table. */
void note(const std::string& line);

/**
 * Registers one cell of the table. Processor time is what counts, so that other work on the machine does not.
 *
 * @param work  what is done, the same text for everybody who does it
 * @param who   `ours` or the peer's name
 * @param size  how much work it is, where the row is there in several sizes; 0 where it is not
 * @param make  makes what @p run works on, untimed, before each repetition
 * @param run   does the work once, destroying what it made included
 */
template <class Make, class Run>
auto* add(const std::string& work, const std::string& who, int size, Make make, Run run) {
    const std::string name = work + "|" + who + "|" + std::to_string(size);
    return benchmark::RegisterBenchmark(name.c_str(), [make, run](benchmark::State& state) {
        auto subject = make();
        for (auto iteration : state) run(subject);
    });
}

/** The same for work that needs nothing made before. */
template <class Run>
auto* add(const std::string& work, const std::string& who, int size, Run run) {
    return add(
        work, who, size, [] { return 0; }, [run](int /*nothing*/) { run(); });
}

/** What a C library made, released by its function. */
template <auto release>
struct Releaser {
    template <class T>
    void operator()(T* made) const {
        release(made);
    }
};
template <class T, auto release>
using Owner = std::unique_ptr<T, Releaser<release>>;

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

/** One leaf of a configuration. */
struct Pair {
    std::vector<std::string> path;
    std::string key;  ///< the path with dots between its components
    std::string value;
};
using Pairs = std::vector<Pair>;

/** A configuration of so many keys, in the order in which it is written: groups, sections, 25 values each. */
const Pairs& configuration(int keys);

/** The same pairs in an order that nobody sorted, the same in each run. */
Pairs shuffled(Pairs pairs);

/** The pairs as key=value text, with something around each value where a peer wants that. */
std::string keyValueText(const Pairs& pairs, const std::string& quote = {});

/** The lines of a file beside this one. */
std::vector<std::string> dataLines(const std::string& file);

/** The folder that stands for the device's root, which scripts/bench makes where a device has a tmpfs too. */
std::string deviceRoot();
inline std::string configurationPath() { return deviceRoot() + "/tmp/system.cfg"; }

// Each adds the rows of one group.
void addUriRows();
void addKeyValueRows();
void addStoreRows();
void addLockRows();
void addCommandLineRows();
void addTreeRows();

}  // namespace bench
