#include "support/LogCapture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>

#include <algorithm>

#include "support/AllocationFailure.h"

namespace TestSupport {

LogCapture::LogCapture()
    : previous_(ACE_Log_Msg::msg_backend(this)),
      previousMask_(ACE_LOG_MSG->priority_mask(0x7FF, ACE_Log_Msg::PROCESS)),
      previousFlags_(ACE_LOG_MSG->flags()) {
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
}

LogCapture::~LogCapture() {
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::CUSTOM);
  ACE_LOG_MSG->set_flags(previousFlags_);
  ACE_LOG_MSG->priority_mask(previousMask_, ACE_Log_Msg::PROCESS);
  ACE_Log_Msg::msg_backend(previous_);
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return lines_;
}

bool LogCapture::Has(unsigned level, const std::string& text) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const Line& line) { return line.level == level && line.text == text; });
}

bool LogCapture::Contains(const std::string& part) const {
  return Count(part) > 0;
}

std::size_t LogCapture::Count(const std::string& part) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<std::size_t>(
      std::count_if(lines_.begin(), lines_.end(),
                    [&](const Line& line) { return line.text.find(part) != std::string::npos; }));
}

void LogCapture::Clear() {
  const std::lock_guard<std::mutex> guard(mutex_);
  lines_.clear();
}

ssize_t LogCapture::log(ACE_Log_Record& record) {
  // Without memory ACE brings a record without a text.
  if (record.msg_data() == nullptr) return 0;
  const MemoryThere memory;
  const std::string text = record.msg_data();
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back({static_cast<unsigned>(record.type()), text});
  }
  if (onRecord) onRecord(text);
  return 0;
}

}  // namespace TestSupport
