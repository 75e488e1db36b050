// How the time to read a settings file grows: with its bytes while the keys stay few, and with
// the number of distinct keys, whose list is searched from end to end for every line.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "player/ControlPanel/Common/SMConfigFileManager.h"

namespace {

/// A file with this content for as long as the object is there.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string const& content)
      : mPath((std::filesystem::temp_directory_path() / "settings-bench-XXXXXX").string()) {
    const int descriptor = mkstemp(mPath.data());
    if (descriptor < 0) {
      abort();
    }
    std::ofstream(mPath, std::ios::binary)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
    close(descriptor);
  }
  TemporaryFile(TemporaryFile const&) = delete;
  TemporaryFile& operator=(TemporaryFile const&) = delete;
  ~TemporaryFile() { std::filesystem::remove(mPath); }

  char const* Path() const { return mPath.c_str(); }

 private:
  std::string mPath;
};

void ReadRepeatedly(benchmark::State& state, std::string const& content) {
  const TemporaryFile file(content);
  const SASM::SimpleString path(file.Path());
  for (auto _ : state) {
    const SASM::ConfigFileManager manager(path);
    benchmark::DoNotOptimize(manager.mSettings.mFirst);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(content.size()));
  state.SetComplexityN(state.range(0));
}

void BytesOfFewKeys(benchmark::State& state) {
  std::string content;
  while (content.size() < static_cast<size_t>(state.range(0))) {
    content += "SomeSetting = some value\n# a note between settings\nAnotherSetting=1\n";
  }
  ReadRepeatedly(state, content);
}
BENCHMARK(BytesOfFewKeys)->RangeMultiplier(8)->Range(1 << 10, 1 << 25)->Complexity(benchmark::oN);

void BytesOnOneLine(benchmark::State& state) {
  ReadRepeatedly(state, "key=" + std::string(static_cast<size_t>(state.range(0)), 'v'));
}
BENCHMARK(BytesOnOneLine)->RangeMultiplier(8)->Range(1 << 10, 1 << 25)->Complexity(benchmark::oN);

void DistinctKeys(benchmark::State& state) {
  std::string content;
  for (int64_t number = 0; number < state.range(0); ++number) {
    content += "Setting" + std::to_string(number) + "=1\n";
  }
  ReadRepeatedly(state, content);
}
BENCHMARK(DistinctKeys)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Complexity(benchmark::oNSquared)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
