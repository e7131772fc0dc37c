// Replays the fuzz targets' seed corpus and past findings, then random inputs: every
// input must return without a crash (run under `make test-asan` to catch memory errors).
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "box_mesh.h"

#define TESSEL3D_DECLARE_TARGET(name) int tessel3d_fuzz_##name(const std::uint8_t* data, std::size_t size);
TESSEL3D_DECLARE_TARGET(common)
TESSEL3D_DECLARE_TARGET(measures)
TESSEL3D_DECLARE_TARGET(extrude)
TESSEL3D_DECLARE_TARGET(order)
TESSEL3D_DECLARE_TARGET(locate)
TESSEL3D_DECLARE_TARGET(surface)
TESSEL3D_DECLARE_TARGET(split)
#undef TESSEL3D_DECLARE_TARGET

namespace {

struct target {
  const char* name;
  int (*run)(const std::uint8_t*, std::size_t);
};

const target targets[] = {{"common", tessel3d_fuzz_common},   {"measures", tessel3d_fuzz_measures},
                          {"extrude", tessel3d_fuzz_extrude}, {"order", tessel3d_fuzz_order},
                          {"locate", tessel3d_fuzz_locate},   {"surface", tessel3d_fuzz_surface},
                          {"split", tessel3d_fuzz_split}};

class fuzz_corpus : public ::testing::TestWithParam<target> {};

TEST_P(fuzz_corpus, replays_seeds_and_findings) {
  namespace fs = std::filesystem;
  std::size_t files = 0;
  for (const char* folder : {"corpus", "regressions"}) {
    const fs::path dir = fs::path(TESSEL3D_FUZZ_DIR) / folder / GetParam().name;
    if (!fs::is_directory(dir)) continue;
    for (const auto& entry : fs::directory_iterator(dir)) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      SCOPED_TRACE(entry.path().string());
      GetParam().run(bytes.data(), bytes.size());
      ++files;
    }
  }
  RecordProperty("files", static_cast<int>(files));
}

TEST_P(fuzz_corpus, survives_random_inputs) {
  tessel3d_test::random_stream random(2024);
  std::vector<std::uint8_t> bytes;
  for (int round = 0; round < 3000; ++round) {
    bytes.resize(random.next() % 600);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(random.next());
    GetParam().run(bytes.data(), bytes.size());
  }
}

INSTANTIATE_TEST_SUITE_P(targets, fuzz_corpus, ::testing::ValuesIn(targets),
                         [](const ::testing::TestParamInfo<target>& row) { return std::string(row.param.name); });

}  // namespace
