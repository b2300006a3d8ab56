#include "TarrowPrompt.h"

#include <termios.h>
#include <unistd.h>

#include <iostream>

std::optional<std::string> TarrowPromptSecret(const std::string& prompt, std::ostream& err,
                                              TarrowInterrupt& interrupt) {
  const bool terminal = isatty(STDIN_FILENO) == 1;
  termios saved{};
  const bool echoOff = terminal && tcgetattr(STDIN_FILENO, &saved) == 0;
  if (echoOff) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    interrupt.setRestoreHook([saved] { tcsetattr(STDIN_FILENO, TCSANOW, &saved); });
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  if (terminal) err << prompt << std::flush;
  // Reading blocks: an interrupt now has to end the process.
  interrupt.setWaiting(false);
  std::string line;
  bool read = static_cast<bool>(std::getline(std::cin, line));
  interrupt.setWaiting(true);
  if (echoOff) {
    tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    interrupt.setRestoreHook(nullptr);
  }
  if (terminal) err << "\n";
  if (!read) return std::nullopt;
  return line;
}
