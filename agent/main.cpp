// KestrelAgent entry point: paths and services from the environment, then the dispatcher.
#include "agent/Dispatcher.h"
#include "core/system/Environment.h"

#include <iostream>

int main(int argc, char** argv) {
  return kestrel::agent::runAgent({argv + 1, argv + argc}, kestrel::Environment::paths(), std::cout,
                                  kestrel::Environment::services());
}
