// When each board last answered: extension boards 1 and 2 (any whole link frame from them) and
// the environment board (a whole, decoded answer). The readings of a board that falls silent
// keep their last values; this record is what tells an application how old they are.
#pragma once

namespace fsu::serial {

constexpr int kEnvironmentBoard = 3;  // boards 1 and 2 are the extension boards

// Notes an answer of board 1 to 3 at `now` (monotonic seconds); other boards are ignored.
void note_board_answer(int board, double now);
// Seconds from the last answer of board 1 to 3 to `now`; -1 when it has not answered (or for
// another board).
double board_answer_age(int board, double now);
// Forgets every answer (for tests).
void clear_board_answers();

}  // namespace fsu::serial
