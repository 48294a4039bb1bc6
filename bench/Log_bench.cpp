// Logging costs: a debug site whose gate is closed (errors-only logging, the
// property unset), and an error line emitted into a ULogger subclass. Each is
// set beside what it cannot do better than: a test of one global flag, and
// one snprintf of the same message.
#include <benchmark/benchmark.h>
#include <ipc/utils/Log.h>
#include <ulog/ULogger.h>

#include <cstdio>

namespace velacam::bench {
namespace {

using Kestrel::Utils::ULog::ULogger;

constexpr Kestrel::ipc::utils::LogSite kLogSite{"LogBench", "bench/Log_bench",
                                                Kestrel::ipc::utils::kLogModuleCore};

// Takes each line and throws it away, as a logger with a cheap sink would.
class DiscardingLogger : public ULogger {
  public:
    void record(uint32_t /*moduleId*/, const char* /*tag*/, uint32_t /*level*/, const char* text,
                int /*length*/) override {
        benchmark::DoNotOptimize(text);
    }
};

// Installs `logger` as the unified logger's only sink for its lifetime.
class LoggerOnly {
  public:
    explicit LoggerOnly(ULogger* logger) : mMode(ULogger::sMode), mLogger(ULogger::sULogger) {
        ULogger::sMode = 2;
        ULogger::sULogger = logger;
    }
    ~LoggerOnly() {
        ULogger::sMode = mMode;
        ULogger::sULogger = mLogger;
    }

  private:
    uint32_t mMode;
    ULogger* mLogger;
};

int gVerbosity = 0;  // the reference gate; never raised

void LogSite_suppressedDebug(benchmark::State& state) {
    int frame = 0;
    for (auto _ : state) {
        IPC_LOGD("[%s] frame(%d) ready", __func__, frame);
        ++frame;
        // The gate's statics are read again on every pass, as at a real site.
        benchmark::ClobberMemory();
    }
}

void Reference_flagTest(benchmark::State& state) {
    int frame = 0;
    for (auto _ : state) {
        if (gVerbosity >= 1) {
            std::printf("frame(%d) ready\n", frame);
        }
        ++frame;
        benchmark::ClobberMemory();
    }
}

void LogSite_emittedError(benchmark::State& state) {
    DiscardingLogger logger;
    LoggerOnly only(&logger);
    int frame = 0;
    for (auto _ : state) {
        IPC_LOGE("frame(%d) failed (%s)", frame, "Connection timed out");
        ++frame;
    }
}

void Reference_snprintf(benchmark::State& state) {
    int frame = 0;
    for (auto _ : state) {
        char buffer[Kestrel::ipc::utils::logging::kBufferSize];
        const int length = std::snprintf(buffer, sizeof(buffer), "frame(%d) failed (%s)", frame,
                                         "Connection timed out");
        benchmark::DoNotOptimize(buffer);
        benchmark::DoNotOptimize(length);
        ++frame;
    }
}

BENCHMARK(LogSite_suppressedDebug);
BENCHMARK(Reference_flagTest);
BENCHMARK(LogSite_emittedError);
BENCHMARK(Reference_snprintf);

}  // namespace
}  // namespace velacam::bench
