#pragma once

#include <atomic>
#include <latch>

namespace Platform {

// What a test takes away from the file system while PublishFolder and PlacedFile use it, and what
// it counts there.
struct FileFaults {
  std::atomic<bool> noUnnamedFiles{false};     // as on file systems without O_TMPFILE
  std::atomic<bool> noExclusiveRename{false};  // as on file systems without RENAME_NOREPLACE
  std::atomic<bool> noLinkByNumber{false};     // as for a process without privileges
  std::atomic<int> fileSyncError{0};           // what the next syncs of a file report
  std::atomic<unsigned> fileSyncs{0};          // counts them
  std::atomic<int> folderSyncError{0};         // what the next syncs of a folder report
  std::atomic<unsigned> folderSyncs{0};        // counts them
  std::atomic<unsigned> folderSyncCallers{
      0};  // counts those who sync it or wait for another's sync
  // The next sync of a folder, once it has been counted, waits for it. The caller keeps ownership.
  std::atomic<std::latch*> folderSyncHold{nullptr};
  // So many writes of placed files work, and none after them; below 0 all do.
  std::atomic<int> placedWritesLeft{-1};
  // The read of a placed file that comes after so many fails once; below 0 none does.
  std::atomic<int> placedReadToFail{-1};
  std::atomic<int> placedSearchError{0};  // what the next search of one for content reports
  // Runs in the next search of one for content.
  std::atomic<void (*)()> placedSearchHook{nullptr};
  std::atomic<bool> placedWritesTakeNothing{false};  // as some file systems do when full
};
FileFaults& Faults();

}  // namespace Platform
