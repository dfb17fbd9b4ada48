#include "support/damaged_files.h"

#include <fstream>
#include <iterator>
#include <random>

#include "support/raw_sqlite.h"

namespace sonorell::testing {

namespace fs = std::filesystem;

std::vector<DamageCase> damageCases() {
  return {{"Garbage", Damage::kGarbage},
          {"Truncated", Damage::kTruncated},
          {"Directory", Damage::kDirectory}};
}

std::string readBytes(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string fillWithGarbage(const fs::path& file, uint64_t seed) {
  fs::create_directories(file.parent_path());
  std::mt19937_64 random(seed);
  std::string bytes(64 * 1024, '\0');
  for (auto& b : bytes) b = static_cast<char>(random());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
  return bytes;
}

std::string truncateInHalf(const fs::path& file) {
  if (file.extension() == ".sqlite") {
    RawSqlite(file).exec("PRAGMA wal_checkpoint(TRUNCATE)");
    fs::remove(file.string() + "-wal");
    fs::remove(file.string() + "-shm");
  }
  fs::resize_file(file, fs::file_size(file) / 2);
  return readBytes(file);
}

std::vector<fs::path> keptAside(const fs::path& file) {
  std::vector<fs::path> kept;
  const std::string prefix = file.filename().string() + ".unreadable-";
  for (const auto& entry : fs::directory_iterator(file.parent_path())) {
    const auto name = entry.path().filename().string();
    if (name.starts_with(prefix) && !name.ends_with("-wal")) kept.push_back(entry.path());
  }
  return kept;
}

}  // namespace sonorell::testing
