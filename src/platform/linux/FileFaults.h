#pragma once

#include <atomic>

namespace Platform {

// What a test takes away from the file system.
struct FileFaults {
  std::atomic<bool> noUnnamedFiles{false};     // as on file systems without O_TMPFILE
  std::atomic<bool> noExclusiveRename{false};  // as on file systems without RENAME_NOREPLACE
  std::atomic<bool> noLinkByNumber{false};     // as for a process without privileges
  std::atomic<int> folderSyncError{0};         // what the next syncs of a folder report
  std::atomic<unsigned> folderSyncs{0};        // counts them
};
FileFaults& Faults();

}  // namespace Platform
