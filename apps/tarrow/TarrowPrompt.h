#pragma once
// Asks for a secret on the terminal without echoing it (or reads one line
// from a non-terminal stdin). An interrupt while asking puts the echo back
// before the process ends. nullopt at end of input.

#include <optional>
#include <ostream>
#include <string>

#include "TarrowInterrupt.h"

std::optional<std::string> TarrowPromptSecret(const std::string& prompt, std::ostream& err, TarrowInterrupt& interrupt);
