// The handlers of the agent's commands, one group per file.
#pragma once

#include "agent/Dispatcher.h"

#include <vector>

namespace kestrel::agent {

// The command table in dispatch order, built from the handlers that exist.
std::vector<Command> commandHandlers();

}  // namespace kestrel::agent
