/** @file What the benchmarks have in common: how a row is named, timed and counted, and what they work on. */
#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/** The name under which this library's own rows stand. */
inline const char ours[] = "ours";

/** The sizes, tenfold each, at which rows show how their cost grows. */
inline constexpr int sizes[] = {100, 1000, 10000};

/** Ends the program when two sides that are to be compared do not do the same. */
void require(bool same, std::string_view what);

/** What times a row: this process's work or, where another process does some of it, the clock on the wall. */
enum class Clock { processor, wall };

/** Prints what @p run costs when it is run for the second time. */
void printCost(const std::string& row, const std::function<void()>& run);

/** Calls of printCost() for the rows of ours. */
inline std::vector<std::function<void()>> costs;

/**
 * Adds one cell of the table; one of ours is counted, too.
 *
 * @param work  what is done, the same text for everybody who does it
 * @param who   `ours` or the peer's name
 * @param size  how much work it is, where the row is there in several sizes; 0 where it is not
 * @param make  makes what @p run works on, untimed, before each repetition
 * @param run   does the work once, destroying what it made included
 */
template <class Make, class Run>
void add(const std::string& work, const std::string& who, int size, Make make, Run run,
         Clock clock = Clock::processor) {
    const std::string row = work + "|" + who + "|" + std::to_string(size);
    auto* timed = benchmark::RegisterBenchmark(row.c_str(), [=](benchmark::State& state) {
        auto subject = make();
        for (auto iteration : state) run(subject);
    });
    if (clock == Clock::wall) {
        timed->UseRealTime();
    } else if (who == ours) {
        costs.push_back([=] {
            auto subject = make();
            printCost(row, [&] { run(subject); });
        });
    }
}

/** The same for work that needs nothing made before. */
template <class Run>
void add(const std::string& work, const std::string& who, int size, Run run) {
    add(
        work, who, size, [] { return 0; }, [run](int /*nothing*/) { run(); });
}

/** What a C library made, released by its function. */
template <class T, auto release>
using Owner = std::unique_ptr<T, std::integral_constant<decltype(release), release>>;

/** One value of a configuration. */
struct Pair {
    std::array<std::string, 3> path;
    std::string value;
};
using Pairs = std::vector<Pair>;

/** A configuration of so many keys, in the order in which it is written: groups, sections, 25 values each. */
Pairs configuration(std::size_t keys);

/** The pairs as key=value text. */
std::string keyValueText(const Pairs& pairs);

/** The lines of a file beside this one. */
std::vector<std::string> dataLines(const std::string& file);

/** The folder that stands for the device's root, which scripts/bench makes where a device has a tmpfs too. */
std::string deviceRoot();

// Each adds the rows of one group.
void addCommandLineRows();
void addDeviceRows();
void addKeyValueRows();
void addLockRows();
void addTreeRows();
void addUriRows();

}  // namespace bench
