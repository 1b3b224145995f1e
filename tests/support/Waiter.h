// Waiting in tests: always for something, never for a time; the deadline only bounds a failure.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

inline constexpr uint32_t kTestDeadlineMs = 10000;

// Counts occurrences and wakes whoever waits for a number of them. Any thread may call anything.
class CEventWaiter {
 public:
  void Set();                                                       // one more occurrence
  bool Wait(uint32_t uCount = 1, uint32_t dwMs = kTestDeadlineMs);  // at least uCount; false: deadline
  uint32_t Count();

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  uint32_t m_uCount = 0;
};

// For states that nobody signals (a file appears, another process reacts): asks every few milliseconds.
bool EventuallyTrue(const std::function<bool()>& fnCondition, uint32_t dwMs = kTestDeadlineMs);
