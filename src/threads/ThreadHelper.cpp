#include "threads/ThreadHelper.h"

#include <ace/Thread_Manager.h>
#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "logging/Log.h"
#include "platform/Process.h"

namespace ThreadHelper {
namespace {

// A thread is being started and has not told its number yet. No thread of the kernel has it.
constexpr std::uint32_t kStarting = 0xFFFFFFFF;

std::atomic<UnknownExceptionReporter> unknownExceptionReporter{nullptr};

std::string ClassName(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return name != nullptr ? name.get() : type.name();
}

// What tools that list threads show.
std::string ShortClassName(const std::type_info& type) {
  std::string name = ClassName(type);
  name.erase(std::min(name.find('<'), name.size()));
  const std::size_t scope = name.rfind("::");
  return scope == std::string::npos ? name : name.substr(scope + 2);
}

template <class T>
std::string Prefix(const T& object) {
  try {
    return ClassName(typeid(object)) + " derived from ";
  } catch (const std::bad_typeid&) {
    return {};
  }
}

[[noreturn]] void EndForFault(const char* text) {
  MessageRouter::LogError("%s", text);
  Platform::ExitProcess(-1);
}

}  // namespace

void SetUnknownExceptionReporter(UnknownExceptionReporter reporter) {
  unknownExceptionReporter = reporter;
}

BasicThreadHelper::~BasicThreadHelper() {
  if (m_thread != 0) EndForFault("BasicThreadHelper: destroyed while its thread is attached\n");
}

void BasicThreadHelper::Start() {
  std::uint32_t idle = 0;
  if (!m_thread.compare_exchange_strong(idle, kStarting)) {
    throw std::runtime_error("BasicThreadHelper is already running");
  }
  const int result = ACE_Thread_Manager::instance()->spawn(&BasicThreadHelper::do_thread, this,
                                                           THR_NEW_LWP | THR_JOINABLE, &handle_);
  if (result == -1) {
    m_thread = 0;
    throw std::runtime_error("BasicThreadHelper failed to start thread");
  }
  // The thread's first act is to tell its number.
  m_thread.wait(kStarting);
}

int BasicThreadHelper::Join() {
  const std::uint32_t thread = m_thread;
  if (thread == 0) return 0;
  if (thread == Platform::ThreadId())
    EndForFault("BasicThreadHelper: a thread can't join itself\n");
  const int result = ACE_Thread_Manager::instance()->join(handle_);
  m_thread = 0;
  return result;
}

std::ostream& BasicThreadHelper::write(std::ostream& stream) const {
  return stream << "BasicThreadHelper(m_thread=" << m_thread << ")";
}

ACE_THR_FUNC_RETURN BasicThreadHelper::do_thread(void* self) {
  auto* const object = static_cast<BasicThreadHelper*>(self);
  object->m_thread = Platform::ThreadId();
  object->m_thread.notify_all();
  object->Run();
  return nullptr;
}

void BasicThreadHelper::Run() {
  std::string prefix;
  try {
    prefix = Prefix(*this);
    Platform::SetThreadName(ShortClassName(typeid(*this)).c_str());
    MessageRouter::LogTrace("+++ %sBasicThreadHelper: starting.\n", prefix.c_str());
    Process();
    return;
  } catch (const std::exception& exception) {
    // The process ends as it should where there is no memory for the line either.
    try {
      MessageRouter::LogError("%sBasicThreadHelper: Caught %sstd::exception: ''%s''\n",
                              prefix.c_str(), Prefix(exception).c_str(), exception.what());
    } catch (...) {
    }
  } catch (...) {
    try {
      const UnknownExceptionReporter reporter = unknownExceptionReporter;
      if (reporter == nullptr || !reporter(prefix.c_str())) {
        MessageRouter::LogError("%sBasicThreadHelper: Caught unknown exception\n", prefix.c_str());
      }
    } catch (...) {
    }
  }
  Platform::ExitProcess(-1);
}

StoppableThreadHelper::StoppableThreadHelper() : condition_(mutex_) {}

StoppableThreadHelper::~StoppableThreadHelper() = default;

bool StoppableThreadHelper::IsTerminated() {
  const Guard guard(mutex_);
  if (!guard) return false;
  return m_terminate;
}

void StoppableThreadHelper::RequestStop() {
  const Guard guard(mutex_);
  if (!guard) return;
  UnlockedRequestStop();
}

void StoppableThreadHelper::Stop() {
  RequestStop();
  Join();
  // Done whether the lock can be had or not: after the join nobody else sets it.
  const Guard guard(mutex_);
  m_terminate = false;
}

bool StoppableThreadHelper::Wait(unsigned seconds, unsigned milliseconds) {
  const Guard guard(mutex_);
  if (!guard) return false;
  return UnlockedWait(seconds, milliseconds);
}

void StoppableThreadHelper::Signal() {
  const Guard guard(mutex_);
  if (!guard) return;
  condition_.Broadcast();
}

std::ostream& StoppableThreadHelper::write(std::ostream& stream) const {
  BasicThreadHelper::write(stream);
  const Guard guard(mutex_);
  const bool terminate = guard && m_terminate;
  return stream << "StoppableThreadHelper:(m_terminate=" << terminate << ")";
}

void StoppableThreadHelper::UnlockedRequestStop() {
  m_terminate = true;
  condition_.Broadcast();
}

bool StoppableThreadHelper::UnlockedWait(unsigned seconds, unsigned milliseconds) {
  if (m_terminate) return true;
  if (seconds == 0 && milliseconds == 0) return condition_.Wait();
  return condition_.WaitFor(std::chrono::seconds(seconds) +
                            std::chrono::milliseconds(milliseconds));
}

}  // namespace ThreadHelper
