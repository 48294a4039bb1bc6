// Entry point of the benchmark suite. The library logs as a production device
// would: errors only (ULogger::sDetailsLevel = 1). The one benchmark that
// measures the host's default logging sets it back for its own run.
#include <benchmark/benchmark.h>
#include <ipc/utils/Log.h>
#include <ulog/ULogger.h>

#include <cstdio>

int main(int argc, char** argv) {
    using Kestrel::Utils::ULog::ULogger;
    ULogger::sDetailsLevel = 1;
    benchmark::AddCustomContext("velacam_logging", "errors only (ULogger::sDetailsLevel=1)");
    if (Kestrel::ipc::utils::LogSetting::logLevel() >= 1) {
        std::fprintf(stderr,
                     "note: vendor.debug.ipc.framework.log is set; debug gates stay closed only "
                     "because sDetailsLevel is 1\n");
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
