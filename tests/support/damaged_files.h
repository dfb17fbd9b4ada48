// Store files damaged as a crash, a full disk or a stray program leaves them, and the copies the
// engine keeps aside of an unreadable database ("<file>.unreadable-<time>"): one implementation
// for the object store, transfer journal and end-to-end store tests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace sonorell::testing {

// How a store's file is damaged in the parameterised store tests: random bytes, cut in half, or a
// directory in its place (which no program can open as a file).
enum class Damage { kGarbage, kTruncated, kDirectory };

struct DamageCase {
  std::string name;
  Damage damage;
};

inline void PrintTo(const DamageCase& c, std::ostream* out) { *out << c.name; }

// The three cases, and their names for INSTANTIATE_TEST_SUITE_P.
std::vector<DamageCase> damageCases();
inline std::string damageCaseName(const auto& info) { return info.param.name; }

std::string readBytes(const std::filesystem::path& file);

// Replaces the file with 64 KiB of random bytes from `seed`; returns them.
std::string fillWithGarbage(const std::filesystem::path& file, uint64_t seed);

// Cuts the file to half its size; returns what is left. A SQLite file's log is checkpointed
// into it and removed first, so that what is cut is all the database there is.
std::string truncateInHalf(const std::filesystem::path& file);

// What was kept aside of `file` (the copies, not their logs).
std::vector<std::filesystem::path> keptAside(const std::filesystem::path& file);

}  // namespace sonorell::testing
