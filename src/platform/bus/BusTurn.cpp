#include "platform/bus/BusTurn.h"

void CBusTurn::Take() {
  uint32_t uiState = m_uiState.load();
  for (;;) {
    if ((uiState & kTaken) == 0) {
      // Others that wait are awake, too, and ask again.
      if (m_uiState.compare_exchange_weak(uiState, kTaken | (uiState & kMore)))
        return;
    } else if ((uiState & kWaiting) != 0 || m_uiState.compare_exchange_weak(uiState, uiState | kWaiting)) {
      m_uiState.wait(uiState | kWaiting);
      uiState = m_uiState.load();
    }
  }
}

bool CBusTurn::TryTake() {
  uint32_t uiState = m_uiState.load();
  for (;;) {
    if (uiState == 0) {
      if (m_uiState.compare_exchange_weak(uiState, kTaken))
        return true;
    } else if ((uiState & kMore) != 0 || m_uiState.compare_exchange_weak(uiState, uiState | kMore)) {
      return false;
    }
  }
}

bool CBusTurn::Give() {
  uint32_t uiState = m_uiState.load();
  uint32_t uiNext = 0;
  do {
    uiNext = (uiState & kWaiting) != 0 ? uiState & ~kTaken : 0;  // what is to be written goes on to who waits
  } while (!m_uiState.compare_exchange_weak(uiState, uiNext));
  if (uiNext != 0)
    m_uiState.notify_all();
  return uiNext == 0 && (uiState & kMore) != 0;
}
