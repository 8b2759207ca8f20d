// korvo_bench           times all rows, with the options of Google Benchmark
// korvo_bench --costs   prints what the rows of ours cost in numbers that repeat exactly

#include <korvo/utils/device_root.h>

#include "bench.h"

int main(int argc, char** argv) {
    korvo::utils::setDeviceRoot(bench::deviceRoot());
    bench::addCommandLineRows();
    bench::addDeviceRows();
    bench::addKeyValueRows();
    bench::addLockRows();
    bench::addTreeRows();
    bench::addUriRows();
    if (argc == 2 && argv[1] == std::string_view("--costs")) {
        for (const auto& print : bench::costs) print();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
