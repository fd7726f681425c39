// Seeding for fuzzers that make their own starting files: the first argument that is not a flag
// is the corpus folder, and an empty (or missing) one gets the seeds.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

inline void WriteSeedsIntoEmptyCorpus(int argc, char** argv,
                                      const std::vector<std::vector<std::uint8_t>>& seeds,
                                      const std::string& extension) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '-') continue;
    std::error_code ec;
    const std::filesystem::path dir(argv[i]);
    if (std::filesystem::exists(dir, ec) && !std::filesystem::is_directory(dir, ec)) return;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_empty(dir, ec)) return;
    for (std::size_t s = 0; s < seeds.size(); ++s) {
      std::ofstream out(dir / ("seed" + std::to_string(s) + extension), std::ios::binary);
      out.write(reinterpret_cast<const char*>(seeds[s].data()),
                static_cast<std::streamsize>(seeds[s].size()));
    }
    return;
  }
}
