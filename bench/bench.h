/** @file What the benchmarks share: how a cell of the table is added, and the configuration they work on. */
#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace bench {

/** Ends the program when two sides that are to be compared do not do the same. */
void require(bool same, const std::string& what);

/**
 * Adds a cell to the row @p work, in the column @p who: "ours" or the peer's name. @p make prepares the work,
 * untimed, and returns a function that does it once and returns the result.
 */
template <class Make>
void add(const std::string& work, const std::string& who, Make make) {
    benchmark::RegisterBenchmark((work + '|' + who).c_str(), [make](benchmark::State& state) {
        auto run = make();
        for (auto iteration : state) benchmark::DoNotOptimize(run());
    });
}

/** One value of a configuration. */
struct Pair {
    std::array<std::string, 3> path;
    std::string value;
};
using Pairs = std::vector<Pair>;

/** A configuration of so many keys, sorted: ten groups, as many sections as it takes, five values in each. */
Pairs configuration(int keys);

/** The pairs as key=value text. */
std::string keyValueText(const Pairs& pairs);

// Each adds the rows of one group.
void addCommandLineRows();
void addKeyValueRows();
void addStoreRows();
void addTreeRows();
void addUriRows();

}  // namespace bench
