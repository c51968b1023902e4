#include "serial/board_answers.h"

#include <atomic>

namespace fsu::serial {
namespace {

// Monotonic seconds of the last answer, 0 for none (the clock's start is never an answer).
std::atomic<double> last_answer[3] = {0.0, 0.0, 0.0};

bool known(int board) { return board >= 1 && board <= kEnvironmentBoard; }

}  // namespace

void note_board_answer(int board, double now) {
  if (known(board)) last_answer[board - 1].store(now > 0 ? now : 1e-9, std::memory_order_relaxed);
}

double board_answer_age(int board, double now) {
  if (!known(board)) return -1;
  const double at = last_answer[board - 1].load(std::memory_order_relaxed);
  if (at == 0) return -1;
  return now > at ? now - at : 0;
}

void clear_board_answers() {
  for (auto& at : last_answer) at.store(0, std::memory_order_relaxed);
}

}  // namespace fsu::serial
