#include "SampleLog.h"

#include <cstdio>
#include <cstdlib>

namespace velacam::bench {

void logSamples(const std::string& benchmark, const char* side,
                const std::vector<int64_t>& samples) {
    const char* path = std::getenv("VELACAM_BENCH_SAMPLES");
    if (path == nullptr || *path == '\0' || samples.empty()) {
        return;
    }
    FILE* file = std::fopen(path, "ae");
    if (file == nullptr) {
        return;
    }
    std::fprintf(file, "%s\t%s\t", benchmark.c_str(), side);
    for (size_t i = 0; i < samples.size(); ++i) {
        std::fprintf(file, i == 0 ? "%lld" : " %lld", static_cast<long long>(samples[i]));
    }
    std::fputc('\n', file);
    std::fclose(file);
}

}  // namespace velacam::bench
