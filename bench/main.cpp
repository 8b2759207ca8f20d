#include <korvo/utils/device_root.h>

#include "bench.h"

namespace {

std::string notes;

}  // namespace

void bench::note(const std::string& line) { notes += line + "\n"; }

int main(int argc, char** argv) {
    korvo::utils::setDeviceRoot(bench::deviceRoot());
    bench::addUriRows();
    bench::addKeyValueRows();
    bench::addStoreRows();
    bench::addLockRows();
    bench::addCommandLineRows();
    bench::addTreeRows();
    benchmark::AddCustomContext("notes", notes);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
