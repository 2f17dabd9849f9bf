// KestrelAgent entry point: paths from HOME, then the dispatcher.
#include "agent/Dispatcher.h"

#include <iostream>

int main(int argc, char** argv) {
  return kestrel::agent::runAgent({argv + 1, argv + argc}, kestrel::Paths::fromEnvironment(), std::cout);
}
