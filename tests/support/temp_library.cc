#include "support/temp_library.h"

#include <stdlib.h>

#include <string>

#include "platform/foundation/library_directory.h"
#include "platform/foundation/user_defaults.h"

namespace sonorell::testing {

TempLibrary::TempLibrary() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-test-XXXXXX").string();
  char* made = ::mkdtemp(pattern.data());
  path_ = made ? std::filesystem::path(made) : std::filesystem::path();
  LibraryDirectory::resetForTesting();
  UserDefaults::resetStandardForTesting();
  LibraryDirectory::setPath(path_);
}

TempLibrary::~TempLibrary() {
  LibraryDirectory::resetForTesting();
  UserDefaults::resetStandardForTesting();
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

}  // namespace sonorell::testing
