#pragma once

#include <ace/Log_Msg_Backend.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

// Takes all log records of the process while it lives, whatever their level.
class LogCapture : public ACE_Log_Msg_Backend {
 public:
  LogCapture();
  ~LogCapture() override;

  struct Line {
    unsigned level;
    std::string text;
  };
  std::vector<Line> Lines() const;
  bool Has(unsigned level, const std::string& text) const;  // exactly this record
  bool Contains(const std::string& part) const;
  std::size_t Count(const std::string& part) const;
  void Clear();
  // Runs at each record, on its thread, after it is kept. Set before other threads log.
  std::function<void(const std::string& text)> onRecord;

  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override;

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  ACE_Log_Msg_Backend* previous_;
  unsigned long previousMask_;
  unsigned long previousFlags_;
};

}  // namespace TestSupport
