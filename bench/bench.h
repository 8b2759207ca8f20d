/** @file What the benchmarks have in common: how a row is named and timed, and the data that all work on. */
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/** The name under which this library's own times stand. */
inline const char ours[] = "ours";

/** The sizes, tenfold each, at which rows show how their cost grows. */
inline constexpr int sizes[] = {100, 1000, 10000};

/** Ends the program when two sides that are to be compared do not do the same. */
inline void require(bool same, const std::string& what) {
    if (same) return;
    std::fprintf(stderr, "Nothing was timed: %s\n", what.c_str());
    std::exit(1);
}

/** Adds a line that is to stand below the table. */
void note(const std::string& line);

/**
 * Registers one cell of the table. Processor time is what counts, so that other work on the machine does not.
 * @p run does the work once, destroying what it made included.
 *
 * @param work  what is done, the same text for everybody who does it
 * @param who   `ours` or the peer's name
 * @param size  how much work it is, where the row is there in several sizes; 0 where it is not
 */
template <class Run>
void add(const std::string& work, const std::string& who, int size, Run run) {
    const std::string name = work + "|" + who + "|" + std::to_string(size);
    benchmark::RegisterBenchmark(name.c_str(), [run](benchmark::State& state) mutable {
        for (auto iteration : state) run();
    });
}

/** One leaf of a configuration. */
struct Pair {
    std::vector<std::string> path;
    std::string key;  ///< the path with dots between its components
    std::string value;
};

/** A configuration of so many keys, in the order in which it is written: groups, sections, 25 values each. */
std::vector<Pair> configuration(int keys);

/** The same pairs in an order that nobody sorted, the same in each run. */
std::vector<Pair> shuffled(std::vector<Pair> pairs);

/** The pairs as key=value text. */
std::string keyValueText(const std::vector<Pair>& pairs);

/** The URIs of uris.txt. */
std::vector<std::string> uris();

/** An empty folder with a folder "tmp" in it on a tmpfs, as /tmp is on a device; removed at exit. */
const std::string& deviceRoot();

// Each adds the rows of one group.
void addUriRows();
void addKeyValueRows();
void addStoreRows();
void addLockRows();
void addCommandLineRows();
void addValueRows();

}  // namespace bench
