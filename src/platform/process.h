// The process's dealings with its surroundings: the environment it was
// started with, whether its output goes to a terminal, and the signals that
// ask it to stop.
#pragma once

#include <optional>
#include <string>

namespace ostler {

// The value of the environment variable `name`; nothing when it is unset or
// empty.
[[nodiscard]] std::optional<std::string> environmentVariable(const char* name);

// Whether standard output, or standard error, is a terminal.
[[nodiscard]] bool standardOutputIsTerminal();
[[nodiscard]] bool standardErrorIsTerminal();

// Makes SIGINT and SIGTERM ask the process to stop, rather than end it at
// once: a handler only raises a flag, which `stopSignalReceived` reads from
// any thread. Call once, early in main.
void catchStopSignals();
[[nodiscard]] bool stopSignalReceived();
// Waits up to `seconds` (at once when a stop signal came already); true
// once a stop signal was received. Ends as soon as one arrives.
bool waitForStopSignal(double seconds);

}  // namespace ostler
