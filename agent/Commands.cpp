// The command table: each command joins it together with its handler.
#include "agent/Commands.h"

namespace kestrel::agent {

std::vector<Command> commandHandlers() {
  return {};
}

}  // namespace kestrel::agent
