#pragma once

/*
 * What a caller hands down to the programs, and what could bend their answers: the first and the last thing
 * in main.
 */

/**
 * Put right what the caller handed down: a standard descriptor that is missing leads to the null device, and
 * to standard output nothing can be printed then; no signal is blocked; none is ignored but those by which
 * people stop and end programs; what is made others may read and not write. A reader that goes away, and a
 * file that grows over a limit, are answers of the call that writes and do not end the process. Ends the
 * process when there is no null device.
 */
void put_caller_right();

/** Finish what was printed on standard output: 0, or the errno why not all of it has come there. */
[[nodiscard]] int finish_standard_output();
