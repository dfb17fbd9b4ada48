// One-time migrations of what earlier versions left on disk, run by QSOSonorell::sharedEngine
// before the sub-engines exist. Stateless; each call inspects the disk afresh and logs what it
// found.
#pragma once

#include <cstddef>

namespace sonorell {

class LegacyMigration {
 public:
  // The download information of the earlier object-store based versions
  // (support/"DownloadInfo.sqlite"). This version cannot read that store: it reports whether one
  // is present and leaves it in place.
  static void migrateFromCoreData();
};

class FilesystemMigration {
 public:
  // Earlier versions kept chapter files flat in support/"Audio"; moves each file whose name
  // parses as a chapter file into its audiobook's directory. Returns the number moved.
  static size_t migrate();
};

}  // namespace sonorell
