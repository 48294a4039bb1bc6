// SampleLog: where the single round-trip times of a run go for the latency
// charts.
//
// When the environment names a file in VELACAM_BENCH_SAMPLES, every call
// appends one line to it:
//   BENCHMARK<TAB>SIDE<TAB>NS NS NS ...
// (one line per repetition and side; scripts/bench plots them). Without the
// variable nothing is written. Failure to write is ignored: the samples are
// an extra, the benchmark's figures do not depend on them.
// Thread: the benchmark's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velacam::bench {

void logSamples(const std::string& benchmark, const char* side,
                const std::vector<int64_t>& samples);

}  // namespace velacam::bench
